#!/usr/bin/env bash
# Builds the project with AddressSanitizer (with LeakSanitizer) and
# UndefinedBehaviorSanitizer into build-asan/ and runs every test there.
# Warnings are not errors here: GCC's sanitizer instrumentation raises false
# "maybe uninitialized" warnings inside the standard library.
set -euo pipefail
root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
bash "$root/scripts/install-deps.sh"
flags="-fsanitize=address,undefined -fno-omit-frame-pointer -fno-sanitize-recover=undefined"
if [ ! -f "$root/build-asan/CMakeCache.txt" ]; then
  cmake -S "$root" -B "$root/build-asan" -G Ninja -DCMAKE_BUILD_TYPE=Debug \
    -DVX_BUILD_BENCH=OFF -DVX_WERROR=OFF \
    "-DCMAKE_CXX_FLAGS=$flags -O1" \
    "-DCMAKE_EXE_LINKER_FLAGS=-fsanitize=address,undefined" \
    "-DCMAKE_SHARED_LINKER_FLAGS=-fsanitize=address,undefined"
fi
cmake --build "$root/build-asan" -j2
export ASAN_OPTIONS=detect_leaks=1:abort_on_error=1
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
ctest --test-dir "$root/build-asan" --output-on-failure -j2 -LE install "$@"
