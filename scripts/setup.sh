#!/usr/bin/env bash
# setup.sh [--tool | --build | --all | --long | --bench]: prepares a fresh Debian 12 to build, run and test the tree: it
# installs the missing packages, those of the pages among them, and puts the two modules beside the built
# program. A second run finds all in place and doesn't call apt.
#
# --tool takes only what pelmoscope, pelmobus and pmd are built with, --build also what pelmowatch is
# built with: both leave out what the tests need, a browser among it. Without an option all of that
# is installed; with --all also what the checks of CI need, clang and Prometheus's promtool; with --long
# what only the long tests need beyond that, and with --bench what the benches alone compare with: the brokers that bench/bus.sh measures beside pmd, their client libraries, and the
# libraries that bench/direct.sh measures beside reliable endpoints.
set -euo pipefail
cd "$(dirname "$0")/.."

have_command() { command -v "$1" >/dev/null 2>&1; }
have_header() { [ -f "/usr/include/$1" ]; }
# The system's own Python is meant, which the build and its tests use too: another one may be first in
# the path, without the system's modules.
have_module() { /usr/bin/python3 -c "import $1" 2>/dev/null; }
have_font() { compgen -G "/usr/share/fonts/*/*/$1-Regular.*" >/dev/null; }
have_fuzzer() { compgen -G '/usr/lib/llvm-14/lib/clang/*/lib/linux/libclang_rt.fuzzer-*.a' >/dev/null; }

missing=()
need() {
    local package=$1
    shift
    "$@" || missing+=("$package")
}

option=${1:-}
case $option in
    --tool | --build | "" | --all | --long | --bench) ;;
    *) echo "usage: setup.sh [--tool | --build | --all | --long | --bench]" >&2 && exit 2 ;;
esac

need g++ have_command g++
need cmake have_command cmake
need ninja-build have_command ninja
need libpcap-dev have_header pcap.h
need zlib1g-dev have_header zlib.h
if [ "$option" != --tool ]; then
    need python3 test -x /usr/bin/python3
    need rapidjson-dev have_header rapidjson/writer.h
    need libmicrohttpd-dev have_header microhttpd.h
    need prometheus-cpp-dev have_header prometheus/text_serializer.h
    need libncurses-dev have_header ncursesw/curses.h
    need libseccomp-dev have_header seccomp.h
    need libarchive-dev have_header archive.h
    need python3-dev have_header python3.11/Python.h
    need pybind11-dev have_header pybind11/pybind11.h
    need nodejs have_command node
    need npm have_command npm
fi
if [ "$option" != --tool ] && [ "$option" != --build ]; then
    need libnats-dev have_header nats/nats.h
    need nats-server test -x /usr/sbin/nats-server
    need git have_command git
    need pkgconf have_command pkg-config
    need iproute2 have_command ip
    need tmux have_command tmux
    need python3-jsonschema have_module jsonschema
    need python3-pytest have_module pytest
    need chromium have_command chromium
    need fonts-inter have_font Inter
    need libgtest-dev have_header gtest/gtest.h
fi
if [ "$option" = --all ] || [ "$option" = --long ] || [ "$option" = --bench ]; then
    need prometheus have_command promtool
    need python3-dbg test -x /usr/bin/python3.11-dbg
    need tshark have_command tshark
    need doxygen have_command doxygen
    need libbenchmark-dev have_header benchmark/benchmark.h
    need libmsgpack-dev have_header msgpack.h
    need libuv1-dev have_header uv.h
    need clang-14 have_command clang++-14
    need clang-format-14 have_command clang-format-14
    need clang-tidy-14 have_command clang-tidy-14
    need libclang-rt-14-dev have_fuzzer
fi
[ "$option" != --long ] || need debootstrap have_command debootstrap
if [ "$option" = --bench ]; then
    need mosquitto test -x /usr/sbin/mosquitto
    need libmosquitto-dev have_header mosquitto.h
    need python3-paho-mqtt have_module paho.mqtt
    need libenet-dev have_header enet/enet.h
    need libusrsctp-dev have_header usrsctp.h
fi
need debian-archive-keyring test -f /usr/share/keyrings/debian-archive-keyring.gpg

if [ ${#missing[@]} -gt 0 ]; then
    as_root=()
    if [ "$(id -u)" != 0 ]; then
        have_command sudo || { echo "missing: ${missing[*]}; only root can install them" >&2 && exit 1; }
        as_root=(sudo)
    fi
    echo "installing ${missing[*]}"
    "${as_root[@]}" apt-get -qq update
    "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive \
        apt-get -qq install -y --no-install-recommends "${missing[@]}" >/dev/null
fi

# The packages of the pages, in the versions of the lock file; npm keeps a copy of it beside them.
if [ "$option" != --tool ] &&
    [ ! watch/web/node_modules/.package-lock.json -nt watch/web/package-lock.json ]; then
    echo "installing the packages of watch/web"
    (cd watch/web && npm ci --silent && touch node_modules/.package-lock.json)
fi

scripts/lay_modules.sh build/release/bin
