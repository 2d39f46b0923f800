#!/usr/bin/env bash
# Second command of the README: set up, build, run every test.
set -euo pipefail
root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
bash "$root/scripts/setup.sh"
bash "$root/scripts/build.sh" "$root/build" Release
cd "$root/build"
ctest --output-on-failure -j "$(nproc)"
