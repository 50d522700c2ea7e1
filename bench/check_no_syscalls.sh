#!/usr/bin/env bash
# Proves that an uncontended pool allocation and free make no system call: runs
# the alloc/free loop of bench_PoolBench for N and for 10 N pairs (of each of
# 8, 64 and 4096 bytes) under `strace -f -c` and fails when the larger run made
# more than a handful of calls beyond the smaller one (start-up and attachment
# cost the same in both). Usage: check_no_syscalls.sh [path/to/bench_PoolBench] [N]
set -euo pipefail
bin=${1:-build/release/bench/bench_PoolBench}
n=${2:-10000}
command -v strace >/dev/null || { echo "strace is not installed (apt-get install strace)"; exit 2; }
[ -x "$bin" ] || { echo "no benchmark binary at $bin"; exit 2; }

calls() {
  # The "total" line of strace's summary: "% time, seconds, usecs/call, calls,
  # errors, total", where errors is left blank when there were none.
  strace -f -c -o "$tmp" "$bin" --loop="$1" >/dev/null
  awk '$NF == "total" { print (NF >= 6) ? $(NF-2) : $(NF-1) }' "$tmp"
}
tmp=$(mktemp)
trap 'rm -f "$tmp"' EXIT
small=$(calls "$n")
large=$(calls $((n * 10)))
extra=$((large - small))
echo "system calls: $small for $n pairs of each size, $large for $((n * 10)) ($extra more)"
if [ "$extra" -gt 5 ]; then
  echo "FAIL: the alloc/free loop makes system calls ($extra for $((n * 9 * 3)) more pairs)"
  exit 1
fi
echo "OK: no system call per alloc/free pair"
