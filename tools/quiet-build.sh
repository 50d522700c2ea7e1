#!/usr/bin/env bash
# quiet-build.sh BUILD_DIR JOBS [CMAKE_CONFIGURE_ARGS...] [-- CMAKE_BUILD_ARGS...]
# Configures and builds with CMake, keeping the output in BUILD_DIR/build.log:
# one line while it works, the log's last lines when it fails.
set -uo pipefail
dir=$1 jobs=$2
shift 2
configure=()
while [ $# -gt 0 ] && [ "$1" != "--" ]; do configure+=("$1"); shift; done
[ "${1:-}" = "--" ] && shift
mkdir -p "$dir"
log="$dir/build.log"
echo "building in $dir (log: $log)"
if ! { cmake -S . -B "$dir" "${configure[@]}" && cmake --build "$dir" -j "$jobs" "$@"; } >"$log" 2>&1; then
  grep -E 'error|Error|warning' "$log" | head -n 20
  echo "--- last lines of $log:"
  tail -n 25 "$log"
  echo "build failed (full log: $log)" >&2
  exit 1
fi
