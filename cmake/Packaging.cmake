# The Debian package (CPack's DEB generator): `cpack -G DEB` in the build directory after a
# build makes package/kalvosrv_<version>_<arch>.deb.
#
# Layout: programs under /opt/zentara/kdx as the program expects; settings, the language
# files (linked from the program directory) and the companion's autostart entry under /etc
# as configuration files, so an administrator's edits survive upgrades; the unit, manual
# pages, bash completion, ODBC templates and the example registry in the system's places.
# These files belong to the component "deb", which `cmake --install` leaves out: a source
# installation never overwrites the machine's /etc.

set(KALVO_PACKAGE_CONTACT "Orvanta GmbH <kalvosrv@orvanta.example>" CACHE STRING
    "Maintainer field of the Debian package")
set(KALVO_DEB_VERSION ${PROJECT_VERSION})
set(deb_dir ${CMAKE_BINARY_DIR}/deb)
set(src ${CMAKE_SOURCE_DIR}/packaging)

# Manual pages from their scdoc sources, compressed as Debian wants them.
find_program(SCDOC scdoc)
find_program(GZIP gzip REQUIRED)
if(NOT SCDOC)
  message(STATUS "No Debian package: scdoc (manual pages) not found")
  return()
endif()
set(generated)
set(pages kalvosrv.8 kalvoctl.1 kalvosrv.reg.5)
if(TARGET kalvotray)
  list(APPEND pages kalvotray.1)
endif()
foreach(page ${pages})
  string(REGEX REPLACE ".*\\." "" section ${page})
  add_custom_command(
    OUTPUT ${deb_dir}/${page}.gz
    COMMAND sh -c "\"$1\" < \"$2\" | \"$3\" -9n > \"$4\"" sh ${SCDOC} ${src}/man/${page}.scd
            ${GZIP} ${deb_dir}/${page}.gz
    DEPENDS ${src}/man/${page}.scd
    COMMENT "Manual page ${page}"
    VERBATIM)
  list(APPEND generated ${deb_dir}/${page}.gz)
  install(FILES ${deb_dir}/${page}.gz DESTINATION /usr/share/man/man${section}
          COMPONENT deb EXCLUDE_FROM_ALL)
endforeach()

configure_file(${src}/deb/changelog ${deb_dir}/changelog @ONLY)
add_custom_command(
  OUTPUT ${deb_dir}/changelog.gz
  COMMAND sh -c "\"$1\" -9n < \"$2\" > \"$3\"" sh ${GZIP} ${deb_dir}/changelog
          ${deb_dir}/changelog.gz
  DEPENDS ${deb_dir}/changelog
  VERBATIM)
list(APPEND generated ${deb_dir}/changelog.gz)
add_custom_target(kalvo_package_files ALL DEPENDS ${generated})

# Program directory -> configuration files, and the commands on the search path.
file(MAKE_DIRECTORY ${deb_dir}/links)
set(conffiles /etc/opt/zentara/registry.reg)
foreach(f ${language_files})
  get_filename_component(n ${f} NAME)
  file(CREATE_LINK /etc/opt/zentara/kdx/${n} ${deb_dir}/links/${n} SYMBOLIC)
  install(FILES ${deb_dir}/links/${n} DESTINATION /opt/zentara/kdx COMPONENT deb EXCLUDE_FROM_ALL)
  install(FILES ${f} DESTINATION /etc/opt/zentara/kdx COMPONENT deb EXCLUDE_FROM_ALL)
  list(APPEND conffiles /etc/opt/zentara/kdx/${n})
endforeach()
file(CREATE_LINK /opt/zentara/kdx/kalvosrv ${deb_dir}/links/kalvosrv SYMBOLIC)
file(CREATE_LINK /opt/zentara/kdx/kalvoctl ${deb_dir}/links/kalvoctl SYMBOLIC)
install(FILES ${deb_dir}/links/kalvosrv DESTINATION /usr/sbin COMPONENT deb EXCLUDE_FROM_ALL)
install(FILES ${deb_dir}/links/kalvoctl DESTINATION /usr/bin COMPONENT deb EXCLUDE_FROM_ALL)

# postinst gives the settings to the service's group and takes them from everyone else.
install(FILES ${src}/registry.reg.example DESTINATION /etc/opt/zentara RENAME registry.reg
        COMPONENT deb EXCLUDE_FROM_ALL)
install(FILES ${src}/kalvosrv.service DESTINATION /lib/systemd/system
        COMPONENT deb EXCLUDE_FROM_ALL)
# The package's own ODBC configuration, which the unit names (ODBCSYSINI, ODBCINI): the
# drivers with pooling and the SQLite data source, as configuration files.
if(CMAKE_LIBRARY_ARCHITECTURE)
  set(ARCH ${CMAKE_LIBRARY_ARCHITECTURE})
else()
  set(ARCH x86_64-linux-gnu)
endif()
configure_file(${src}/odbc/odbcinst.ini ${deb_dir}/odbcinst.ini @ONLY)
install(FILES ${deb_dir}/odbcinst.ini ${src}/odbc/odbc.ini DESTINATION /etc/opt/zentara/odbc
        COMPONENT deb EXCLUDE_FROM_ALL)
