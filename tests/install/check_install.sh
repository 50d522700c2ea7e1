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

if [ -x "$prefix/bin/kvrs" ]; then
  echo "== kvrs: manual page and bash completion"
  man1="$prefix/share/man/man1/kvrs.1"
  completion="$prefix/share/bash-completion/completions/kvrs"
  for f in "$man1" "$completion"; do
    [ -f "$f" ] || { echo "check_install: missing $f"; exit 1; }
  done
  # The page renders without warnings and names every command.
  if command -v groff >/dev/null; then
    page=$(groff -man -Tutf8 -ww "$man1" 2>&1 >/dev/null)
    [ -z "$page" ] || { echo "check_install: kvrs.1: $page"; exit 1; }
  fi
  for cmd in get set rm ref type listen dump load serve; do
    grep -qE "^\.B[IR]* \"?$cmd( |\"|\$)" "$man1" || { echo "check_install: kvrs.1 does not describe $cmd"; exit 1; }
  done
  # The completion offers the commands and, for a command, its options.
  words=$(PATH="$prefix/bin:$PATH" bash -c '
    source "$1"
    COMP_WORDS=(kvrs se); COMP_CWORD=1; _kvrs; echo "${COMPREPLY[*]}"
    COMP_WORDS=(kvrs set a --ke); COMP_CWORD=3; _kvrs; echo "${COMPREPLY[*]}"' _ "$completion")
  [ "$words" = "$(printf 'set serve\n--keep-newline')" ] ||
    { echo "check_install: bash completion offered: $words"; exit 1; }
  "$prefix/bin/kvrs" --version | grep -q '^kvrs ' || { echo "check_install: kvrs --version"; exit 1; }
fi

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
