#!/usr/bin/env bash
# check_device_store.sh SOURCE_DIR
# NETMGR_DEVICE_STORE=ON: configuring without the device's store library
# stops with a message that says what to pass; with a stub of it installed
# into a scratch prefix the library links it (and not the stand-in) and an
# application's calls reach it.
set -euo pipefail
src=$1
here=$(cd "$(dirname "$0")" && pwd)
work=$(mktemp -d /tmp/netmgr-devstore-XXXXXX)
trap 'rm -rf "$work"' EXIT
fail() {
    echo "FAIL: $*"
    exit 1
}
opts=(-G Ninja -DCMAKE_BUILD_TYPE=Release -DNETMGR_DEVICE_STORE=ON -DBUILD_TESTING=OFF
    -DNETMGR_BUILD_SIM=OFF -DNETMGR_BUILD_NETMGRCTL=OFF -DNETMGR_BENCH=OFF)

mkdir -p "$work/empty"
if cmake -S "$src" -B "$work/missing" "${opts[@]}" -DNETMGR_ZELSTORAGE_ROOT="$work/empty" \
    >"$work/missing.log" 2>&1; then
    fail "configure succeeded without the device's store library"
fi
grep -q "NETMGR_ZELSTORAGE_ROOT" "$work/missing.log" || { cat "$work/missing.log"; fail "no hint in the message"; }
grep -q "libzelstorageclient" "$work/missing.log" || { cat "$work/missing.log"; fail "message does not name the library"; }

store=$work/sdk
mkdir -p "$store/include" "$store/lib"
cp "$here/stub-store/zelstorageclient.h" "$store/include/"
g++ -std=c++17 -shared -fPIC "$here/stub-store/zelstorageclient.cc" -o "$store/lib/libzelstorageclient.so" \
    $(pkg-config --cflags --libs jsoncpp)

cmake -S "$src" -B "$work/build" "${opts[@]}" -DNETMGR_ZELSTORAGE_ROOT="$store" >"$work/build.log" 2>&1 ||
    { cat "$work/build.log"; fail "configure with the stub failed"; }
cmake --build "$work/build" >>"$work/build.log" 2>&1 || { cat "$work/build.log"; fail "build with the stub failed"; }
lib=$work/build/libnetmgr.so.1
objdump -p "$lib" | grep -q "NEEDED.*libzelstorageclient.so" || fail "libnetmgr does not need libzelstorageclient"
if nm -D --defined-only "$lib" | grep -q ZL_Storage_; then fail "the stand-in store went into libnetmgr"; fi
grep -q -- "-I$store/include\|-isystem $store/include" "$work/build/compile_commands.json" ||
    fail "the device's header directory is not used"

mkdir -p "$work/inc/netmgr"
cp "$src/core/netmgr.h" "$work/inc/netmgr/"
g++ -std=c++17 "$here/stub-store/reset_db.cc" -I"$work/inc" -o "$work/reset_db" \
    -L"$work/build" -lnetmgr -L"$store/lib" -lzelstorageclient -Wl,-rpath,"$work/build:$store/lib"
out=$("$work/reset_db")
expected=$'stub remove netmgr:type\nstub remove netmgr:last_wifi\nstub remove netmgr:ipv6_enable'
[ "$out" = "$expected" ] || fail "the application's reset did not reach the device store: '$out'"
echo "device store found through NETMGR_ZELSTORAGE_ROOT and used"
