#!/usr/bin/env bash
# Installs the built Debian package into a throwaway copy of this machine and runs it the way
# an administrator would: install, start the unit's ExecStartPre and ExecStart as the unit's
# user with the unit's environment, one token logon and one `kalvoctl tokens --json` through
# it, stop; reinstall (an edited setting and the database stay); purge (nothing of the package
# stays, nothing of the machine goes, /opt and /etc/opt stay exactly when they were there
# before). A second, short cycle installs and purges with those two the other way round.
#
# The copy is an overlay over / in a private mount, PID and network namespace: every write
# lands in a tmpfs that vanishes with the namespace, every process started inside dies with
# it, and the server listens on a loopback of its own. The copy skips the manual page index
# (man-db's trigger), which only costs time. The upper layer of the overlay is exactly what
# the package changed, so the purge check reads it. Needs root and namespaces (skipped in a
# container that forbids them) and takes about 15 s.
#   check_install.sh PACKAGE.deb
set -euo pipefail

if [ "${1:-}" != --inside ]; then
  deb=$(realpath "$1")
  if [ "$(id -u)" != 0 ]; then
    echo "SKIP: installing the package needs root"
    exit 77
  fi
  if ! unshare --mount --pid --net --fork true 2>/dev/null; then
    echo "SKIP: no mount, PID and network namespaces here"
    exit 77
  fi
  work=$(mktemp -d)
  trap 'rm -rf "$work"' EXIT
  start=$SECONDS
  status=0
  unshare --mount --pid --net --fork --propagation private -- "$0" --inside "$work" "$deb" ||
    status=$?
  echo "install test took $((SECONDS - start)) s"
  exit $status
fi

work=$2
deb=$3
mount -t tmpfs -o size=1g,mode=0700 kalvo-install-test "$work"
ip link set lo up
failures=0
fail() { echo "FAIL: $*"; failures=$((failures + 1)); }
step() { echo "== $* ($SECONDS s)"; }
m=$work/merged
port=15243

# A fresh copy of the machine in $m: the overlay, the kernel's file systems, an empty /run
# (no systemd in the copy: the maintainer scripts take the path of a machine without it) and
# /tmp holding the package.
setup_root() {
  umount -R "$m" 2>/dev/null || true
  rm -rf "$work/upper" "$work/ovl" "$m"
  mkdir -p "$work/upper" "$work/ovl" "$m"
  mount -t overlay kalvo-install-test -o "lowerdir=/,upperdir=$work/upper,workdir=$work/ovl" "$m"
  mount -t proc proc "$m/proc"
  mount --rbind /dev "$m/dev"
  mount -t tmpfs tmpfs "$m/run"
  mount -t tmpfs tmpfs "$m/tmp"
  cp "$deb" "$m/tmp/kalvosrv.deb"
  rm -f "$m/var/lib/man-db/auto-update"
}

owner_mode() { in_root stat -c '%U:%G %a' "$1"; }  # owner_mode PATH, names as in the copy

in_root() { chroot "$m" /usr/bin/env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin LC_ALL=C.UTF-8 "$@"; }

dpkg_step() {  # dpkg_step WHAT ARGS...: runs dpkg in the copy, failing with its output
  local what=$1
  shift
  if ! in_root env DEBIAN_FRONTEND=noninteractive dpkg "$@" >"$work/dpkg.log" 2>&1; then
    cat "$work/dpkg.log"
    fail "$what"
    return 1
  fi
}

# What the upper layer holds: one line per entry, "path type" (c for a whiteout, i.e. a
# deletion of the machine's file).
upper_listing() { (cd "$work/upper" && find . -mindepth 1 -printf '%P %y\n' | sort); }

unit_value() {  # unit_value KEY: the installed unit's setting
  sed -n "s/^$1=//p" "$m/lib/systemd/system/kalvosrv.service" | head -n 1
}

# Runs a command line of the unit as systemd would: as its user, in its working directory,
# with its environment and umask, INVOCATION_ID marking the start by the service manager.
# Replaces the calling shell: call it in a subshell.
unit_exec() {  # unit_exec COMMAND_LINE
  local user env wd
  user=$(unit_value User)
  env=$(unit_value Environment)
  wd=$(unit_value WorkingDirectory)
  # shellcheck disable=SC2086  # the unit's lines are split at blanks, as systemd does here
  exec chroot --userspec="$user:$user" "$m" /usr/bin/env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin \
    INVOCATION_ID=0123456789abcdef0123456789abcdef $env \
    /bin/sh -c 'umask 0027 && cd "$1" && shift && exec "$@"' sh "$wd" $1
}

server_pid=
start_server() {
  (unit_exec "$(unit_value ExecStartPre)") >"$work/pre.log" 2>&1 ||
    { cat "$work/pre.log"; fail "ExecStartPre (the configuration check) failed"; return 1; }
  (unit_exec "$(unit_value ExecStart)") >"$work/server.log" 2>&1 &
  server_pid=$!
  for _ in $(seq 100); do
    if in_root bash -c "exec 3<>/dev/tcp/127.0.0.1/$port" 2>/dev/null; then return 0; fi
    kill -0 "$server_pid" 2>/dev/null || break
    sleep 0.1
  done
  cat "$work/server.log"
  fail "the server does not listen on port $port"
  return 1
}

stop_server() {
  kill -TERM "$server_pid"
  local rc=0
  timeout 10 tail --pid="$server_pid" -f /dev/null || fail "the server did not stop on SIGTERM"
  wait "$server_pid" || rc=$?
  [ $rc -eq 0 ] || { cat "$work/server.log"; fail "the server stopped with status $rc"; }
}

