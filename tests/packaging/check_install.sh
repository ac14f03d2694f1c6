#!/usr/bin/env bash
# check_install.sh BUILD_DIR EXAMPLES_DIR
set -euo pipefail
build=$1
examples=$2
work=$(mktemp -d /tmp/netmgr-install-XXXXXX)
trap 'rm -rf "$work"' EXIT
prefix=$work/prefix

cmake --install "$build" --prefix "$prefix" >/dev/null

lib=$(ls "$prefix"/lib/libnetmgr.so.*.*.* 2>/dev/null | head -n1)
[ -n "$lib" ] || { echo "no versioned libnetmgr.so installed"; exit 1; }
soname=$(objdump -p "$lib" | awk '/SONAME/ {print $2}')
[ "$soname" = "libnetmgr.so.1" ] || { echo "unexpected SONAME '$soname'"; exit 1; }
[ -f "$prefix/include/netmgr/netmgr.h" ] || { echo "header missing"; exit 1; }
[ -x "$prefix/bin/netmgrctl" ] || { echo "netmgrctl missing"; exit 1; }

# Exactly the 41 exported functions, nothing internal.
count=$(nm -D --defined-only "$lib" | awk '$2 == "T" || $2 == "W" || $2 == "B" || $2 == "D"' | wc -l)
[ "$count" -eq 41 ] || { echo "expected 41 exported symbols, got $count"; nm -DC --defined-only "$lib"; exit 1; }

cmake -S "$examples" -B "$work/cmake-build" -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build "$work/cmake-build" >/dev/null
[ -x "$work/cmake-build/netmgr-example" ] || { echo "find_package build failed"; exit 1; }

PKG_CONFIG_PATH=$prefix/lib/pkgconfig
export PKG_CONFIG_PATH
g++ -std=c++17 "$examples/example.cc" -o "$work/example-pc" $(pkg-config --cflags --libs netmgr)
[ -x "$work/example-pc" ] || { echo "pkg-config build failed"; exit 1; }
echo "installed package builds with find_package and pkg-config"
