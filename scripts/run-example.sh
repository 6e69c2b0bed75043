#!/usr/bin/env bash
# Builds cpxrun and runs the VWAP example context over the shipped trades,
# one group per symbol. Arguments go to cpxrun (e.g. --format csv).
set -euo pipefail

ROOT="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"

bash "$ROOT/scripts/build.sh"

cd "$ROOT"
context=examples/vwap/vwap.context.xml
input=examples/vwap/trades.jsonl
for f in "$context" "$input"; do
  if [[ ! -f "$f" ]]; then
    echo "run-example: missing $f" >&2
    exit 1
  fi
done

echo "run-example: cpxrun run $context --input $input --group-by Symbol $*" >&2
build/bin/cpxrun run "$context" --input "$input" --group-by Symbol "$@"
