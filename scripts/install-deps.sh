#!/usr/bin/env bash
# Installs the Debian 12 packages needed to build and test vx_expressions.
# Only missing packages are installed; apt-get update runs once, and only then.
set -euo pipefail

ROOT="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
cd "$ROOT"

packages=(
  build-essential cmake ninja-build pkg-config git
  libxml2-dev libxml2-utils libxslt1-dev xsltproc
  libnspr4-dev libboost-regex-dev libabsl-dev librocksdb-dev
  libcli11-dev nlohmann-json3-dev libxxhash-dev
  libgtest-dev libgmock-dev libbenchmark-dev
  libsqlite3-dev
  tzdata
)

if ! command -v dpkg-query >/dev/null 2>&1 || ! command -v apt-get >/dev/null 2>&1; then
  echo "install-deps: dpkg/apt not found; install these packages by hand: ${packages[*]}" >&2
  exit 1
fi

missing=()
for pkg in "${packages[@]}"; do
  status="$(dpkg-query -W -f='${Status}' "$pkg" 2>/dev/null || true)"
  if [[ "$status" != "install ok installed" ]]; then
    missing+=("$pkg")
  fi
done

if ((${#missing[@]} == 0)); then
  echo "install-deps: all ${#packages[@]} packages already installed"
  exit 0
fi

sudo=()
if [[ "$(id -u)" -ne 0 ]]; then
  if ! command -v sudo >/dev/null 2>&1; then
    echo "install-deps: not root and sudo is unavailable; missing: ${missing[*]}" >&2
    exit 1
  fi
  sudo=(sudo)
fi

echo "install-deps: installing ${missing[*]}"
"${sudo[@]}" env DEBIAN_FRONTEND=noninteractive apt-get update
"${sudo[@]}" env DEBIAN_FRONTEND=noninteractive \
  apt-get install -y --no-install-recommends "${missing[@]}"
echo "install-deps: installed ${missing[*]}"
