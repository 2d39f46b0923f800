#!/usr/bin/env bash
# Installs what a build of torvex needs and is missing; a second call downloads nothing.
# Debian packages: compiler, CMake, Ninja, zlib, GoogleTest, OpenMP (libgomp ships with g++),
# npm (only to fetch DuckDB). DuckDB 1.4.4 comes from the npm registry into deps/duckdb.
set -euo pipefail
root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"

need=()
command -v g++ >/dev/null 2>&1 || need+=(g++)
command -v cmake >/dev/null 2>&1 || need+=(cmake)
command -v ninja >/dev/null 2>&1 || need+=(ninja-build)
command -v npm >/dev/null 2>&1 || need+=(npm)
command -v gzip >/dev/null 2>&1 || need+=(gzip)
[ -f /usr/include/zlib.h ] || need+=(zlib1g-dev)
[ -d /usr/include/gtest ] || need+=(libgtest-dev)
[ -d /usr/src/googletest ] || [ -f /usr/lib/x86_64-linux-gnu/libgtest.a ] || need+=(googletest)
if [ ${#need[@]} -gt 0 ]; then
    if [ "$(id -u)" -ne 0 ]; then
        echo "setup: missing packages (${need[*]}); run as root or install them" >&2
        exit 1
    fi
    export DEBIAN_FRONTEND=noninteractive
    apt-get update -qq
    apt-get install -y -qq "${need[@]}" >/dev/null
fi

ddb="$root/deps/duckdb"
if [ ! -f "$ddb/lib/libduckdb.so" ] || [ ! -f "$ddb/include/duckdb.h" ]; then
    tmp="$(mktemp -d)"
    trap 'rm -rf "$tmp"' EXIT
    (cd "$tmp" && npm pack --silent @duckdb/node-bindings-linux-x64@1.4.4-r.4 >/dev/null \
        && npm pack --silent duckdb@1.4.4 >/dev/null)
    mkdir -p "$ddb/lib" "$ddb/include"
    tar -xzf "$tmp"/duckdb-node-bindings-linux-x64-1.4.4-r.4.tgz -C "$tmp" package/libduckdb.so
    mv "$tmp/package/libduckdb.so" "$ddb/lib/"
    tar -xzf "$tmp"/duckdb-1.4.4.tgz -C "$tmp" package/src/duckdb/src/include/duckdb.h
    mv "$tmp/package/src/duckdb/src/include/duckdb.h" "$ddb/include/"
fi
