#!/usr/bin/env bash
# Installs the Debian packages a job needs, and nothing from anywhere else.
#   tools/install-deps.sh demo    the library and kvrs (CLI11, nlohmann-json)
#   tools/install-deps.sh test    + GoogleTest, Google Benchmark, Boost headers,
#                                 the i386 toolchain, clang's libFuzzer, strace
#   tools/install-deps.sh ci      + what CI alone needs: clang-format, clang-tidy
# test and ci add mosquitto, its clients, libmosquitto and openssl (test
# certificates) for `kvrs bridge`.
# Packages already present are left alone, so a set-up machine pays one dpkg
# query per package. As root it runs apt-get itself, otherwise through sudo
# when sudo works without a password; failing both it prints the one command
# to run and exits 1.
set -euo pipefail

job=${1:-test}
pkgs=(g++ cmake make libcli11-dev nlohmann-json3-dev)
case "$job" in
  demo) ;;
  test)
    pkgs+=(pkg-config googletest libgtest-dev libgmock-dev libbenchmark-dev libboost-dev
           g++-multilib clang libclang-rt-14-dev strace
           mosquitto mosquitto-clients libmosquitto-dev openssl) ;;
  ci)
    pkgs+=(pkg-config googletest libgtest-dev libgmock-dev libbenchmark-dev libboost-dev
           g++-multilib clang libclang-rt-14-dev strace clang-format clang-tidy
           mosquitto mosquitto-clients libmosquitto-dev openssl) ;;
  *) echo "install-deps.sh: unknown job '$job' (demo, test or ci)" >&2; exit 2 ;;
esac

need=()
for pkg in "${pkgs[@]}"; do
  dpkg-query -W -f='${Status}' "$pkg" 2>/dev/null | grep -q 'ok installed' || need+=("$pkg")
done
[ ${#need[@]} -eq 0 ] && exit 0

if [ "$(id -u)" -eq 0 ]; then
  sudo=()
elif command -v sudo >/dev/null && sudo -n true 2>/dev/null; then
  sudo=(sudo -n)
else
  echo "missing packages; run: sudo apt-get install ${need[*]}" >&2
  exit 1
fi

echo "installing ${need[*]} (apt-get)"
export DEBIAN_FRONTEND=noninteractive
log=$(mktemp)
if ! { "${sudo[@]}" apt-get update -qq && "${sudo[@]}" apt-get install -y -qq "${need[@]}"; } >"$log" 2>&1; then
  tail -n 20 "$log" >&2
  echo "install-deps.sh: apt-get failed; run: sudo apt-get install ${need[*]}" >&2
  rm -f "$log"
  exit 1
fi
rm -f "$log"

# The mosquitto package starts a broker on port 1883 where systemd runs; the
# tests and benchmarks start brokers of their own, so one just installed here
# is stopped and disabled again.
if [[ " ${need[*]} " == *" mosquitto "* ]] && command -v systemctl >/dev/null &&
  systemctl is-active --quiet mosquitto 2>/dev/null; then
  "${sudo[@]}" systemctl disable --now mosquitto >/dev/null 2>&1 &&
    echo "install-deps.sh: stopped the mosquitto service the package started (tests run their own broker)"
fi
