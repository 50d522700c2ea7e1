#!/usr/bin/env bash
# keep_user_tree.sh KVRS COMMAND...: runs COMMAND (a build and test run) while
# `kvrs serve` keeps a tree in the user's default namespace, then fails unless
# that tree is exactly as it was: the value is still there and `kvrs check`
# finds it consistent. Builds and tests must never attach to a user's tree.
set -uo pipefail
kvrs=$1
shift
unset KVRFRSVR_NAMESPACE
out=$(mktemp)
trap 'rm -f "$out"' EXIT
"$kvrs" serve >"$out" 2>&1 &
serve=$!
for _ in $(seq 100); do grep -q 'serving namespace' "$out" && break; sleep 0.1; done
"$kvrs" set guard.plant.t 21.5 --type 1 || { echo "keep_user_tree: could not set the guard value"; kill $serve; exit 1; }

"$@"
status=$?

value=$("$kvrs" get guard.plant.t --text 2>&1)
"$kvrs" check >/dev/null 2>&1
check=$?
kill -TERM $serve
wait $serve
if [ "$value" != "21.5" ] || [ $check -ne 0 ]; then
  echo "keep_user_tree: the user's tree was touched: guard.plant.t is '$value', kvrs check status $check"
  exit 1
fi
echo "keep_user_tree: the user's tree in the default namespace is untouched"
exit $status
