#!/usr/bin/env bash
# Reader benchmark: a 1 GB trip-like file, plain and gzip, each read 3 times; gzip is compared
# with `gzip -dc FILE > /dev/null` in the same run. Usage: bench/reader/run.sh [BUILD_DIR] [MB]
set -euo pipefail
root="$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)"
build="${1:-$root/build}"
mb="${2:-1100}"
data="$build/bench-data/reader"
mkdir -p "$data"
[ -f "$data/trips.csv" ] || "$build/bench-reader" --make "$data/trips.csv" "$mb"
[ -f "$data/trips.csv.gz" ] || gzip -c "$data/trips.csv" > "$data/trips.csv.gz"
cat "$data/trips.csv" "$data/trips.csv.gz" > /dev/null  # warm the page cache
for i in 1 2 3; do
    "$build/bench-reader" "$data/trips.csv"
    "$build/bench-reader" "$data/trips.csv.gz"
    s=$(date +%s.%N); gzip -dc "$data/trips.csv.gz" > /dev/null; e=$(date +%s.%N)
    awk -v s="$s" -v e="$e" 'BEGIN { printf "gzip -dc: %.3f s\n", e - s }'
done
