#!/usr/bin/env bash
# Builds everything, then runs every unit test and XML suite through ctest.
# Arguments go to ctest (e.g. -R 'suite:' or -L unit).
set -euo pipefail

ROOT="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"

bash "$ROOT/scripts/build.sh"

status=0
ctest --test-dir "$ROOT/build" --output-on-failure -j2 "$@" || status=$?
exit "$status"
