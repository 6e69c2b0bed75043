#!/usr/bin/env bash
# Builds everything, runs every unit test and XML suite through ctest, then
# builds again with AddressSanitizer (with LeakSanitizer) and
# UndefinedBehaviorSanitizer into build-asan/ and runs the whole test suite
# there as well. Arguments go to both ctest runs (e.g. -R 'suite:' or -L unit).
# VX_SKIP_SANITIZERS=1 leaves out the sanitizer pass (a quicker local loop).
set -euo pipefail

ROOT="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"

bash "$ROOT/scripts/build.sh"

status=0
ctest --test-dir "$ROOT/build" --output-on-failure -j2 "$@" || status=$?
if [[ "$status" -ne 0 ]]; then
  exit "$status"
fi

if [[ "${VX_SKIP_SANITIZERS:-0}" != "1" ]]; then
  echo "== the whole test suite again under AddressSanitizer, LeakSanitizer and UBSan =="
  bash "$ROOT/scripts/test-sanitizers.sh" "$@"
fi