# The token a client announces, then the console's list must hold it.
guid=A1B2C3D4-0000-4000-8000-00000000000A
tokens_hold_the_logon() {  # tokens_hold_the_logon WHEN
  local out
  if ! out=$(in_root kalvoctl tokens --json --port $port 2>&1); then
    fail "$1: kalvoctl tokens --json: $out"
    return
  fi
  grep -q "$guid" <<<"$out" && grep -q '(anna)' <<<"$out" ||
    fail "$1: the token list lacks the logon: $out"
}

step "cycle 1: /opt and /etc/opt as on this machine"
setup_root
opt_before=no
etc_opt_before=no
[ -d "$m/opt" ] && opt_before=yes
[ -d "$m/etc/opt" ] && etc_opt_before=yes
before=$(upper_listing)

step install
dpkg_step "dpkg -i" -i /tmp/kalvosrv.deb || exit 1
[ -f "$m/var/lib/kalvosrv/kalvo.db" ] || fail "the installation made no database"
[ "$(owner_mode /etc/opt/zentara/registry.reg)" = "root:kalvosrv 660" ] ||
  fail "registry.reg is $(owner_mode /etc/opt/zentara/registry.reg)"

step "start, logon, tokens, stop"
if start_server; then
  out=$(in_root kalvoctl send --id 101 --data $guid --misc2 anna --misc3 CN=Anna --json \
    --port $port --timeout 1 2>&1) || fail "the logon failed: $out"
  grep -q '"PackageID":101' <<<"$out" || fail "no reply to the logon: $out"
  tokens_hold_the_logon "first start"
  stop_server
fi
# An administrator starting the unit's command by hand as root is told the ways to start it
# and leaves nothing behind that the service could not use.
if out=$(in_root sh -c "exec $(unit_value ExecStart)" 2>&1); then
  fail "a start by hand as root ran: $out"
fi
grep -q -- '--foreground' <<<"$out" && grep -q 'systemctl start kalvosrv' <<<"$out" ||
  fail "a start by hand as root does not name the ways to start: $out"
# Everything the installation and the service made in their directories is the service's.
foreign=$(in_root find /var/lib/kalvosrv /var/log/kalvosrv ! -user kalvosrv)
[ -z "$foreign" ] || fail "not the service's: $foreign"

step "reinstall keeps the configuration and the data"
printf '; kept by the package test\r\n' >>"$m/etc/opt/zentara/registry.reg"
dpkg_step "reinstall" -i /tmp/kalvosrv.deb || exit 1
grep -q 'kept by the package test' "$m/etc/opt/zentara/registry.reg" ||
  fail "the reinstallation replaced the edited registry.reg"
[ "$(owner_mode /etc/opt/zentara/registry.reg)" = "root:kalvosrv 660" ] ||
  fail "the reinstallation changed the rights of registry.reg"
if start_server; then
  tokens_hold_the_logon "after the reinstallation"
  stop_server
fi

# After the purge the upper layer may hold only the package manager's records, the system
# user (Debian keeps it) and directories the machine has; nothing deleted. /opt and /etc/opt
# are there exactly when they were before.
check_purge() {  # check_purge OPT_BEFORE ETC_OPT_BEFORE
  local line path kind
  while read -r line; do
    path=${line% *}
    kind=${line##* }
    if [ "$kind" = c ]; then
      fail "the purge removed the machine's /$path"
    elif [ "$kind" = d ] && [ -d "/$path" ]; then
      :
    elif ! grep -Eq '^(var/lib/dpkg/|var/log/dpkg\.log$|var/cache/(debconf|man)/|etc/(passwd|group|shadow|gshadow)-?$|etc/\.pwd\.lock$)' <<<"$path"; then
      fail "the purge left /$path behind (new or changed)"
    fi
  done < <(comm -13 <(echo "$before") <(upper_listing))
  [ -z "$(ls "$m"/var/lib/dpkg/info/kalvosrv.* 2>/dev/null)" ] || fail "dpkg still knows kalvosrv"
  local d expected
  for d in /opt /etc/opt; do
    if [ $d = /opt ]; then expected=$1; else expected=$2; fi
    if [ "$expected" = yes ]; then
      [ -d "$m$d" ] || fail "the purge removed $d, which was there before"
    else
      [ ! -e "$m$d" ] || fail "the purge left $d, which the package made"
    fi
  done
}

step purge
dpkg_step "dpkg --purge" --purge kalvosrv || exit 1
check_purge $opt_before $etc_opt_before

# The copy is thrown away, so the machine's /opt and /etc/opt may go in it, whatever they hold.
step "cycle 2: /opt and /etc/opt the other way round"
setup_root
other() {  # other DIR WAS_THERE: makes or removes DIR in the copy, prints whether it is there
  if [ "$2" = yes ]; then rm -rf "${m:?}$1"; echo no; else mkdir "$m$1"; echo yes; fi
}
opt_now=$(other /opt $opt_before)
etc_opt_now=$(other /etc/opt $etc_opt_before)
before=$(upper_listing)
dpkg_step "dpkg -i (cycle 2)" -i /tmp/kalvosrv.deb || exit 1
dpkg_step "dpkg --purge (cycle 2)" --purge kalvosrv || exit 1
check_purge $opt_now $etc_opt_now

if [ $failures -gt 0 ]; then
  echo "$failures check(s) failed"
  exit 1
fi
echo "install checks passed"
