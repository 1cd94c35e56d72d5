#!/usr/bin/env bash
# Checks the service unit as systemd would see it once the package is installed: in a
# scratch root holding the machine's own units, the built program at its installed path and
# the unit. `systemd-analyze verify` must print nothing, the exposure of
# `systemd-analyze security --offline=yes` must be at most the goal, and the paths the unit
# grants must be the ones the program and the templates use.
#   check_unit.sh UNIT_FILE KALVOSRV_BINARY SQLITE_TEMPLATE
set -uo pipefail
unit=$(realpath "$1")
binary=$(realpath "$2")
sqlite_template=$(realpath "$3")
goal=1.5
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
failures=0
fail() { echo "FAIL: $*"; failures=$((failures + 1)); }

root=$work/root
mkdir -p "$root/lib/systemd" "$root/opt/zentara/kdx" "$root/usr/bin"
cp -a /lib/systemd/system "$root/lib/systemd/"
cp "$unit" "$root/lib/systemd/system/kalvosrv.service"
cp "$binary" "$root/opt/zentara/kdx/kalvosrv"
cp "$(type -P kill)" "$root/usr/bin/kill"
ln -s usr/bin "$root/bin"

# The manual pages named by Documentation= are checked in the package; here the machine's
# manual would be asked, which does not have them.
out=$(systemd-analyze verify --man=no --root="$root" /lib/systemd/system/kalvosrv.service 2>&1)
rc=$?
[ $rc -eq 0 ] && [ -z "$out" ] || fail "systemd-analyze verify (status $rc): $out"

security=$(systemd-analyze security --offline=yes --root="$root" --no-pager kalvosrv.service 2>&1)
exposure=$(sed -n 's/.*Overall exposure level for kalvosrv.service: \([0-9.]*\).*/\1/p' <<<"$security")
echo "exposure: ${exposure:-?} (goal $goal or lower)"
if [ -z "$exposure" ]; then
  fail "no exposure level: $security"
elif awk -v e="$exposure" -v g="$goal" 'BEGIN { exit !(e > g) }'; then
  echo "$security" | grep '✗'
  fail "exposure $exposure is above the goal $goal"
fi

# The directories the unit lets the service write are the ones it writes.
value() { sed -n "s/^$1=//p" "$unit" | tail -n 1; }
exec_start=$(value ExecStart)
log_file=$(sed -n 's/.*--log-file \([^ ]*\).*/\1/p' <<<"$exec_start")
registry=$(sed -n 's/.*--registry \([^ ]*\).*/\1/p' <<<"$exec_start")
[ "$(dirname "$log_file")" = "/var/log/$(value LogsDirectory)" ] ||
  fail "--log-file $log_file is not in LogsDirectory=$(value LogsDirectory)"
[ "$(dirname "$registry")" = "$(value ReadWritePaths)" ] ||
  fail "the registry's directory (for its lock and rewrite) is not in ReadWritePaths="
sqlite_db=$(sed -n 's/^Database *= *//p' "$sqlite_template")
[ "$(dirname "$sqlite_db")" = "/var/lib/$(value StateDirectory)" ] ||
  fail "the SQLite template's database $sqlite_db is not in StateDirectory=$(value StateDirectory)"
[ "$(value User)" = kalvosrv ] || fail "the service does not run as kalvosrv"
grep -q '^Documentation=.*man:kalvosrv(8)' "$unit" || fail "Documentation= does not name kalvosrv(8)"

if [ $failures -gt 0 ]; then
  echo "$failures check(s) failed"
  exit 1
fi
echo "unit checks passed"
