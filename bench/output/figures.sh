#!/usr/bin/env bash
# Output phase figures for bench/run.sh: `figures.sh BUILD_DIR DATA_DIR` times every result writer
# on the largest generated region and prints "name|value|unit|note" lines.
set -euo pipefail
build="$1"; data="$2"
[ -x "$build/bench-output" ] || exit 0
src=""
for s in state region tiny; do
    if [ -f "$data/synth-$s/TRIPS.csv" ]; then src="$s"; break; fi
done
[ -n "$src" ] || exit 0
out="$data/output-$src"
rm -rf "$out"
log="$("$build/bench-output" "$data/synth-$src" "$out")"
rm -rf "$out"
secs() { sed -n "s/^$1 *\([0-9.]*\) s .*/\1/p" <<<"$log"; }
echo "output: link performance ($src)|$(secs link_performance_macroDTA)|s|$(sed -n '/^link_performance_macroDTA/{n;s/^ *//;p}' <<<"$log")"
echo "output: route keys ($src)|$(secs route_keys)|s|"
echo "output: agent plans ($src)|$(secs agentPlans_out)|s|$(sed -n '/^agentPlans_out/{n;s/^ *//;p}' <<<"$log")"
echo "output: agent database ($src)|$(secs agentPaths.duckdb)|s|$(sed -n '/^agentPaths.duckdb/{n;s/^ *//;p}' <<<"$log")"
echo "output: PCE to vehicles ($src)|$(secs convert_volumes_to_vehicles)|s|serial walk"
echo "output: path continuity ($src)|$(secs path_continuity)|s|"
echo "output: whole phase ($src)|$(sed -n 's/^output phase (all writers) *\([0-9.]*\) s .*/\1/p' <<<"$log")|s|threads A, B, C + main"
