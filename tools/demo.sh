#!/usr/bin/env bash
# A short narrated session with netmgrctl on private D-Bus buses.
#
#   tools/demo.sh BUILD_DIR          against the ConnMan simulator
#   tools/demo.sh BUILD_DIR --real   Ethernet, then Wi-Fi, against the real
#                                    ConnMan daemon in network namespaces (needs
#                                    root); the wpa_supplicant stand-in is the radio
#
# Everything it starts runs from a temporary directory and is stopped by its
# process id, and that directory is removed, however the demo ends.
set -euo pipefail

usage() {
  echo "usage: tools/demo.sh BUILD_DIR [--real]" >&2
  exit 2
}
[ $# -ge 1 ] && [ $# -le 2 ] || usage
BUILD=$(cd "$1" && pwd) || usage
REAL=false
if [ $# -eq 2 ]; then
  [ "$2" = "--real" ] || usage
  REAL=true
fi
ROOT=$(cd "$(dirname "$0")/.." && pwd)
NETMGRCTL=$BUILD/tools/netmgrctl/netmgrctl
SIM=$BUILD/tools/connman-sim/connman-sim
WPA_SIM=$BUILD/tools/wpa-sim/wpa-sim
for program in "$NETMGRCTL" "$SIM" "$WPA_SIM"; do
  [ -x "$program" ] || { echo "demo: $program is missing; build first" >&2; exit 1; }
done

WORK=$(mktemp -d /tmp/netmgr-demo-XXXXXX)
PIDS=()            # started processes, stopped newest first
NETNS=()           # namespaces made for --real
MADE_DIRS=()       # mount points made on the host for --real, removed if empty

stop_pid() {
  local pid=$1 i
  kill -TERM "$pid" 2>/dev/null || return 0
  for i in $(seq 50); do
    kill -0 "$pid" 2>/dev/null || break
    sleep 0.1
  done
  kill -KILL "$pid" 2>/dev/null || true
  wait "$pid" 2>/dev/null || true
}

cleanup() {
  local status=$? i
  # A second signal (Ctrl-C twice, or timeout(1) signalling both this shell
  # and its process group) must not cut the cleanup short.
  trap '' INT TERM HUP
  trap - EXIT
  for i in $(printf '%s\n' "${!PIDS[@]}" | sort -rn); do
    stop_pid "${PIDS[i]}"
  done
  for ns in "${NETNS[@]}"; do
    ip netns del "$ns" 2>/dev/null || true
    rm -rf "/etc/netns/$ns"
  done
  [ ${#NETNS[@]} -eq 0 ] || rmdir /etc/netns 2>/dev/null || true
  for dir in "${MADE_DIRS[@]}"; do
    rmdir "$dir" 2>/dev/null || true
  done
  rm -rf "$WORK"
  exit "$status"
}
trap cleanup EXIT
trap 'exit 130' INT
trap 'exit 143' TERM
trap 'exit 129' HUP

heading() {
  if [ -t 1 ]; then
    printf '\n\033[1m%s\033[0m\n' "$*"
  else
    printf '\n%s\n' "$*"
  fi
}

fail() {
  echo "demo: $*" >&2
  exit 1
}

# Polls cond (a shell command) every 0.1 s until it holds or seconds pass.
wait_until() {
  local seconds=$1 i
  shift
  for i in $(seq $((seconds * 10))); do
    if "$@"; then return 0; fi
    sleep 0.1
  done
  "$@"
}

# A dbus-daemon of the given kind (system or session) that lets everyone own,
# send and receive; prints nothing, sets BUS_ADDRESS.
start_bus() {
  local kind=$1 dir=$WORK/$1-bus
  mkdir "$dir"
  cat >"$dir/bus.conf" <<EOF
<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <type>$kind</type>
  <listen>unix:path=$dir/bus_socket</listen>
  <auth>EXTERNAL</auth>
  <policy context="default">
    <allow user="*"/>
    <allow own="*"/>
    <allow send_type="method_call"/>
    <allow send_type="signal"/>
    <allow send_type="method_return"/>
    <allow send_type="error"/>
    <allow receive_type="method_call"/>
    <allow receive_type="signal"/>
    <allow receive_type="method_return"/>
    <allow receive_type="error"/>
  </policy>
</busconfig>
EOF
  dbus-daemon --config-file="$dir/bus.conf" --nofork --nopidfile --print-address=3 \
    3>"$dir/address" </dev/null >"$dir/log" 2>&1 &
  PIDS+=($!)
  wait_until 10 test -s "$dir/address" || fail "the $kind bus did not start: $(cat "$dir/log")"
  BUS_ADDRESS=$(head -n1 "$dir/address")
}

# The library runs device commands through $NETMGR_SHELL -c COMMAND. Off the
# device they are only shown, on the descriptor netmgrctl's session shares
# with the demo's output (fd 9), because netmgrctl keeps the library's own
# standard output quiet.
make_device_shell() {
  cat >"$WORK/device-shell" <<'EOF'
#!/bin/sh
# Shows the device command instead of running it.
[ "$1" = "-c" ] && shift
if { true >&9; } 2>/dev/null; then
  echo "[device command] $*" >&9
else
  echo "[device command] $*"
fi
EOF
  chmod +x "$WORK/device-shell"
}

# Runs a netmgrctl script in one library instance. It runs in the
# background so that a signal to this shell is handled at once (bash defers
# traps while a foreground child runs); cleanup stops it then.
run_session() {
  local pid status=0
  "$NETMGRCTL" --timeout 20 script "$1" 9>&1 &
  pid=$!
  PIDS+=("$pid")
  wait "$pid" || status=$?
  PIDS=("${PIDS[@]:0:${#PIDS[@]}-1}")
  return "$status"
}

# run_session_with_logs SESSION LEASES [NAME LOG]...: run_session; on failure
# the last lines of each daemon's log, else the leases dnsmasq gave.
run_session_with_logs() {
  local session=$1 leases=$2 rc=0
  shift 2
  run_session "$session" || rc=$?
  if [ "$rc" -ne 0 ]; then
    while [ $# -ge 2 ]; do
      echo "--- $1 log (last lines) ---" >&2
      tail -n 20 "$2" >&2
      shift 2
    done
    return "$rc"
  fi
  echo
  echo "DHCP leases given by dnsmasq:"
  sed 's/^/  /' "$leases"
}

demo_simulator() {
  local fifo=$WORK/sim-control
  "$SIM" --address "$DBUS_SYSTEM_BUS_ADDRESS" --control "$fifo" \
    --scenario "$ROOT/tools/connman-sim/sample-scenario.json" </dev/null >"$WORK/sim.log" 2>&1 &
  PIDS+=($!)
  wait_until 10 grep -q "running on" "$WORK/sim.log" ||
    fail "the ConnMan simulator did not start: $(cat "$WORK/sim.log")"

  heading "netmgr demo: the library against the ConnMan simulator"
  echo "The simulator plays ConnMan on a private system bus: Wi-Fi with five networks"
  echo "(\"Home\" is protected by the passphrase \"correct horse\"), and an Ethernet port"
  echo "whose cable is not plugged in. netmgrctl runs the session below in one library"
  echo "instance; lines starting with '>' are its commands, lines with a time are the"
  echo "library's events as they arrive. The library re-applies the Wi-Fi country code"
  echo "whenever it refreshes its network list: \"[device command]\" shows the command"
  echo "it would run on the device."

  cat >"$WORK/session.nmc" <<EOF
echo
echo "== 1. Start: ConnMan reports its technologies (events 0 and 2: powered)"
status

echo
echo "== 2. Make Wi-Fi the network type, scan and list the networks"
wifi on
wifi list

echo
echo "== 3. Connect to the protected network \"Home\": the library raises event 10"
echo "==    (passphrase required) and the session answers it"
wifi connect Home
< correct horse

echo
echo "== 4. Status with the connection's addresses"
status

echo
echo "== 5. Plug the cable: Ethernet takes over (event 4) and Wi-Fi is switched off (event 3)"
! echo "carrier ethernet_020000000002_cable up" > '$fifo'
wait-event NETMGR_EVT_WIFI_DISABLED
wait-event NETMGR_EVT_ETHERNET_CONNECTED
status

echo
echo "== 6. Pull the cable: the library switches Wi-Fi back on and returns to the last"
echo "==    Wi-Fi network, \"Home\", by itself (events 5, 2 and 7)"
! echo "carrier ethernet_020000000002_cable down" > '$fifo'
wait-event NETMGR_EVT_ETHERNET_DISCONNECTED
wait-event NETMGR_EVT_WIFI_CONNECTED
status

echo
echo "== 7. A device command: the Wi-Fi country code goes to the driver"
country DE
EOF
  run_session "$WORK/session.nmc"
}

# ---- --real: the Ethernet part against connmand in network namespaces ----

CONNMAND_EXCLUDED_BUT_WIFI=bluetooth,ofono,vpn,neard,dundee,iwd,pacrunner,nmcompat,session_policy_local,loopback,hostname,tist,polkit,wispr,ntp
CONNMAND_EXCLUDED=wifi,$CONNMAND_EXCLUDED_BUT_WIFI

# connmand from Debian's connman package, unpacked (never installed: that
# would start the daemon on the host and let it take over its network).
find_connmand() {
  local root
  root=$(cd "$(dirname "$0")/.." && pwd)
  local peer=$root/.cache/connman-peer
  CONNMAND=$peer/root/usr/sbin/connmand
  if [ ! -x "$CONNMAND" ]; then
    echo "Unpacking connmand from Debian's connman package (not installing it)..."
    sh "$root/tests/real-connman/fetch_connmand.sh" "$peer" 2>/dev/null
    [ -x "$CONNMAND" ] || fail "connmand could not be unpacked: $(cat "$peer/fetch.log")"
  fi
}

check_real_machine() {
  [ "$(id -u)" -eq 0 ] || fail "--real needs root: it creates network namespaces"
  local tool
  for tool in ip dnsmasq ethtool unshare mount dbus-send; do
    command -v "$tool" >/dev/null || fail "--real needs $tool"
  done
}

# True once the daemon on the private system bus lists this technology path.
connman_lists() {
  dbus-send --system --print-reply --dest=net.connman / net.connman.Manager.GetTechnologies \
    2>/dev/null | grep -q "object path \"$1\""
}

make_mount_point() {
  if [ ! -d "$1" ]; then
    mkdir -p "$1"
    MADE_DIRS+=("$1")
  fi
}

demo_real() {
  check_real_machine
  find_connmand
  local tag=$$ a b
  a=netmgr-demo-a-$tag
  b=netmgr-demo-b-$tag

  heading "netmgr demo: Ethernet against the real ConnMan daemon"
  echo "connmand $("$CONNMAND" --version) (Debian's, unpacked) manages one end of a veth"
  echo "pair in network namespace $a; dnsmasq serves DHCP"
  echo "(192.0.2.50-99) on the other end, in $b. Only the private"
  echo "system bus's socket connects the daemon to this session. Lines starting with"
  echo "'>' are netmgrctl's commands, lines with a time the library's events, and"
  echo "\"[device command]\" a command the library would run on the device."

  # Registered before they exist, so that a failure half-way is cleaned too.
  NETNS+=("$a" "$b")
  ip netns add "$a"
  ip netns add "$b"
  # Both ends are made inside their namespaces, so the names never meet
  # another run's.
  ip link add name vA netns "$a" type veth peer name vB netns "$b"
  ip -n "$b" addr add 192.0.2.1/24 dev vB
  ip -n "$b" link set vB up
  ip -n "$a" link set lo up
  ip -n "$b" link set lo up
  # Without this the DHCP offers cross the veth with partial checksums and
  # ConnMan's raw-socket DHCP client drops them.
  ip netns exec "$b" ethtool -K vB tx off >/dev/null
  ip netns exec "$a" ethtool -K vA tx off >/dev/null

  ip netns exec "$b" dnsmasq --keep-in-foreground --user=root --no-resolv --port=0 \
    --interface=vB --bind-interfaces \
    --dhcp-range=192.0.2.50,192.0.2.99,255.255.255.0,1h \
    --dhcp-option=6,192.0.2.53,192.0.2.54 \
    --dhcp-leasefile="$WORK/leases" --pid-file="$WORK/dnsmasq.pid" \
    --log-dhcp --log-facility="$WORK/dnsmasq.log" </dev/null >"$WORK/dnsmasq.out" 2>&1 &
  PIDS+=($!)
  local dnsmasq_pid=$!
  wait_until 10 grep -q "DHCP, sockets bound" "$WORK/dnsmasq.log" 2>/dev/null ||
    fail "dnsmasq did not start: $(cat "$WORK/dnsmasq.out" "$WORK/dnsmasq.log" 2>/dev/null)"

  # ip netns exec binds this over /etc/resolv.conf, so the daemon's resolver
  # writes stay here; its saved state and run files go to the work directory.
  mkdir -p "/etc/netns/$a"
  : >"/etc/netns/$a/resolv.conf"
  make_mount_point /var/lib/connman
  make_mount_point /run/connman
  mkdir "$WORK/varlib-connman" "$WORK/run-connman"
  cat >"$WORK/main.conf" <<'EOF'
[General]
EnableOnlineCheck=false
AllowHostnameUpdates=false
AllowDomainnameUpdates=false
PreferredTechnologies=ethernet,wifi
SingleConnectedTechnology=false
EOF
  ip netns exec "$a" unshare -m --propagation private sh -c '
    mount --bind "$1" /var/lib/connman && mount --bind "$2" /run/connman &&
    exec "$3" -n -r -c "$4" -i vA -P "$5"' connmand-demo \
    "$WORK/varlib-connman" "$WORK/run-connman" "$CONNMAND" "$WORK/main.conf" \
    "$CONNMAND_EXCLUDED" </dev/null >"$WORK/connmand.log" 2>&1 &
  PIDS+=($!)
  local connmand_pid=$!
  # netmgrctl gives up at once when the daemon is not on the bus yet.
  wait_until 10 connman_lists /net/connman/technology/ethernet ||
    fail "connmand did not start: $(tail -n 20 "$WORK/connmand.log")"

  cat >"$WORK/session.nmc" <<EOF
echo
echo "== 1. Ethernet becomes the network type; ConnMan has it powered (event 0)"
ethernet on

echo
echo "== 2. ConnMan gets a DHCP lease from dnsmasq; the library announces the"
echo "==    connection once the addresses are complete (event 4)"
wait-event NETMGR_EVT_ETHERNET_CONNECTED 40
status
ipv4 get

echo
echo "== 3. Pull the cable at the far end: the connection is lost (event 5)"
! ip -n $b link set vB down
wait-event NETMGR_EVT_ETHERNET_DISCONNECTED 20
status

echo
echo "== 4. Plug it back in: a new lease and a new announcement (event 4)"
! ip -n $b link set vB up
wait-event NETMGR_EVT_ETHERNET_CONNECTED 40
status
EOF
  run_session_with_logs "$WORK/session.nmc" "$WORK/leases" \
    connmand "$WORK/connmand.log" dnsmasq "$WORK/dnsmasq.log" || return

  # The Wi-Fi part gets a daemon, a link and a DHCP server of its own.
  stop_pid "$connmand_pid"
  stop_pid "$dnsmasq_pid"
  ip -n "$a" link del vA
  demo_real_wifi "$a" "$b"
}

# Wi-Fi against the real daemon: wlan0 is a veth end whose uevent (in the
# daemon's mount namespace only) says it is wireless, and wpa-sim answers the
# daemon as wpa_supplicant would, over two made-up access points.
demo_real_wifi() {
  local a=$1 b=$2 fifo=$WORK/wpa-control

  heading "netmgr demo: Wi-Fi against the real ConnMan daemon"
  echo "A second connmand in $a manages wlan0, one end of a new veth pair. The"
  echo "kernel has no radio here, so wpa-sim plays wpa_supplicant on the private"
  echo "system bus with two access points: \"netmgr-home\" (WPA2, passphrase"
  echo "\"correct horse\") and the open \"netmgr-cafe\". dnsmasq on the far end (wB)"
  echo "hands out 192.0.2.50-99 once the daemon has associated."

  ip link add name wlan0 netns "$a" type veth peer name wB netns "$b"
  ip -n "$b" addr add 192.0.2.1/24 dev wB
  ip -n "$b" link set wB up
  ip netns exec "$b" ethtool -K wB tx off >/dev/null
  ip netns exec "$a" ethtool -K wlan0 tx off >/dev/null
  ip netns exec "$b" dnsmasq --keep-in-foreground --user=root --no-resolv --port=0 \
    --interface=wB --bind-interfaces \
    --dhcp-range=192.0.2.50,192.0.2.99,255.255.255.0,1h \
    --dhcp-option=6,192.0.2.53,192.0.2.54 \
    --dhcp-leasefile="$WORK/wifi-leases" --pid-file="$WORK/wifi-dnsmasq.pid" \
    --log-dhcp --log-facility="$WORK/wifi-dnsmasq.log" </dev/null >"$WORK/wifi-dnsmasq.out" 2>&1 &
  PIDS+=($!)
  wait_until 10 grep -q "DHCP, sockets bound" "$WORK/wifi-dnsmasq.log" 2>/dev/null ||
    fail "dnsmasq did not start: $(cat "$WORK/wifi-dnsmasq.out" "$WORK/wifi-dnsmasq.log" 2>/dev/null)"

  cat >"$WORK/access-points.json" <<'JSON'
{"access_points": [
  {"ssid": "netmgr-home", "bssid": "02:00:00:00:01:01", "security": "psk",
   "passphrase": "correct horse", "signal": -45, "frequency": 2412},
  {"ssid": "netmgr-cafe", "bssid": "02:00:00:00:01:02", "security": "none",
   "signal": -70, "frequency": 2437}
]}
JSON
  "$WPA_SIM" --address "$DBUS_SYSTEM_BUS_ADDRESS" --scenario "$WORK/access-points.json" \
    --control "$fifo" </dev/null >"$WORK/wpa-sim.log" 2>&1 &
  PIDS+=($!)
  # The FIFO is made once the stand-in owns its bus name.
  wait_until 10 test -p "$fifo" || fail "wpa-sim did not start: $(cat "$WORK/wpa-sim.log")"

  mkdir "$WORK/varlib-connman-wifi" "$WORK/run-connman-wifi"
  ip netns exec "$a" unshare -m --propagation private sh -c '
    mount --bind "$1" /var/lib/connman && mount --bind "$2" /run/connman &&
    printf "DEVTYPE=wlan\nINTERFACE=wlan0\nIFINDEX=%s\n" "$(cat /sys/class/net/wlan0/ifindex)" >"$6" &&
    mount --bind "$6" /sys/class/net/wlan0/uevent &&
    exec "$3" -n -r -c "$4" -i wlan0 -P "$5"' connmand-demo \
    "$WORK/varlib-connman-wifi" "$WORK/run-connman-wifi" "$CONNMAND" "$WORK/main.conf" \
    "$CONNMAND_EXCLUDED_BUT_WIFI" "$WORK/wlan0-uevent" </dev/null >"$WORK/connmand-wifi.log" 2>&1 &
  PIDS+=($!)
  # The wifi technology appears once the daemon has met the stand-in.
  wait_until 10 connman_lists /net/connman/technology/wifi ||
    fail "connmand did not bring up Wi-Fi: $(tail -n 20 "$WORK/connmand-wifi.log")"

  cat >"$WORK/wifi-session.nmc" <<NMC
echo
echo "== 5. Wi-Fi becomes the network type (event 2); the daemon scans through"
echo "==    wpa-sim and the library lists what it found"
wifi on
wifi list

echo
echo "== 6. Connect to \"netmgr-home\": the daemon asks the library's agent for the"
echo "==    passphrase (event 10), the session answers, wpa-sim runs the handshake"
echo "==    and dnsmasq gives a lease (event 7)"
wifi connect netmgr-home
< correct horse
status

echo
echo "== 7. The access point's signal drops to -67 dBm (a line to wpa-sim's control"
echo "==    FIFO): the daemon reports Strength 120 + dBm = 53 (event 19)"
! echo "signal 02:00:00:00:01:01 -67" > '$fifo'
wait-event NETMGR_EVT_WIFI_STRENGTH_CHANGED 20
status
NMC
  run_session_with_logs "$WORK/wifi-session.nmc" "$WORK/wifi-leases" \
    connmand "$WORK/connmand-wifi.log" wpa-sim "$WORK/wpa-sim.log"
}

start_bus system
export DBUS_SYSTEM_BUS_ADDRESS=$BUS_ADDRESS
start_bus session
export DBUS_SESSION_BUS_ADDRESS=$BUS_ADDRESS
export NETMGR_STORE=$WORK/settings.json
make_device_shell
export NETMGR_SHELL=$WORK/device-shell

if $REAL; then
  demo_real
else
  demo_simulator
fi
heading "Demo finished."
