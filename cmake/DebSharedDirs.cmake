# Run by cpack after the package is made (CPACK_POST_BUILD_SCRIPTS): takes the entries of
# /opt and /etc/opt themselves out of the package's data, leaving everything below them.
#
# No Debian package owns these two directories, so dpkg would count them among the package's
# own and remove them with it when they are empty, even on a machine that had them before.
# Without their entries dpkg never owns them: the preinst makes them when they are missing
# and remembers it, and the postrm removes on purge only what the preinst made.
foreach(deb ${CPACK_PACKAGE_FILES})
  if(NOT deb MATCHES "\\.deb$")
    continue()
  endif()
  execute_process(
    COMMAND sh -c [[
      set -eu
      deb=$1
      work=$(mktemp -d)
      trap 'rm -rf "$work"' EXIT
      cd "$work"
      ar x "$deb"
      mkdir root
      tar -C root -xzf data.tar.gz
      tar -tzf data.tar.gz | grep -Fxv -e ./opt/ -e ./etc/opt/ >members
      tar -C root --no-recursion --numeric-owner --format=gnu -T "$work/members" -cf - |
        gzip -9n >data.tar.gz
      rm -f "$deb"
      ar rc "$deb" debian-binary control.tar.* data.tar.gz
    ]] sh ${deb}
    RESULT_VARIABLE result)
  if(NOT result EQUAL 0)
    message(FATAL_ERROR "could not take /opt and /etc/opt out of ${deb}")
  endif()
endforeach()
