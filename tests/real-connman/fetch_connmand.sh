#!/bin/sh
# fetch_connmand.sh DIR: unpacks connmand from Debian's connman package into
# DIR/root without installing it (installing would start the daemon on the
# host). Run by ./run test before it configures, never by the build. The
# output goes to DIR/fetch.log, which the tests quote when they skip.
out=$1
bin=$out/root/usr/sbin/connmand
[ -x "$bin" ] && exit 0
mkdir -p "$out"
tmp=$(mktemp -d) || exit 1
{
    # A machine whose package lists were never fetched knows no connman.
    (cd "$tmp" && apt-get download connman) ||
        { [ "$(id -u)" -eq 0 ] && apt-get update -qq && (cd "$tmp" && apt-get download connman); } &&
        dpkg -x "$tmp"/connman_*.deb "$out/root"
} >"$out/fetch.log" 2>&1
rc=$?
rm -rf "$tmp"
[ $rc -eq 0 ] || echo "connmand could not be unpacked (see $out/fetch.log); the real-daemon tests will skip" >&2
exit 0
