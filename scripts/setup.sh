#!/usr/bin/env bash
# Installs what is missing (Debian 12, as root), builds, and then either runs the server on
# the embedded SQLite default ("run": only the server is built, and only what it needs is
# installed) or runs every test, plain and sanitized, including the Debian package's checks
# ("test").
set -euo pipefail
cd "$(dirname "$0")/.."
mode=${1:-}
case "$mode" in run|test) ;; *) echo "usage: $0 run|test" >&2; exit 2 ;; esac

# What building and running the server needs.
packages=(g++ cmake make pkg-config libboost-dev unixodbc unixodbc-dev odbcinst libsqliteodbc
          libsystemd-dev libcli11-dev)
if [ "$mode" = test ]; then
  # Tests and benchmarks, the database engines the tests start themselves (PostgreSQL, and
  # MariaDB's binaries without its system service), the desktop companion, and what makes
  # and checks the Debian package.
  packages+=(libgtest-dev libgmock-dev libbenchmark-dev openssl libssl-dev
             odbc-postgresql postgresql mariadb-server-core mariadb-client-core odbc-mariadb
             qt6-base-dev xvfb xauth fonts-dejavu-core
             dpkg-dev scdoc lintian groff-base systemd file)
fi
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
configure() {  # configure <dir> <cmake args...>
  local dir=$1; shift
  cmake -S . -B "$dir" "$@" >/dev/null
}

if [ "$mode" = run ]; then
  configure build -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKALVO_TESTS=OFF -DKALVO_BENCH=OFF \
    -DCMAKE_DISABLE_FIND_PACKAGE_Qt6=ON
  cmake --build build -j "$jobs" --target kalvosrv
  exec scripts/run-local.sh build
fi

# Both builds carry no debug information beyond what backtraces and sanitizer reports need,
# and the sanitizer build is optimised lightly: that keeps the whole run short on two cores.
# The options a "run" may have left in build/ are set back.
configure build -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKALVO_TESTS=ON -DKALVO_BENCH=ON \
  -DCMAKE_DISABLE_FIND_PACKAGE_Qt6=OFF "-DCMAKE_CXX_FLAGS_RELWITHDEBINFO=-O2 -g1 -DNDEBUG"
cmake --build build -j "$jobs"
# The desktop companion (Qt) and the package are tested in the plain build only.
configure build-asan -DKALVO_SANITIZE=ON -DCMAKE_BUILD_TYPE=None "-DCMAKE_CXX_FLAGS=-O1 -g1" \
  -DKALVO_TRAY=OFF
cmake --build build-asan -j "$jobs"
status=0
(cd build-asan && ctest --output-on-failure -j "$jobs" --timeout 600) || status=1
(cd build && ctest --output-on-failure -j "$jobs" --timeout 600) || status=1
exit $status
