#!/usr/bin/env bash
# Checks that an uncontended exported call makes no system call: runs a loop of
# KvRsGetNodeType N times and 10 N times under `strace -f -c` and fails when
# the larger run makes more system calls than the smaller one (start-up and
# exit are the same in both, so a difference comes from the calls; a few are
# allowed for start-up noise, far fewer than one per thousand extra calls).
#   bench/check_no_syscalls_api.sh [path/to/compare_trivial_loop]
# Exit status: 0 no system calls per call, 1 some, 77 strace unavailable.
set -euo pipefail

here=$(cd "$(dirname "$0")" && pwd)
prog=${1:-$here/../build/release/bench/compare/compare_trivial_loop}
if [ ! -x "$prog" ]; then
  echo "check_no_syscalls_api: $prog is not built" >&2
  exit 1
fi
if ! command -v strace >/dev/null 2>&1 || ! strace -o /dev/null true 2>/dev/null; then
  echo "SKIPPED: strace is missing or not permitted here"
  exit 77
fi

# A namespace of our own: a fresh, uncontended segment and mutex.
export KVRFRSVR_NAMESPACE=kvcmp.nosys.$$
out=$(mktemp)
trap 'rm -f "$out"' EXIT

# Total number of system calls of one run, from the summary's "total" line.
count_calls() {
  strace -f -c -o "$out" "$prog" "$1" >/dev/null
  awk '$NF == "total" { print $4 }' "$out"
}

n=10000
small=$(count_calls $n)
large=$(count_calls $((n * 10)))
echo "system calls: $small for $n calls, $large for $((n * 10)) calls"
if [ "$large" -gt $((small + 10)) ]; then
  echo "FAILED: $((large - small)) more system calls for $((n * 9)) more exported calls"
  strace -f -c -o "$out" "$prog" $((n * 10)) >/dev/null
  cat "$out"
  exit 1
fi
echo "OK: the exported call makes no system call"
