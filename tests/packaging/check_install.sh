#!/usr/bin/env bash
# check_install.sh SOURCE_DIR BUILD_DIR ARCH_TRIPLET
# Checks that the package recipes carry the build's version, and installs the package the ways a developer and a distribution do and builds
# the example application against each result:
#  1. the test's own build into a scratch prefix (`cmake --install --prefix`),
#     through find_package and pkg-config;
#  2. a library-only build for /usr with the multiarch libdir staged into a
#     DESTDIR, reached through PKG_CONFIG_SYSROOT_DIR and through
#     CMAKE_FIND_ROOT_PATH, as a cross build or a package build sees it.
set -euo pipefail
src=$1
build=$2
arch=${3:-x86_64-linux-gnu}
examples=$src/examples
work=$(mktemp -d /tmp/netmgr-install-XXXXXX)
trap 'rm -rf "$work"' EXIT
fail() {
    echo "FAIL: $*"
    exit 1
}

# --- 1. scratch prefix ---------------------------------------------------------
prefix=$work/prefix
cmake --install "$build" --prefix "$prefix" >/dev/null

lib=$(ls "$prefix"/lib/libnetmgr.so.*.*.* 2>/dev/null | head -n1)
[ -n "$lib" ] || fail "no versioned libnetmgr.so installed"
soname=$(objdump -p "$lib" | awk '/SONAME/ {print $2}')
[ "$soname" = "libnetmgr.so.1" ] || fail "unexpected SONAME '$soname'"
[ -f "$prefix/include/netmgr/netmgr.h" ] || fail "header missing"
[ -x "$prefix/bin/netmgrctl" ] || fail "netmgrctl missing"
[ -f "$prefix/share/dbus-1/system.d/netmgr.conf" ] || fail "D-Bus policy missing"

# Exactly the 41 exported functions, nothing internal.
count=$(nm -D --defined-only "$lib" | awk '$2 == "T" || $2 == "W" || $2 == "B" || $2 == "D"' | wc -l)
[ "$count" -eq 41 ] || { nm -DC --defined-only "$lib"; fail "expected 41 exported symbols, got $count"; }

version=$(sed -n 's/^Version: //p' "$prefix/lib/pkgconfig/netmgr.pc")
[ "$lib" = "$prefix/lib/libnetmgr.so.$version" ] || fail ".pc version '$version' is not the library's ($lib)"
grep -qx "prefix=$prefix" "$prefix/lib/pkgconfig/netmgr.pc" || fail ".pc prefix is not $prefix"

# Package recipes carry the same version as the build.
[ "$(sed -n '1s/^netmgr (\([^-)]*\).*/\1/p' "$src/debian/changelog")" = "$version" ] ||
    fail "debian/changelog is not at $version"
grep -qx "NETMGR_VERSION = $version" "$src/packaging/buildroot/netmgr/netmgr.mk" ||
    fail "the Buildroot package is not at $version"
grep -q "^PV = \"$version+git" "$src/packaging/yocto/netmgr_git.bb" || fail "the Yocto recipe is not at $version"
grep -q "md5=$(md5sum "$src/LICENSE" | cut -d' ' -f1)" "$src/packaging/yocto/netmgr_git.bb" ||
    fail "the Yocto recipe's licence checksum is not LICENSE's"

cmake -S "$examples" -B "$work/cmake-build" -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build "$work/cmake-build" >/dev/null
[ -x "$work/cmake-build/netmgr-example" ] || fail "find_package build failed"

PKG_CONFIG_PATH=$prefix/lib/pkgconfig g++ -std=c++17 "$examples/example.cc" -o "$work/example-pc" \
    $(PKG_CONFIG_PATH=$prefix/lib/pkgconfig pkg-config --cflags --libs netmgr)
[ -x "$work/example-pc" ] || fail "pkg-config build failed"

# The shipped bus policy must load: dbus-daemon refuses a broken file.
cat >"$work/bus.conf" <<CONF
<busconfig>
  <type>system</type>
  <listen>unix:path=$work/bus_socket</listen>
  <auth>EXTERNAL</auth>
  <policy context="default"><allow send_destination="*"/><allow own="*"/></policy>
  <include>$prefix/share/dbus-1/system.d/netmgr.conf</include>
</busconfig>
CONF
dbus-daemon --config-file="$work/bus.conf" --fork --print-pid=3 3>"$work/bus.pid" >"$work/bus.out" 2>&1 ||
    { cat "$work/bus.out"; fail "dbus-daemon rejects the installed policy"; }
kill "$(cat "$work/bus.pid")"

# --- 2. /usr with a multiarch libdir, staged ------------------------------------
cmake -S "$src" -B "$work/usr-build" -G Ninja -DCMAKE_BUILD_TYPE=Release \
    -DCMAKE_INSTALL_PREFIX=/usr -DCMAKE_INSTALL_LIBDIR="lib/$arch" -DBUILD_TESTING=OFF \
    -DNETMGR_BUILD_SIM=OFF -DNETMGR_BUILD_NETMGRCTL=OFF -DNETMGR_BENCH=OFF >/dev/null
cmake --build "$work/usr-build" >/dev/null
root=$work/root
DESTDIR=$root cmake --install "$work/usr-build" >/dev/null

libdir=$root/usr/lib/$arch
[ -f "$libdir/libnetmgr.so.$version" ] || fail "library not in $libdir"
[ -f "$root/usr/include/netmgr/netmgr.h" ] || fail "header not in /usr/include/netmgr"
[ -f "$libdir/cmake/netmgr/netmgrConfig.cmake" ] || fail "CMake package not in $libdir/cmake"
pc=$libdir/pkgconfig/netmgr.pc
grep -qx "prefix=/usr" "$pc" || { cat "$pc"; fail ".pc does not name /usr"; }

cflags=$(PKG_CONFIG_SYSROOT_DIR=$root PKG_CONFIG_LIBDIR=$libdir/pkgconfig pkg-config --cflags netmgr)
libs=$(PKG_CONFIG_SYSROOT_DIR=$root PKG_CONFIG_LIBDIR=$libdir/pkgconfig pkg-config --libs netmgr)
cflags=${cflags%" "}
libs=${libs%" "}
[ "$cflags" = "-I$root/usr/include" ] || fail "pkg-config --cflags gives '$cflags'"
[ "$libs" = "-L$libdir -lnetmgr" ] || fail "pkg-config --libs gives '$libs'"
# shellcheck disable=SC2086
g++ -std=c++17 "$examples/example.cc" -o "$work/example-sysroot" $cflags $libs
[ -x "$work/example-sysroot" ] || fail "pkg-config build against the staged tree failed"

cmake -S "$examples" -B "$work/cmake-sysroot" -DCMAKE_FIND_ROOT_PATH="$root" \
    -DCMAKE_PREFIX_PATH=/usr -DCMAKE_FIND_ROOT_PATH_MODE_PACKAGE=ONLY >/dev/null
found=$(sed -n 's/^netmgr_DIR:PATH=//p' "$work/cmake-sysroot/CMakeCache.txt")
[ "$found" = "$libdir/cmake/netmgr" ] || fail "find_package used '$found'"
cmake --build "$work/cmake-sysroot" >/dev/null
[ -x "$work/cmake-sysroot/netmgr-example" ] || fail "find_package build against the staged tree failed"
echo "installed package builds with find_package and pkg-config, scratch prefix and staged /usr"
