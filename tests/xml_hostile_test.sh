#!/usr/bin/env bash
# Feeds hostile documents and stylesheets to the XML operators in a scratch
# folder that holds the secret files they try to read, and checks that
#   - every run ends normally (no crash; ctest's TIMEOUT catches a hang),
#   - the secret marker appears in no output, report or log line,
#   - no file or directory is written,
#   - the outputs of tests/xml_hostile/rows.jsonl are exactly the expected
#     ones (the refused documents give NULL).
#   tests/xml_hostile_test.sh CPXRUN SOURCE_DIR
set -uo pipefail
cpxrun="$1"
src="$2"
marker="VX-HOSTILE-SECRET-7f3a9c"
work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT
cp "$src"/tests/suites/xml/hostile_* "$work"/
cd "$work" || exit 1
before="$(ls -A | sort)"
failed=0

check_run() {  # name, exit status, output file
  if (($2 >= 128)); then
    echo "FAIL $1: killed by signal $(($2 - 128))"
    failed=1
  elif (($2 != 0)); then
    echo "FAIL $1: exit status $2"
    cat "$3"
    failed=1
  fi
  if grep -F -q "$marker" "$3"; then
    echo "FAIL $1: the secret marker reached the output:"
    grep -F "$marker" "$3"
    failed=1
  fi
}

for mode in "" --reload --persist; do
  "$cpxrun" test $mode hostile_documents.xml hostile_stylesheets.xml > suites.out 2>&1
  check_run "cpxrun test $mode" $? suites.out
  tail -n 1 suites.out
done

"$cpxrun" run "$src/tests/xml_hostile/hostile.context.xml" \
  --input "$src/tests/xml_hostile/rows.jsonl" --format jsonl > rows.out 2> rows.log
check_run "cpxrun run" $? rows.out
check_run "cpxrun run (log)" 0 rows.log
if ! diff -u "$src/tests/xml_hostile/expected.jsonl" rows.out; then
  echo "FAIL cpxrun run: outputs differ from tests/xml_hostile/expected.jsonl"
  failed=1
fi

rm -rf suites.out rows.out rows.log storage
after="$(ls -A | sort)"
if [[ "$before" != "$after" ]]; then
  echo "FAIL: files appeared in the folder:"
  diff <(echo "$before") <(echo "$after")
  failed=1
fi

((failed == 0)) && echo "hostile XML: no crash, no secret in any output, nothing written"
exit "$failed"
