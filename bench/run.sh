#!/usr/bin/env bash
# Runs the comparison of KvRfrSvr with what users pick instead (Boost.Interprocess,
# pipes, POSIX mq, raw shared memory) and prints the table.
#   bench/run.sh <builddir>           full run (Release build expected); also
#                                     rewrites the comparison section of
#                                     docs/performance.md
#   bench/run.sh --short <builddir>   seconds-long run for CI: checks that the
#                                     suite works, prints figures, writes nothing
# KV_BENCH_ALL=1 also runs the Google Benchmark programs (bench_*) afterwards.
set -euo pipefail

short=0
if [ "${1:-}" = "--short" ]; then short=1; shift; fi
build=${1:?usage: bench/run.sh [--short] <builddir>}
here=$(cd "$(dirname "$0")" && pwd)
root=$(dirname "$here")
bin=$build/bench/compare
for prog in compare_roundtrip compare_tree; do
  if [ ! -x "$bin/$prog" ]; then
    echo "run.sh: $bin/$prog is missing (are the Boost headers and Google Benchmark installed?)" >&2
    exit 1
  fi
done

args=()
[ $short = 1 ] && args=(--short)
rows=$(mktemp)

# The programs load the library, which attaches the namespace in the
# environment as they start: give them a private one from the outset, so that
# no process attaches (and leaves) the caller's own tree before re-running
# itself in a namespace of its own.
export KVRFRSVR_NAMESPACE="kvcmp.run.$$"

# Single runs scatter on a shared virtual machine: the full run repeats both
# programs (KV_BENCH_RUNS times, 3 by default) and reports the median run.
runs=${KV_BENCH_RUNS:-3}
[ $short = 1 ] && runs=1
raw=$(mktemp)
trap 'rm -f "$rows" "$raw"' EXIT
start=$(date +%s)
for ((i = 0; i < runs; i++)); do
  "$bin/compare_roundtrip" "${args[@]}" >>"$raw"
  "$bin/compare_tree" "${args[@]}" >>"$raw"
  [ -x "$bin/compare_wakeup" ] && "$bin/compare_wakeup" "${args[@]}" >>"$raw"
done
awk -f "$here/compare/merge_runs.awk" "$raw" >"$rows"
if ! grep -q $'^ROW\tRound trip.*\tKvRfrSvr' "$rows"; then
  echo "run.sh: note: the library's own rows are missing (shared library not built)" >&2
fi
if grep -q 'FAILED' "$rows"; then
  grep 'FAILED' "$rows" >&2
  echo "run.sh: some operations failed" >&2
  exit 1
fi
table=$(awk -f "$here/compare/report.awk" "$rows")
echo "$table"
echo "(comparison took $(( $(date +%s) - start )) s)"

if [ $short = 0 ]; then
  doc=$root/docs/performance.md
  begin='<!-- comparison-with-alternatives:begin -->'
  end='<!-- comparison-with-alternatives:end -->'
  mem=$(awk '/MemTotal/ { printf "%.0f GiB", $2 / 1048576 }' /proc/meminfo)
  os=$(. /etc/os-release 2>/dev/null && echo "${PRETTY_NAME:-Linux}")
  cxx=$(${CXX:-g++} -dumpfullversion 2>/dev/null || echo "?")
  cpu=$(awk -F': ' '/model name/ { print $2; exit }' /proc/cpuinfo)
  section=$(mktemp)
  {
    echo "$begin"
    echo "## Comparison with alternatives"
    echo
    echo "What users pick instead of this library, measured side by side in the same"
    echo "programs and runs (bench/compare/). Latencies are per operation: median and"
    echo "99th percentile. The last column is KvRfrSvr's median divided by the row's"
    echo "median (above 1: KvRfrSvr is slower)."
    echo
    echo "- Round trip: two processes pinned to different CPUs; A notifies \`pp.a\`"
    echo "  (B is its client and polls its default queue with KvRsGetMsgCount/KvRsGetMsg),"
    echo "  B answers on \`pp.b\`. The peers carry one 64-bit counter per message."
    echo "- Tree operations: through the public API, and on a Boost.Interprocess map keyed"
    echo "  by the dotted path in a 64 MiB managed_shared_memory under an"
    echo "  interprocess_recursive_mutex. Leaves are created in random order and looked"
    echo "  up in random order; every KvRfrSvr operation includes releasing the proxies"
    echo "  it got back. \"Set a value\" is KvRsCreateValue + KvRsSetValueBytes +"
    echo "  KvRsSetNodeValue; Boost assigns 16 bytes to the entry's vector. Each size runs"
    echo "  in a fresh process with a fresh segment. The largest tree is 85 % of what the"
    echo "  pool area holds at the larger of the two bytes-per-leaf figures."
    echo "- Both programs ran $runs times; each figure is the median over the runs of"
    echo "  the per-run medians (and p99s), since single runs scatter on this shared"
    echo "  virtual machine."
    echo "- The clock moves in steps of about 10 ns on this machine: value, notification"
    echo "  and trivial-call figures are averages over batches of 10 or 100 calls."
    echo
    echo "Machine: $(nproc) CPUs ($cpu), $mem, $os, g++ $cxx."
    echo "Load average when the run started: $(cut -d' ' -f1-3 /proc/loadavg)."
    echo "Command: \`bench/run.sh $build\` on a Release build (\`make bench\` builds build/release and runs"
    echo "\`bench/run.sh build/release\`), $(date -u +%Y-%m-%d)."
    echo
    echo "$table"
    echo "$end"
  } >"$section"
  mkdir -p "$(dirname "$doc")"
  touch "$doc"
  if grep -qF "$begin" "$doc"; then
    # Replace only our own section; everything else in the file stays.
    awk -v b="$begin" -v e="$end" -v f="$section" '
      $0 == b { while ((getline l < f) > 0) print l; skip = 1; next }
      $0 == e { skip = 0; next }
      !skip' "$doc" >"$doc.tmp" && mv "$doc.tmp" "$doc"
  else
    { [ -s "$doc" ] && echo; cat "$section"; } >>"$doc"
  fi
  rm -f "$section"
  echo "updated $doc"
fi

# The bridge through a private mosquitto, where libmosquitto and mosquitto were
# found at configure time (figures in docs/performance.md, "kvrs bridge").
if [ -x "$build/bench/bridge/bench_bridge" ]; then
  "$build/bench/bridge/bench_bridge" "${args[@]}"
fi

if [ "${KV_BENCH_ALL:-0}" = "1" ]; then
  for prog in "$build"/bench/bench_*; do
    [ -x "$prog" ] && "$prog"
  done
fi
