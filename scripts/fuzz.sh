#!/usr/bin/env bash
# Builds the libFuzzer programs with clang, AddressSanitizer (with
# LeakSanitizer) and UndefinedBehaviorSanitizer into build-fuzz/, and runs
# each for the given number of seconds (default 600).
#
#   scripts/fuzz.sh [SECONDS] [TARGET...]     targets: see fuzz/CMakeLists.txt
#
# Each target starts from its seed corpus (fuzz/corpus/<target>, copied to
# build-fuzz/corpus/<target>, where new inputs accumulate across runs).
# A crash, leak, timeout (an input running longer than 10 s) or out-of-memory
# leaves its input in build-fuzz/artifacts/<target>/; copy it into
# fuzz/regressions/<target>/ once fixed, where ctest replays it for ever.
set -euo pipefail
root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
seconds="${1:-600}"
shift || true

bash "$root/scripts/install-deps.sh"
if ! command -v clang++ >/dev/null || ! ls /usr/lib/llvm-*/lib/clang/*/lib/linux/libclang_rt.fuzzer-x86_64.a >/dev/null 2>&1; then
  apt_get=(apt-get); [[ "$(id -u)" -ne 0 ]] && apt_get=(sudo apt-get)
  "${apt_get[@]}" install -y clang libclang-rt-14-dev
fi

build="$root/build-fuzz"
flags="-fsanitize=fuzzer-no-link,address,undefined -fno-sanitize-recover=undefined -fno-omit-frame-pointer -g -O1"
if [[ ! -f "$build/CMakeCache.txt" ]]; then
  CC=clang CXX=clang++ cmake -S "$root" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Debug \
    -DVX_BUILD_FUZZERS=ON -DVX_BUILD_TESTS=OFF -DVX_BUILD_BENCH=OFF -DVX_WERROR=OFF \
    "-DCMAKE_CXX_FLAGS=$flags" "-DCMAKE_C_FLAGS=$flags" \
    "-DCMAKE_EXE_LINKER_FLAGS=-fsanitize=address,undefined" \
    "-DCMAKE_SHARED_LINKER_FLAGS=-fsanitize=address,undefined"
fi

targets=("$@")
if [[ ${#targets[@]} -eq 0 ]]; then
  read -r -a targets <<<"$(sed -n 's/^set(VX_FUZZ_TARGETS \(.*\))$/\1/p' "$root/fuzz/CMakeLists.txt")"
fi
cmake --build "$build" -j2 --target "${targets[@]/#/fuzz_}"

export ASAN_OPTIONS=detect_leaks=1:abort_on_error=1
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
status=0
for t in "${targets[@]}"; do
  corpus="$build/corpus/$t"
  artifacts="$build/artifacts/$t/"
  mkdir -p "$corpus" "$artifacts"
  cp -n "$root/fuzz/corpus/$t/"* "$corpus/" 2>/dev/null || true
  extra=()
  [[ -f "$root/fuzz/$t.dict" ]] && extra+=("-dict=$root/fuzz/$t.dict")
  echo "== fuzz_$t for ${seconds}s"
  if ! (cd "$build" && "./bin/fuzz_$t" "$corpus" "${extra[@]}" -max_total_time="$seconds" -timeout=10 \
        -rss_limit_mb=2048 -max_len=65536 -print_final_stats=1 -artifact_prefix="$artifacts" \
        >"$build/fuzz_$t.log" 2>&1); then
    echo "fuzz_$t FAILED: see $build/fuzz_$t.log and $artifacts"
    status=1
  fi
  grep -E "^(Done|stat::new_units_added|stat::slowest_unit_time_sec|stat::peak_rss_mb)" "$build/fuzz_$t.log" || true
done
exit "$status"
