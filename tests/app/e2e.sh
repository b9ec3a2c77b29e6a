#!/usr/bin/env bash
# End to end through real network namespaces: two namespaces joined by
# `ethbrg bridge --tap ... --peer-tap ...`; ping both ways without loss, iperf3
# TCP both directions, a UDP flood of small frames; the usbmon capture of the
# run passes `ethbrg check`; SIGTERM ends the bridge with an empty ledger.
# Exits 77 (skipped) where TAP devices or namespaces are not available.
set -uo pipefail
ethbrg="$1"
work="${2:-$(mktemp -d)}"
mkdir -p "$work"
skip() { echo "SKIPPED: $*"; exit 77; }
[ "$(id -u)" -eq 0 ] || skip "needs root (TAP interfaces and network namespaces)"
[ -c /dev/net/tun ] || skip "no /dev/net/tun"
for tool in ip ping iperf3; do command -v "$tool" >/dev/null || skip "$tool is not installed"; done
tag="eb$$"
ns1="${tag}a" ns2="${tag}b" tap1="${tag}h" tap2="${tag}p"
ip netns add "$ns1" 2>/dev/null || skip "cannot create network namespaces"
ip netns add "$ns2"
pid=""
cleanup() {
  [ -n "$pid" ] && kill "$pid" 2>/dev/null
  ip netns del "$ns1" 2>/dev/null
  ip netns del "$ns2" 2>/dev/null
  rm -f "$work/e2e-usb.pcap"
}
trap cleanup EXIT
fail() { echo "FAILED: $*"; echo "--- bridge output:"; cat "$work/e2e-bridge.out"; exit 1; }

"$ethbrg" bridge --tap "$tap1" --peer-tap "$tap2" --usb-capture "$work/e2e-usb.pcap" >"$work/e2e-bridge.out" 2>&1 &
pid=$!
for _ in $(seq 100); do grep -q "bridge up" "$work/e2e-bridge.out" && break; sleep 0.05; done
grep -q "bridge up" "$work/e2e-bridge.out" || fail "the bridge did not come up"
ip link set "$tap1" netns "$ns1" && ip link set "$tap2" netns "$ns2" || fail "cannot move the TAPs"
ip -n "$ns1" addr add 10.77.0.1/24 dev "$tap1" && ip -n "$ns1" link set "$tap1" up && ip -n "$ns1" link set lo up
ip -n "$ns2" addr add 10.77.0.2/24 dev "$tap2" && ip -n "$ns2" link set "$tap2" up && ip -n "$ns2" link set lo up
in1() { ip netns exec "$ns1" "$@"; }
in2() { ip netns exec "$ns2" "$@"; }

in1 ping -c 5 -i 0.05 -W 2 10.77.0.2 >"$work/e2e-ping1.out" || fail "ping 1 -> 2: $(tail -2 "$work/e2e-ping1.out")"
in2 ping -c 5 -i 0.05 -W 2 10.77.0.1 >"$work/e2e-ping2.out" || fail "ping 2 -> 1: $(tail -2 "$work/e2e-ping2.out")"
grep -q " 0% packet loss" "$work/e2e-ping1.out" && grep -q " 0% packet loss" "$work/e2e-ping2.out" || fail "ping lost packets"
echo "ping both ways: no loss"

in2 iperf3 -s -D -1 -p 5201 >/dev/null && sleep 0.3
in1 iperf3 -c 10.77.0.2 -p 5201 -t 2 -b 100M >"$work/e2e-tcp1.out" || fail "iperf3 TCP 1 -> 2: $(tail -3 "$work/e2e-tcp1.out")"
in2 iperf3 -s -D -1 -p 5202 >/dev/null && sleep 0.3
in1 iperf3 -c 10.77.0.2 -p 5202 -t 2 -b 100M -R >"$work/e2e-tcp2.out" || fail "iperf3 TCP 2 -> 1: $(tail -3 "$work/e2e-tcp2.out")"
echo "TCP 1 -> 2: $(grep receiver "$work/e2e-tcp1.out" | awk '{print $7, $8}'); 2 -> 1: $(grep receiver "$work/e2e-tcp2.out" | awk '{print $7, $8}')"
in2 iperf3 -s -D -1 -p 5203 >/dev/null && sleep 0.3
in1 iperf3 -c 10.77.0.2 -p 5203 -u -l 18 -b 20M -t 2 >"$work/e2e-udp.out" || fail "iperf3 UDP flood: $(tail -3 "$work/e2e-udp.out")"
echo "UDP flood of 64-byte frames: $(grep receiver "$work/e2e-udp.out" | awk '{print $(NF-2), $(NF-1), $NF}')"

kill -TERM "$pid"
wait "$pid"
rc=$?
pid=""
cat "$work/e2e-bridge.out"
[ "$rc" -eq 0 ] || fail "the bridge exited with $rc"
grep -q "ledger after unload: empty" "$work/e2e-bridge.out" || fail "pool blocks left after unload"
grep -q "0 packets outstanding" "$work/e2e-bridge.out" || fail "packets outstanding at halt"
"$ethbrg" check --quiet "$work/e2e-usb.pcap" >"$work/e2e-check.out" 2>&1 || { cat "$work/e2e-check.out"; fail "the capture has violations"; }
tail -4 "$work/e2e-check.out"
echo "PASSED"
