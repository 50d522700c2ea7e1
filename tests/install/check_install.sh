#!/usr/bin/env bash
# Installs a build of KvRfrSvr into a temporary prefix and builds a small consumer
# against it twice, with find_package and with pkg-config (and the examples, when
# there are any), then runs what was built.
# Usage: tests/install/check_install.sh [BUILD_DIR]   (default: build/install-check)
set -euo pipefail
root="$(cd "$(dirname "$0")/../.." && pwd)"
build="${1:-$root/build/install-check}"
tmp="$(mktemp -d)"
trap 'rm -rf "$tmp"' EXIT
prefix="$tmp/prefix"
export KVRFRSVR_NAMESPACE="install-check.$$"

if [ ! -f "$build/CMakeCache.txt" ]; then
  cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=Release -DKV_BUILD_TESTS=OFF -DKV_BUILD_BENCH=OFF >/dev/null
fi
cmake --build "$build" -j "$(nproc)" >/dev/null
cmake --install "$build" --prefix "$prefix" >/dev/null
libdir="$(ls -d "$prefix"/lib*/ | head -n1)"; libdir="${libdir%/}"
for f in "$prefix/include/KvRfrSvr.h" "$libdir/libKvRfrSvr.so" "$libdir/pkgconfig/KvRfrSvr.pc" \
         "$libdir/cmake/KvRfrSvr/KvRfrSvrConfig.cmake"; do
  [ -e "$f" ] || { echo "check_install: missing $f"; exit 1; }
done

echo "== find_package"
cmake -S "$root/tests/install/consumer" -B "$tmp/cmake" -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build "$tmp/cmake" >/dev/null
LD_LIBRARY_PATH="$libdir" "$tmp/cmake/consumer"

echo "== pkg-config"
export PKG_CONFIG_PATH="$libdir/pkgconfig"
# shellcheck disable=SC2046
${CXX:-c++} -std=c++11 -Wall -Wextra -Werror "$root/tests/install/consumer/consumer.cpp" -o "$tmp/consumer-pc" \
  $(pkg-config --cflags --libs KvRfrSvr)
LD_LIBRARY_PATH="$libdir" "$tmp/consumer-pc"

if [ -f "$root/examples/CMakeLists.txt" ]; then
  echo "== examples"
  cmake -S "$root/examples" -B "$tmp/examples" -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
  cmake --build "$tmp/examples" >/dev/null
fi
[ -z "$(ls /dev/shm | grep "\.install-check\.$$\." || true)" ] || { echo "check_install: objects left in /dev/shm"; exit 1; }
echo "check_install: ok"
