#!/usr/bin/env bash
# First command of the README: set up, build a Release torvex, run the bundled example.
set -euo pipefail
root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
bash "$root/scripts/setup.sh"
bash "$root/scripts/build.sh" "$root/build" Release
cd "$root/examples"
"$root/build/torvex" --control run.ctl "$@"
