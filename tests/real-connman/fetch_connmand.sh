#!/bin/sh
# Unpacks connmand from Debian's connman package into $1/root without
# installing it: installing would start the daemon on the host. A failure is
# written to $1/fetch.log and leaves the binary absent; the tests then skip
# and quote the log.
out=$1
bin=$out/root/usr/sbin/connmand
[ -x "$bin" ] && exit 0
mkdir -p "$out"
tmp=$(mktemp -d) || exit 0
{
    # A machine whose package lists were never fetched knows no connman.
    (cd "$tmp" && apt-get download connman) ||
        { [ "$(id -u)" -eq 0 ] && apt-get update -qq && (cd "$tmp" && apt-get download connman); } &&
        dpkg -x "$tmp"/connman_*.deb "$out/root"
} >"$out/fetch.log" 2>&1
rm -rf "$tmp"
exit 0
