#!/usr/bin/env bash
# Installs the build into a fresh prefix, then builds examples/embed against
# the installed package twice (CMake package and pkg-config) and checks what
# it prints.
#   tests/install_test.sh BUILD_DIR SOURCE_DIR
set -euo pipefail
build="$1"
src="$2"
work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT

cmake --install "$build" --prefix "$work/prefix" > "$work/install.log"
test -f "$work/prefix/include/vx_expressions/vx_expressions.h"
test -x "$work/prefix/bin/cpxrun"
ls "$work"/prefix/lib*/libvx_expressions.so* > /dev/null
ls "$work"/prefix/lib*/libvx_expressions.a > /dev/null
# Internal headers stay private.
test ! -e "$work/prefix/include/cpx_expressions"

example="$src/examples/embed"
cmake -S "$example" -B "$work/cmake-build" -DCMAKE_PREFIX_PATH="$work/prefix" > "$work/configure.log"
cmake --build "$work/cmake-build" > "$work/build.log"
"$work/cmake-build/embed" "$example/price_change.context.xml" "$example/trades.csv" > "$work/out.txt"
diff -u "$example/expected.txt" "$work/out.txt"

# With a state folder, a second process continues the first one's groups.
head -3 "$example/trades.csv" > "$work/first.csv"
tail -n +4 "$example/trades.csv" > "$work/second.csv"
"$work/cmake-build/embed" "$example/price_change.context.xml" "$work/first.csv" "$work/state" > "$work/split.txt"
"$work/cmake-build/embed" "$example/price_change.context.xml" "$work/second.csv" "$work/state" >> "$work/split.txt"
grep -v '^groups:' "$example/expected.txt" > "$work/expected-rows.txt"
grep -v '^groups:' "$work/split.txt" > "$work/split-rows.txt"
diff -u "$work/expected-rows.txt" "$work/split-rows.txt"

pcdir="$(dirname "$(ls "$work"/prefix/lib*/pkgconfig/vx_expressions.pc)")"
# shellcheck disable=SC2046
c++ -std=c++20 "$example/main.cpp" -o "$work/embed-pc" \
  $(PKG_CONFIG_PATH="$pcdir" pkg-config --cflags --libs vx_expressions) \
  -Wl,-rpath,"$(PKG_CONFIG_PATH="$pcdir" pkg-config --variable=libdir vx_expressions)"
"$work/embed-pc" "$example/price_change.context.xml" "$example/trades.csv" > "$work/out-pc.txt"
diff -u "$example/expected.txt" "$work/out-pc.txt"
echo "installed package: CMake and pkg-config builds of examples/embed give the expected output"
