#!/usr/bin/env bash
# check_no_fetch.sh SOURCE_DIR
# A build with the default options never reaches for packages or the network
# and never runs a program it built (a cross build could not). It configures
# the tree with tools such as apt-get replaced by shims that record any call,
# then runs the whole build graph with a compiler and linker stand-in that
# only writes empty outputs, so every custom step runs in seconds.
set -euo pipefail
src=$1
work=$(mktemp -d /tmp/netmgr-nofetch-XXXXXX)
trap 'rm -rf "$work"' EXIT
fail() {
    echo "FAIL: $*"
    exit 1
}

mkdir -p "$work/shims"
for tool in apt-get apt apt-cache aptitude dpkg sudo wget curl; do
    cat >"$work/shims/$tool" <<SHIM
#!/bin/sh
echo "$tool \$*" >>"$work/calls.log"
exit 1
SHIM
    chmod +x "$work/shims/$tool"
done

# Writes the output (-o) and the dependency file (-MF) a compiler or linker
# would write, empty.
cat >"$work/fake-tool" <<'FAKE'
#!/bin/sh
shift
while [ $# -gt 0 ]; do
    case $1 in
        -o) : >"$2"; shift ;;
        -MF) printf 'x:\n' >"$2"; shift ;;
    esac
    shift
done
FAKE
chmod +x "$work/fake-tool"

export PATH=$work/shims:$PATH
cmake -S "$src" -B "$work/build" -G Ninja \
    -DCMAKE_C_COMPILER_LAUNCHER="$work/fake-tool" -DCMAKE_CXX_COMPILER_LAUNCHER="$work/fake-tool" \
    -DCMAKE_C_LINKER_LAUNCHER="$work/fake-tool" -DCMAKE_CXX_LINKER_LAUNCHER="$work/fake-tool" \
    >"$work/configure.log" 2>&1 || { cat "$work/configure.log"; fail "configure failed"; }
cmake --build "$work/build" >"$work/build.log" 2>&1 || { tail -n 30 "$work/build.log"; fail "the build graph failed"; }
[ -e "$work/build/libnetmgr.so.1" ] || fail "the build graph did not run"
grep -q "real_connman_test" "$work/build/build.ninja" || fail "the real-daemon tests were not configured"
if [ -s "$work/calls.log" ]; then
    cat "$work/calls.log"
    fail "the build ran package or network tools"
fi
echo "default build: no package tools, no network, no built program run"
