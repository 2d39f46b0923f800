#!/usr/bin/env bash
# Agent database figures for bench/run.sh: figures.sh BUILD_DIR DATA_DIR prints
# "name|value|unit|note" lines. A fabricated run of 10 million agents (AGENTDB_AGENTS overrides).
set -euo pipefail
build="$1"
data="$2"
agents="${AGENTDB_AGENTS:-10000000}"
[ -x "$build/bench-agentdb" ] || exit 0
out="$("$build/bench-agentdb" --agents "$agents" --keys $((agents / 5)) --out "$data/agentdb")"
field() { sed -n "$1" <<<"$out"; }
agents_rate="$(field 's/^agentdb agents only: .* s cpu; \([0-9.]*\) M agent rows\/s wall.*/\1/p')"
agents_cpu="$(field 's/^agentdb agents only: .*wall, \([0-9.]*\) M\/s per cpu second.*/\1/p')"
agents_s="$(field 's/^agentdb agents only: \([0-9.]*\) s wall.*/\1/p')"
paths_rate="$(field 's/^agentdb with key paths: .*wall (\([0-9.]*\) M rows\/s).*/\1/p')"
paths_n="$(field 's/^agentdb with key paths: .*key_paths \([0-9]*\) rows.*/\1/p')"
all_s="$(field 's/^agentdb with key paths: \([0-9.]*\) s wall.*/\1/p')"
size="$(field 's/.*file \([0-9]*\) MB.*/\1/p')"
ceiling="$(field 's/^engine ceiling.* s cpu; \([0-9.]*\) M rows\/s wall.*/\1/p')"
echo "agentdb agents ($agents)|$agents_rate|M rows/s|$agents_s s; $agents_cpu M per cpu second"
echo "agentdb key_paths ($paths_n)|$paths_rate|M rows/s|whole file $all_s s, $size MB"
echo "agentdb engine ceiling|$ceiling|M rows/s|DuckDB INSERT ... SELECT, same schema"
