#!/usr/bin/env bash
# Installs missing dependencies, configures build/ with Ninja and builds with two jobs.
# Extra configure arguments come from VX_CMAKE_ARGS and are passed after the
# defaults, so they win (e.g. VX_CMAKE_ARGS="-DVX_WERROR=OFF -DVX_BUILD_BENCH=OFF").
# Arguments to this script go to `cmake --build` (e.g. --target cpxrun).
set -euo pipefail

ROOT="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
BUILD_DIR="$ROOT/build"

bash "$ROOT/scripts/install-deps.sh"

configure_args=(-S "$ROOT" -B "$BUILD_DIR")
# The generator can only be chosen for a fresh build tree.
if [[ ! -f "$BUILD_DIR/CMakeCache.txt" ]]; then
  configure_args+=(-G Ninja)
fi
configure_args+=(-DVX_WERROR=ON)
if [[ -n "${VX_CMAKE_ARGS:-}" ]]; then
  read -r -a user_args <<<"$VX_CMAKE_ARGS"
  configure_args+=("${user_args[@]}")
fi

cmake "${configure_args[@]}"
cmake --build "$BUILD_DIR" --parallel 2 "$@"
