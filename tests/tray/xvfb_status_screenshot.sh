#!/usr/bin/env bash
# A real run of the companion: kalvosrv in the foreground on free loopback ports with one
# open connection, then `kalvotray --show status` under Xvfb against its status endpoint,
# writing a screenshot. Exits 77 (skipped) when xvfb-run is not installed.
# usage: xvfb_status_screenshot.sh BUILD_DIR SCREENSHOT.png
set -euo pipefail
build=$1
shot=$2
if ! command -v xvfb-run >/dev/null; then
  echo "xvfb-run is not installed: skipped"
  exit 77
fi

dir=$(mktemp -d /tmp/kalvotray_xvfb_XXXXXX)
server=
cleanup() {
  exec 3>&- 2>/dev/null || true
  if [ -n "$server" ]; then kill "$server" 2>/dev/null || true; wait "$server" 2>/dev/null || true; fi
  rm -rf "$dir"
}
trap cleanup EXIT

# A port nobody answers on at the moment.
free_port() {
  local p
  for _ in $(seq 50); do
    p=$((20000 + RANDOM % 40000))
    if ! (exec 9<>/dev/tcp/127.0.0.1/$p) 2>/dev/null; then echo "$p"; return; fi
  done
  return 1
}
port=$(free_port)
status_port=$(free_port)
while [ "$status_port" = "$port" ]; do status_port=$(free_port); done

printf 'REGEDIT4\r\n\r\n[HKEY_LOCAL_MACHINE\\Software\\Orvanta\\Zentara]\r\n"LogLevel"=dword:00000001\r\n\r\n[HKEY_LOCAL_MACHINE\\Software\\Orvanta\\Zentara\\KDX]\r\n"ServerLocalPort"="%s"\r\n"StatusPort"=dword:%08x\r\n' \
  "$port" "$status_port" >"$dir/registry.reg"
"$build/kalvosrv" --foreground --registry "$dir/registry.reg" --log-file "$dir/kalvosrv.log" \
  --listen-address 127.0.0.1 &
server=$!
for _ in $(seq 150); do
  grep -q "Form_Load complete" "$dir/kalvosrv.log" 2>/dev/null && break
  sleep 0.1
done
grep -q "Status endpoint listening" "$dir/kalvosrv.log" || { cat "$dir/kalvosrv.log"; exit 1; }

# One open connection, so that the window has something to count.
exec 3<>"/dev/tcp/127.0.0.1/$port"

rm -f "$shot"
out=$(LC_ALL=C.UTF-8 timeout 60 xvfb-run -a -s "-screen 0 1024x768x24" \
  "$build/kalvotray" --show status --status-url "http://127.0.0.1:$status_port/status" \
  --screenshot "$shot")
echo "$out"
fail() { echo "FAILED: $*"; exit 1; }
grep -qx "lbStateValue: Active" <<<"$out" || fail "the server is not shown as active"
grep -qx "lbConnectionCountValue: 1/0" <<<"$out" || fail "the open connection is not counted"
grep -qE "^lbTimeValue: 00:00:[0-9]{2}$" <<<"$out" || fail "no uptime"
[ "$(head -c 8 "$shot" | od -An -tx1 | tr -d ' \n')" = "89504e470d0a1a0a" ] || fail "no PNG written"
echo "screenshot: $shot"
