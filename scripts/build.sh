#!/usr/bin/env bash
# build.sh DIR BUILD_TYPE [extra cmake args]: configures once, then builds with Ninja.
set -euo pipefail
root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
dir="$1"; type="$2"; shift 2
if [ ! -f "$dir/build.ninja" ]; then
    cmake -S "$root" -B "$dir" -G Ninja -DCMAKE_BUILD_TYPE="$type" "$@" >/dev/null
fi
cmake --build "$dir" -j "$(nproc)"