list(APPEND conffiles /etc/opt/zentara/odbc/odbcinst.ini /etc/opt/zentara/odbc/odbc.ini)
install(FILES ${src}/system/kalvosrv.logrotate DESTINATION /etc/logrotate.d RENAME kalvosrv
        COMPONENT deb EXCLUDE_FROM_ALL)
list(APPEND conffiles /etc/logrotate.d/kalvosrv)
install(FILES ${src}/system/kalvosrv.tmpfiles DESTINATION /usr/lib/tmpfiles.d
        RENAME kalvosrv.conf COMPONENT deb EXCLUDE_FROM_ALL)
install(FILES ${src}/system/kalvosrv.sysusers DESTINATION /usr/lib/sysusers.d
        RENAME kalvosrv.conf COMPONENT deb EXCLUDE_FROM_ALL)
install(FILES ${src}/bash-completion/kalvosrv ${src}/bash-completion/kalvoctl
        DESTINATION /usr/share/bash-completion/completions COMPONENT deb EXCLUDE_FROM_ALL)
install(FILES ${src}/registry.reg.example DESTINATION /usr/share/kalvosrv
        COMPONENT deb EXCLUDE_FROM_ALL)
install(DIRECTORY ${src}/odbc/ DESTINATION /usr/share/kalvosrv/odbc
        COMPONENT deb EXCLUDE_FROM_ALL)
install(FILES ${src}/deb/copyright ${deb_dir}/changelog.gz DESTINATION /usr/share/doc/kalvosrv
        COMPONENT deb EXCLUDE_FROM_ALL)
install(FILES ${src}/deb/lintian-overrides DESTINATION /usr/share/lintian/overrides
        RENAME kalvosrv COMPONENT deb EXCLUDE_FROM_ALL)
if(TARGET kalvotray)
  install(FILES ${src}/kalvotray.desktop DESTINATION /etc/xdg/autostart
          COMPONENT deb EXCLUDE_FROM_ALL)
  list(APPEND conffiles /etc/xdg/autostart/kalvotray.desktop)
  set(KALVO_RECOMMENDED_PROGRAMS ${CMAKE_BINARY_DIR}/kalvotray)
endif()

list(JOIN conffiles "\n" conffiles)
file(WRITE ${deb_dir}/conffiles "${conffiles}\n")
foreach(script preinst postinst prerm postrm)
  configure_file(${src}/deb/${script} ${deb_dir}/${script} COPYONLY
                 FILE_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE
                                  WORLD_READ WORLD_EXECUTE)
endforeach()

# cpack packs what the build made; it does not build every test program first.
set(CMAKE_SKIP_INSTALL_ALL_DEPENDENCY ON)
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME kalvosrv)
set(CPACK_PACKAGE_VERSION ${KALVO_DEB_VERSION})
set(CPACK_PACKAGE_CONTACT ${KALVO_PACKAGE_CONTACT})
set(CPACK_PACKAGE_DIRECTORY ${CMAKE_BINARY_DIR}/package)
set(CPACK_PACKAGING_INSTALL_PREFIX /opt/zentara)
set(CPACK_STRIP_FILES TRUE)
# The program files and the package's own files, as one package.
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_GROUPING ALL_COMPONENTS_IN_ONE)
set(CPACK_COMPONENTS_ALL Unspecified deb)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION net)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_DESCRIPTION "Vaultara server component: smart-card token server
kalvosrv serves the token clients and administration consoles of the
Vaultara suite: token registration, rights, groups, backups, actions and
the audit log, kept in a database reached through ODBC (SQLite,
PostgreSQL or MariaDB). It runs as the hardened systemd service
kalvosrv.service. The package also holds the command-line console
kalvoctl and, where built, the desktop companion kalvotray.")
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA
    ${deb_dir}/conffiles ${deb_dir}/preinst ${deb_dir}/postinst ${deb_dir}/prerm
    ${deb_dir}/postrm)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION TRUE)
# Library dependencies are worked out when the package is made (PackageDepends.cmake.in):
# the server's and the console's as Depends, the companion's (Qt) as Recommends, so that a
# server without a desktop need not carry Qt.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS OFF)
# The SQLite driver serves the default data source: without it the installed server cannot
# start.
set(KALVO_DEB_DEPENDS "adduser, libsqliteodbc")
set(KALVO_DEB_RECOMMENDS "odbcinst")
set(CPACK_DEBIAN_PACKAGE_SUGGESTS "odbc-postgresql, odbc-mariadb")
set(KALVO_REQUIRED_PROGRAMS ${CMAKE_BINARY_DIR}/kalvosrv ${CMAKE_BINARY_DIR}/kalvoctl)
configure_file(${CMAKE_SOURCE_DIR}/cmake/PackageDepends.cmake.in
               ${CMAKE_BINARY_DIR}/PackageDepends.cmake @ONLY)
set(CPACK_PROJECT_CONFIG_FILE ${CMAKE_BINARY_DIR}/PackageDepends.cmake)
set(CPACK_POST_BUILD_SCRIPTS ${CMAKE_SOURCE_DIR}/cmake/DebSharedDirs.cmake)
include(CPack)
