#!/usr/bin/env bash
# Runs the built server in the foreground.
set -euo pipefail
build=${1:-build}
exec "$build/kalvosrv" --version
