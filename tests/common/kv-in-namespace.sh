#!/bin/sh
# kv-in-namespace.sh PREFIX PROGRAM [ARGS...]: runs a test program in a namespace
# of its own, PREFIX.<pid>. ctest starts every test case, and the listing of a
# program's cases, through this script, so that no test process ever attaches
# to a namespace of the user's or of another test process.
prefix=$1
shift
KVRFRSVR_NAMESPACE="$prefix.$$"
export KVRFRSVR_NAMESPACE
exec "$@"
