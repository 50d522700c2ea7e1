#!/bin/sh
# fuzz/run.sh [SECONDS] - builds the libFuzzer targets with clang and runs each
# for SECONDS (default 10), starting from the stored corpus in fuzz/corpus/.
# New inputs go to a scratch corpus in the build directory; a crash leaves its
# input in build/fuzz/artifacts/ (add it to fuzz/corpus/<target>/ once fixed).
# Environment: KV_FUZZ_BUILD (build directory, default build/fuzz), JOBS.
set -eu
SECONDS_EACH=${1:-10}
ROOT=$(cd "$(dirname "$0")/.." && pwd)
BUILD=${KV_FUZZ_BUILD:-$ROOT/build/fuzz}
JOBS=${JOBS:-$(nproc)}

command -v clang++ >/dev/null || { echo "fuzz/run.sh: clang++ is needed" >&2; exit 2; }
cmake -S "$ROOT" -B "$BUILD" -DCMAKE_CXX_COMPILER=clang++ -DCMAKE_BUILD_TYPE=RelWithDebInfo \
      -DKV_BUILD_TESTS=OFF -DKV_BUILD_BENCH=OFF >/dev/null
cmake --build "$BUILD" -j "$JOBS" --target kvfuzz_node_paths kvfuzz_value_bytes kvfuzz_hybrid_list

mkdir -p "$BUILD/artifacts"
status=0
for t in node_paths value_bytes hybrid_list; do
    scratch="$BUILD/corpus/$t"
    mkdir -p "$scratch"
    echo "== kvfuzz_$t: $SECONDS_EACH s"
    # Every fuzzer works in a namespace of its own, never in a user's tree.
    if ! KVRFRSVR_NAMESPACE="fuzz.$t.$$" "$BUILD/fuzz/kvfuzz_$t" -max_total_time="$SECONDS_EACH" \
            -max_len=4096 -timeout=60 -rss_limit_mb=4096 -print_final_stats=1 \
            -artifact_prefix="$BUILD/artifacts/$t-" "$scratch" "$ROOT/fuzz/corpus/$t"; then
        echo "fuzz/run.sh: kvfuzz_$t found a problem (see $BUILD/artifacts)" >&2
        status=1
    fi
    # A fuzzer that stops on a finding (or at its time limit) skips the
    # library's clean-up: remove the named objects of its namespace.
    rm -f /dev/shm/*".fuzz.$t.$$."*
done
exit $status
