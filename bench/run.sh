#!/usr/bin/env bash
# Benchmark harness: builds Release, generates the synthetic inputs it needs under
# BUILD/bench-data/ (git-ignored), runs every benchmark present and prints one table.
#
#   bench/run.sh [BUILD_DIR]          default BUILD_DIR: build (at the repository root)
#   BENCH_SCALES="tiny region" bench/run.sh    generator scales to time (default: tiny region state)
#
# A later benchmark joins by adding bench/<name>/figures.sh: it is called as
# `figures.sh BUILD_DIR DATA_DIR` and prints one line per figure, "name|value|unit|note".
set -euo pipefail
root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
build="${1:-$root/build}"
scales="${BENCH_SCALES:-tiny region state}"

echo "building $build (Release)..." >&2
bash "$root/scripts/build.sh" "$build" Release >/dev/null
data="$build/bench-data"
mkdir -p "$data"

rows=()
add() { rows+=("$1|$2|$3|$4"); }

# Generator: wall time of one run as the program reports it (network + trips, files written).
synth() {
    local name="$1"; shift
    local dir="$data/synth-$name"
    rm -rf "$dir"
    echo "torvex-synth $* ..." >&2
    local out total cpu trips links
    out="$("$build/torvex-synth" "$@" --out "$dir")"
    total="$(sed -n 's/.* total \([0-9.]*\) s.*/\1/p' <<<"$out")"
    cpu="$(sed -n 's/.* cpu \([0-9.]*\) s.*/\1/p' <<<"$out")"
    trips="$(sed -n 's/^torvex-synth: \([0-9]*\) trips from.*/\1/p' <<<"$out")"
    links="$(sed -n 's/^torvex-synth: [0-9]* nodes, \([0-9]*\) links.*/\1/p' <<<"$out")"
    local size
    size="$(du -sm "$dir" | cut -f1)"
    add "synth $name" "$total" "s" "cpu $cpu s; $links links, $trips trips, ${size} MB"
    add "synth $name rate" "$(awk -v t="$trips" -v s="$total" 'BEGIN { printf "%.2f", t / s / 1e6 }')" \
        "M trips/s" ""
}

for s in $scales; do synth "$s" --scale "$s"; done
case " $scales " in
    *" state "*) synth state-gzip --scale state --gzip --depart clock ;;
esac

# Table reader: LineReader + split_csv over the largest trip file generated, plain and gzip.
if [ -x "$build/bench-reader" ]; then
    largest=""
    for s in state region tiny; do
        if [ -f "$data/synth-$s/TRIPS.csv" ]; then largest="$s"; break; fi
    done
    if [ -n "$largest" ]; then
        plain="$data/synth-$largest/TRIPS.csv"
        gz="$data/reader-$largest.csv.gz"
        [ "$gz" -nt "$plain" ] || gzip -1 -c "$plain" > "$gz"
        cat "$plain" "$gz" > /dev/null  # warm the page cache
        for f in "$plain" "$gz"; do
            echo "bench-reader $f ..." >&2
            line="$("$build/bench-reader" "$f")"
            kind="$(awk '{ print $1 }' <<<"$line")"
            mbs="$(sed -n 's/.*: \([0-9]*\) MB\/s.*/\1/p' <<<"$line")"
            mls="$(sed -n 's/.*MB\/s, \([0-9.]*\) M lines\/s.*/\1/p' <<<"$line")"
            add "reader $kind ($largest trips)" "$mbs" "MB/s" "$mls M lines/s"
        done
        s0=$(date +%s.%N); gzip -dc "$gz" > /dev/null; s1=$(date +%s.%N)
        mb="$(gzip -dc "$gz" | wc -c)"
        add "gzip -dc, for comparison" \
            "$(awk -v b="$mb" -v a="$s0" -v e="$s1" 'BEGIN { printf "%.0f", b / 1e6 / (e - a) }')" \
            "MB/s" "same file"
    fi
fi

# Benchmarks added by later work.
for f in "$root"/bench/*/figures.sh; do
    [ -f "$f" ] || continue
    echo "$f ..." >&2
    while IFS= read -r line; do
        [ -n "$line" ] && rows+=("$line")
    done < <(bash "$f" "$build" "$data")
done

commit="$(git -C "$root" rev-parse --short HEAD 2>/dev/null || echo unknown)"
cpu="$(sed -n 's/^model name[[:space:]]*: //p' /proc/cpuinfo 2>/dev/null | head -1)"
echo
echo "torvex benchmarks: nproc $(nproc), ${cpu:-unknown cpu}, commit $commit, $(date -u +%Y-%m-%d)"
printf '%-34s %12s  %-10s %s\n' "benchmark" "value" "unit" "note"
for r in "${rows[@]}"; do
    IFS='|' read -r name value unit note <<<"$r"
    printf '%-34s %12s  %-10s %s\n' "$name" "$value" "$unit" "$note"
done
