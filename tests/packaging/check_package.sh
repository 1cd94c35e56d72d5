#!/usr/bin/env bash
# Makes the Debian package from the build directory, runs lintian on it (any error fails),
# unpacks it and checks what an administrator relies on: where every file lies, which files
# are configuration files, the dependencies, the maintainer scripts, the links.
#   check_package.sh BUILD_DIR
set -uo pipefail
build=$(realpath "$1")
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
failures=0
fail() { echo "FAIL: $*"; failures=$((failures + 1)); }

rm -f "$build"/package/kalvosrv_*.deb
if ! (cd "$build" && cpack -G DEB >"$work/cpack.log" 2>&1); then
  cat "$work/cpack.log"
  echo "FAIL: cpack could not make the package (scdoc and dpkg-dev installed?)"
  exit 1
fi
deb=$(ls "$build"/package/kalvosrv_*.deb)
echo "package: $deb"

# lintian: errors fail the test; warnings are shown.
if command -v lintian >/dev/null; then
  lintian --fail-on error --tag-display-limit 0 "$deb" >"$work/lintian.log" 2>&1 ||
    fail "lintian reports errors"
  cat "$work/lintian.log"
else
  fail "lintian is not installed"
fi

root=$work/root
dpkg-deb -x "$deb" "$root"
dpkg-deb -e "$deb" "$work/control"

# Files that must be there, with their kind: f file, x executable, l link to the target.
expect() {  # expect KIND PATH [LINK_TARGET]
  local p=$root$2
  case $1 in
    f) [ -f "$p" ] && [ ! -L "$p" ] || fail "missing file $2" ;;
    x) [ -f "$p" ] && [ -x "$p" ] || fail "missing executable $2" ;;
    l) [ "$(readlink "$p")" = "$3" ] || fail "$2 should link to $3, is '$(readlink "$p")'" ;;
  esac
}
expect x /opt/zentara/kdx/kalvosrv
expect x /opt/zentara/kdx/kalvoctl
expect l /opt/zentara/kdx/kalvo.407 /etc/opt/zentara/kdx/kalvo.407
expect l /opt/zentara/kdx/kalvo.409 /etc/opt/zentara/kdx/kalvo.409
expect f /etc/opt/zentara/kdx/kalvo.407
expect f /etc/opt/zentara/kdx/kalvo.409
expect f /etc/opt/zentara/registry.reg
expect l /usr/sbin/kalvosrv /opt/zentara/kdx/kalvosrv
expect l /usr/bin/kalvoctl /opt/zentara/kdx/kalvoctl
expect f /lib/systemd/system/kalvosrv.service
expect f /usr/share/man/man8/kalvosrv.8.gz
expect f /usr/share/man/man1/kalvoctl.1.gz
expect f /usr/share/man/man5/kalvosrv.reg.5.gz
expect f /usr/share/bash-completion/completions/kalvosrv
expect f /usr/share/bash-completion/completions/kalvoctl
expect f /usr/share/kalvosrv/registry.reg.example
for t in odbc.ini.sqlite odbc.ini.postgresql odbc.ini.mariadb; do
  expect f /usr/share/kalvosrv/odbc/$t
done
expect f /etc/opt/zentara/odbc/odbc.ini
expect f /etc/opt/zentara/odbc/odbcinst.ini
expect f /etc/logrotate.d/kalvosrv
expect f /usr/lib/tmpfiles.d/kalvosrv.conf
expect f /usr/lib/sysusers.d/kalvosrv.conf
expect f /usr/share/doc/kalvosrv/copyright
expect f /usr/share/doc/kalvosrv/changelog.gz
tray=no
if [ -x "$build/kalvotray" ]; then
  tray=yes
  expect x /opt/zentara/kdx/kalvotray
  expect f /etc/xdg/autostart/kalvotray.desktop
  expect f /usr/share/man/man1/kalvotray.1.gz
fi

# Nothing outside the places above: no build paths, no headers, no static libraries, and
# nothing of a source installation's log location.
unexpected=$(cd "$root" && find . ! -type d | sed 's|^\.||' | grep -Ev \
  '^/opt/zentara/kdx/|^/etc/opt/zentara/|^/etc/xdg/autostart/kalvotray\.desktop$|^/etc/logrotate\.d/kalvosrv$|^/usr/lib/(tmpfiles|sysusers)\.d/kalvosrv\.conf$|^/usr/s?bin/kalvo|^/lib/systemd/system/kalvosrv\.service$|^/usr/share/(man|bash-completion|kalvosrv|doc/kalvosrv|lintian/overrides)/')
[ -z "$unexpected" ] || fail "unexpected files: $unexpected"
# /opt and /etc/opt belong to no Debian package: listed in ours, dpkg would remove them with it.
dpkg-deb -c "$deb" | awk '{print $6}' | grep -Eqx '\./(etc/)?opt/' &&
  fail "the package lists /opt or /etc/opt itself"
