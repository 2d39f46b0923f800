#!/usr/bin/env bash
# Node-model figures for bench/run.sh: figures.sh BUILD_DIR DATA_DIR, one "name|value|unit|note"
# line per figure, on the region and state folders that run.sh generated.
set -euo pipefail
build="$1"; data="$2"
[ -x "$build/bench-node" ] || exit 0
for scale in region state; do
    dir="$data/synth-$scale"
    [ -f "$dir/LINK.csv" ] || continue
    echo "bench-node $scale ..." >&2
    "$build/bench-node" "$dir" "$scale" 2>/dev/null | awk '
        / threads=[0-9]+: / {
            name = $1 " " $2 " " $3 " " $4 " " $5; sub(":", "", name)
            match($0, /load [0-9.]+ s/); load = substr($0, RSTART + 5, RLENGTH - 7)
            match($0, /, [0-9.]+ M active-link/); rate = substr($0, RSTART + 2, RLENGTH - 16)
            printf "%s|%s|M active-link steps/s|one load %s s\n", name, rate, load
        }
        / speed-up / {
            match($0, /: [0-9.]+x \(steps\)/); s = substr($0, RSTART + 2, RLENGTH - 11)
            match($0, /, [0-9.]+x \(load\)/); l = substr($0, RSTART + 2, RLENGTH - 10)
            printf "%s %s %s %s speed-up 1->2 threads|%s|x|whole load %sx\n", $1, $2, $3, $4, s, l
        }'
done
