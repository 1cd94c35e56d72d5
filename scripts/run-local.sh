#!/usr/bin/env bash
# Runs the built server in the foreground on the embedded SQLite default, with everything it
# needs in ./run (registry file, ODBC data source with pooling, database file, log file).
# The machine's own ODBC configuration is not touched.
set -euo pipefail
build=$(realpath "${1:-build}")
cd "$(dirname "$0")/.."
run=$(pwd)/run
mkdir -p "$run"

# The driver entry comes from the machine's odbcinst.ini, with pooling switched on.
driver=$(odbcinst -q -d -n SQLite3 | sed -n 's/^Driver=//p')
cat > "$run/odbcinst.ini" <<INI
[ODBC]
Pooling = Yes

[SQLite3]
Driver = ${driver:-/usr/lib/x86_64-linux-gnu/odbc/libsqlite3odbc.so}
CPTimeout = 120
INI
cat > "$run/odbc.ini" <<INI
[kalvo]
Driver = SQLite3
Database = $run/kalvo.db
Timeout = 5000
INI
if [ ! -f "$run/registry.reg" ]; then
  cp packaging/registry.reg.example "$run/registry.reg"
fi
export ODBCSYSINI=$run ODBCINI=$run/odbc.ini
if [ ! -f "$run/kalvo.db" ]; then
  # A new database gets its tables, the group "Jeder" and the indexes.
  "$build/kalvosrv" --init-database --registry "$run/registry.reg" --log-file "$run/kalvosrv.log"
fi
"$build/kalvosrv" --check-config --registry "$run/registry.reg" --log-file "$run/kalvosrv.log" || true
# A trial server answers this machine only.
echo "kalvosrv: 127.0.0.1:15243, status http://127.0.0.1:15244/status, log $run/kalvosrv.log (Ctrl-C stops)"
exec "$build/kalvosrv" --foreground --listen-address 127.0.0.1 --registry "$run/registry.reg" \
  --log-file "$run/kalvosrv.log"
