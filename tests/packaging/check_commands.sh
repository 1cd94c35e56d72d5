#!/usr/bin/env bash
# What an administrator meets on the command line: usage errors exit 2 with a usage line,
# bash completion offers the real options and commands, and every ODBC template names a
# driver the machine registers, with a pooling entry for it.
#   check_commands.sh BUILD_DIR SOURCE_DIR
set -uo pipefail
build=$(realpath "$1")
src=$(realpath "$2")
failures=0
fail() { echo "FAIL: $*"; failures=$((failures + 1)); }

# Usage errors: status 2, the reason and a usage line on standard error, nothing on standard
# output.
usage_error() {  # usage_error EXPECTED_STDERR_PATTERN PROGRAM ARGS...
  local pattern=$1 out err rc
  shift
  err=$("$@" 2>&1 >/dev/null)
  rc=$?
  out=$("$@" 2>/dev/null)
  [ $rc -eq 2 ] || fail "$* exits $rc, not 2"
  [ -z "$out" ] || fail "$* writes to standard output: $out"
  grep -Eq -e "$pattern" <<<"$err" || fail "$* does not print /$pattern/ on standard error: $err"
}
usage_line='^usage: kalvosrv \[--registry FILE\]'
usage_error "$usage_line" "$build/kalvosrv" --bogus
usage_error "$usage_line" "$build/kalvosrv" --registry
usage_error "$usage_line" "$build/kalvosrv" stray-argument
usage_error "^usage: kalvoctl COMMAND" "$build/kalvoctl" --bogus
usage_error "subcommand is required" "$build/kalvoctl"
usage_error "--id" "$build/kalvoctl" send --id
usage_error "--id is required" "$build/kalvoctl" send
"$build/kalvosrv" --help >/dev/null || fail "kalvosrv --help does not exit 0"
"$build/kalvoctl" --help >/dev/null || fail "kalvoctl --help does not exit 0"

# Completion: what bash would offer after the typed words.
complete_words() {  # complete_words SCRIPT WORD...
  local script=$1
  shift
  bash -c '
    compopt() { :; }
    source "$1"; shift
    COMP_WORDS=("$@"); COMP_CWORD=$(($# - 1))
    PATH='"$build"':$PATH
    "_${COMP_WORDS[0]}"
    printf "%s\n" "${COMPREPLY[@]}"' _ "$script" "$@"
}
expect_completion() {  # expect_completion "EXPECTED WORDS" SCRIPT WORD...
  local expected=$1 got
  shift
  got=$(complete_words "$@" | sort | tr '\n' ' ' | sed 's/ $//')
  [ "$got" = "$expected" ] || fail "completing '${*:2}': '$got', expected '$expected'"
}
completions=$src/packaging/bash-completion
expect_completion "--registry" "$completions/kalvosrv" kalvosrv --reg
expect_completion "--check-config" "$completions/kalvosrv" kalvosrv --foreground --che
expect_completion "backup-get backup-put backups" "$completions/kalvoctl" kalvoctl back
expect_completion "--timeout --type" "$completions/kalvoctl" kalvoctl backup-get GUID --t
expect_completion "--data --data-file" "$completions/kalvoctl" kalvoctl send --data
expect_completion "automatic" "$completions/kalvoctl" kalvoctl backups --type au
# Every option kalvosrv accepts is offered.
for option in $("$build/kalvosrv" --help | sed -n 's/^ *\(-h,\)\{0,1\}\(--[a-z-]*\).*/\2/p'); do
  complete_words "$completions/kalvosrv" kalvosrv "$option" | grep -qx -- "$option" ||
    fail "completion does not offer kalvosrv $option"
done

# ODBC: the package's own odbcinst.ini (as the build configured it) switches pooling on and
# names, for the driver of every data source template and of the default odbc.ini, a library
# that Debian's driver packages install here, with a CPTimeout, or unixODBC would not pool.
pooling=$build/deb/odbcinst.ini
grep -Eq '^Pooling *= *Yes' "$pooling" || fail "the package's odbcinst.ini does not switch pooling on"
for t in "$src"/packaging/odbc/odbc.ini "$src"/packaging/odbc/odbc.ini.*; do
  driver=$(sed -n 's/^Driver *= *//p' "$t")
  library=$(awk -v s="[$driver]" '$0 == s { inside = 1; next } /^\[/ { inside = 0 }
    inside && /^Driver *=/ { sub(/^Driver *= */, ""); print }' "$pooling")
  [ -f "$library" ] || fail "$(basename "$t"): driver '$driver' has no installed library ('$library')"
  awk -v s="[$driver]" '$0 == s { inside = 1; next } /^\[/ { inside = 0 }
    inside && /^CPTimeout *= *[1-9]/ { found = 1 } END { exit !found }' "$pooling" ||
    fail "odbcinst.ini has no CPTimeout for '$driver'"
done

if [ $failures -gt 0 ]; then
  echo "$failures check(s) failed"
  exit 1
fi
echo "command checks passed"