[ -z "$(find "$root" -name '*.a' -o -name '*.h' -o -name '*.log')" ] ||
  fail "build leftovers in the package"

# The programs are stripped, and run from the unpacked tree (language files found through
# the program directory's links only once installed, so just --version here).
file -b "$root/opt/zentara/kdx/kalvosrv" 2>/dev/null | grep -q 'not stripped' &&
  fail "kalvosrv is not stripped"
"$root/opt/zentara/kdx/kalvosrv" --version | grep -q '^kalvosrv ' || fail "kalvosrv --version"

# Configuration files: the settings, the language files, the autostart entry.
conffiles=$(cat "$work/control/conffiles")
for c in /etc/opt/zentara/registry.reg /etc/opt/zentara/kdx/kalvo.407 \
  /etc/opt/zentara/kdx/kalvo.409 /etc/opt/zentara/odbc/odbc.ini \
  /etc/opt/zentara/odbc/odbcinst.ini /etc/logrotate.d/kalvosrv; do
  grep -qx "$c" <<<"$conffiles" || fail "$c is not a configuration file"
done
[ $tray = no ] || grep -qx /etc/xdg/autostart/kalvotray.desktop <<<"$conffiles" ||
  fail "the autostart entry is not a configuration file"
while read -r c; do
  [ -f "$root$c" ] || fail "configuration file $c is not in the package"
done <<<"$conffiles"

# Dependencies come from Debian's own packages; Qt only as a recommendation.
control=$(cat "$work/control/control")
echo "$control" | grep -E '^(Depends|Recommends|Suggests):'
depends=$(sed -n 's/^Depends: //p' <<<"$control")
recommends=$(sed -n 's/^Recommends: //p' <<<"$control")
depends_names=$(sed 's/ *([^)]*)//g; s/, */\n/g' <<<"$depends")
for d in adduser libc6 libodbc2 libsystemd0 libstdc++6 libsqliteodbc; do
  grep -qxF "$d" <<<"$depends_names" || fail "Depends lacks $d"
done
grep -qi qt <<<"$depends" && fail "Qt must not be a hard dependency of the server"
[ $tray = no ] || grep -q libqt6widgets6 <<<"$recommends" || fail "Recommends lacks Qt"
# The package's odbcinst.ini names the drivers where Debian's driver packages put them.
sqlite_driver=$(sed -n '/^\[SQLite3\]/,/^\[/s/^Driver *= *//p' "$root/etc/opt/zentara/odbc/odbcinst.ini")
[ -f "$sqlite_driver" ] || fail "odbcinst.ini names the SQLite driver $sqlite_driver, which is not installed"
grep -qx 'Pooling = Yes' "$root/etc/opt/zentara/odbc/odbcinst.ini" || fail "odbcinst.ini does not pool"
# The settings as installed log only the important lines.
grep -qx '"LogLevel"=dword:00000000' "$root/etc/opt/zentara/registry.reg" ||
  fail "the installed registry does not set LogLevel 0"
for p in $(sed 's/([^)]*)//g; s/|/,/g; s/,/ /g' <<<"$depends, $recommends"); do
  dpkg-query -W "$p" >/dev/null 2>&1 || apt-cache show "$p" >/dev/null 2>&1 ||
    fail "dependency $p is no Debian package"
done

# Maintainer scripts: valid shell, the user is created, the unit handled the Debian way.
for s in preinst postinst prerm postrm; do
  [ -x "$work/control/$s" ] || fail "no executable $s"
  sh -n "$work/control/$s" || fail "$s has a syntax error"
done
grep -q 'adduser --system' "$work/control/postinst" || fail "postinst creates no system user"
grep -q 'deb-systemd-helper' "$work/control/postinst" || fail "postinst does not enable the unit"

# The unit inside the package is the one that passes the unit checks.
cmp -s "$root/lib/systemd/system/kalvosrv.service" "$(dirname "$0")/../../packaging/kalvosrv.service" ||
  fail "the packaged unit differs from packaging/kalvosrv.service"

# Manual pages render without warnings.
pages="man8/kalvosrv.8.gz man1/kalvoctl.1.gz man5/kalvosrv.reg.5.gz"
[ $tray = no ] || pages="$pages man1/kalvotray.1.gz"
for m in $pages; do
  w=$(zcat "$root/usr/share/man/$m" | LC_ALL=C.UTF-8 groff -man -Tutf8 -ww -z 2>&1)
  [ -z "$w" ] || fail "$m: $w"
done

if [ $failures -gt 0 ]; then
  echo "$failures check(s) failed"
  exit 1
fi
echo "package checks passed"
