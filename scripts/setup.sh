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
  # and checks the Debian package (iproute2: the install test's own loopback), and clang with its libFuzzer runtime for the fuzz targets.
  packages+=(libgtest-dev libgmock-dev libbenchmark-dev openssl libssl-dev
             odbc-postgresql postgresql mariadb-server-core mariadb-client-core odbc-mariadb
             qt6-base-dev xvfb xauth fonts-dejavu-core
             dpkg-dev scdoc lintian groff-base systemd file iproute2
             clang libclang-rt-14-dev)
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
# ThreadSanitizer: the server and the test programs that run its threads (labelled "threads").
configure build-tsan -DKALVO_SANITIZE_THREAD=ON -DCMAKE_BUILD_TYPE=None "-DCMAKE_CXX_FLAGS=-O1 -g1" \
  -DKALVO_TRAY=OFF
tsan_targets=(kalvosrv kalvoctl host_concurrency_test host_database_stall_test host_token_e2e_test
              host_crash_test net_connection_table_test infra_log_test)
cmake --build build-tsan -j "$jobs" --target "${tsan_targets[@]}"
status=0
(cd build-tsan && TSAN_OPTIONS="halt_on_error=1 second_deadlock_stack=1" \
  ctest --output-on-failure -j "$jobs" --timeout 600 -L threads) || status=1
# The SQLite driver's library has no frame pointers: LeakSanitizer needs the slow unwinder to see
# that a leak inside it is the driver's (tests/lsan.supp, for the servers the tests start too).
lsan_suppressions="$PWD/tests/lsan.supp"
(cd build-asan && ASAN_OPTIONS=fast_unwind_on_malloc=0 LSAN_OPTIONS="suppressions=$lsan_suppressions" \
  ctest --output-on-failure -j "$jobs" --timeout 600) || status=1
(cd build && ctest --output-on-failure -j "$jobs" --timeout 600) || status=1
# The fuzz targets (tests/fuzz) are a clang project of their own. Each runs 60 s on a copy of
# its seed corpus in a temporary directory, so the repository stays as it was; a crash, a
# sanitizer report or a broken check of the target fails the run, and its input is kept
# under build-fuzz/artifacts.
CXX=clang++ cmake -S tests/fuzz -B build-fuzz >/dev/null
cmake --build build-fuzz -j "$jobs" --target framing_fuzz reg_file_fuzz connect_fuzz || status=1
fuzz_dir=$(mktemp -d)
mkdir -p build-fuzz/artifacts
for target in framing reg_file connect; do
  mkdir -p "$fuzz_dir/$target"
  cp tests/fuzz/corpus/$target/* "$fuzz_dir/$target/"
  build-fuzz/${target}_fuzz -max_total_time=60 -print_final_stats=1 \
    -artifact_prefix="build-fuzz/artifacts/$target-" "$fuzz_dir/$target" || status=1
done
rm -rf "$fuzz_dir"
exit $status
