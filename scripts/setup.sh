#!/usr/bin/env bash
# Installs what is missing (Debian 12, as root), builds, and then either runs the server on
# the embedded SQLite default ("run") or runs every test, plain and sanitized ("test").
set -euo pipefail
cd "$(dirname "$0")/.."
mode=${1:-}
case "$mode" in run|test) ;; *) echo "usage: $0 run|test" >&2; exit 2 ;; esac

packages=(g++ cmake make pkg-config libboost-dev unixodbc unixodbc-dev odbcinst libsqliteodbc
          odbc-postgresql postgresql libsystemd-dev libcli11-dev libgtest-dev libgmock-dev
          libbenchmark-dev openssl libssl-dev
          qt6-base-dev xvfb xauth fonts-dejavu-core)
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if ((${#missing[@]})); then
  echo "installing: ${missing[*]}"
  export DEBIAN_FRONTEND=noninteractive
  apt-get update -qq
  apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi

jobs=$(nproc)
build() {  # build <dir> <cmake args...>
  local dir=$1; shift
  cmake -S . -B "$dir" "$@" >/dev/null
  cmake --build "$dir" -j "$jobs"
}

if [ "$mode" = run ]; then
  build build -DCMAKE_BUILD_TYPE=RelWithDebInfo
  exec scripts/run-local.sh build
fi

# The sanitizer build is optimised lightly and carries no debug information beyond what its
# reports need: that keeps the whole run short on two cores.
build build -DCMAKE_BUILD_TYPE=RelWithDebInfo
# The desktop companion (Qt) is tested in the plain build only.
build build-asan -DKALVO_SANITIZE=ON -DCMAKE_BUILD_TYPE=None "-DCMAKE_CXX_FLAGS=-O1 -g1" \
  -DKALVO_TRAY=OFF
status=0
(cd build-asan && ctest --output-on-failure -j "$jobs" --timeout 600) || status=1
(cd build && ctest --output-on-failure -j "$jobs" --timeout 600) || status=1
exit $status
