#!/usr/bin/env bash
# Real traffic between two network namespaces, through
#   bare:   `ethbrg forward` (the TAP/io_uring code alone, no driver), and
#   bridge: `ethbrg bridge` (driver, NTBs and the simulated device),
# each with one iperf3 TCP stream and with a flood of 64-byte UDP frames.
# Runs ROUNDS rounds, bare and bridge taking turns, so that a slow spell of
# the machine falls on both; prints every round, the median of each and the
# ratio of the medians bridge/bare. Needs root.
#   bench/e2e.sh [path/to/ethbrg] [seconds] [rounds]
set -euo pipefail
ethbrg="${1:-build/default/apps/ethbrg}"
seconds="${2:-5}"
rounds="${3:-3}"
[ "$(id -u)" -eq 0 ] || { echo "bench/e2e.sh needs root (TAP interfaces, namespaces)"; exit 1; }
ns1=ebbench1 ns2=ebbench2 t1=ebb1 t2=ebb2
pid=""
cleanup() {
  if [ -n "$pid" ]; then kill "$pid" 2>/dev/null || true; wait "$pid" 2>/dev/null || true; pid=""; fi
  ip netns del $ns1 2>/dev/null || true
  ip netns del $ns2 2>/dev/null || true
}
trap cleanup EXIT

run() {  # run MODE: prints "tcp_gbit udp_fps"
  cleanup
  ip netns add $ns1 && ip netns add $ns2
  "$ethbrg" "$1" --tap $t1 --peer-tap $t2 >/tmp/ebbench-$1.out 2>&1 &
  pid=$!
  for _ in $(seq 100); do grep -q " up" /tmp/ebbench-$1.out && break; sleep 0.05; done
  ip link set $t1 netns $ns1 && ip link set $t2 netns $ns2
  ip -n $ns1 addr add 10.78.0.1/24 dev $t1 && ip -n $ns1 link set $t1 up
  ip -n $ns2 addr add 10.78.0.2/24 dev $t2 && ip -n $ns2 link set $t2 up
  ip netns exec $ns1 ping -c 2 -i 0.1 -W 2 10.78.0.2 >/dev/null
  ip netns exec $ns2 iperf3 -s -D -1 -p 5301 >/dev/null; sleep 0.3
  tcp=$(ip netns exec $ns1 iperf3 -c 10.78.0.2 -p 5301 -t "$seconds" -J | python3 -c 'import json,sys; print("%.3f" % (json.load(sys.stdin)["end"]["sum_received"]["bits_per_second"]/1e9))')
  ip netns exec $ns2 iperf3 -s -D -1 -p 5302 >/dev/null; sleep 0.3
  udp=$(ip netns exec $ns1 iperf3 -c 10.78.0.2 -p 5302 -u -l 18 -b 0 -t "$seconds" -J | python3 -c '
import json,sys
e=json.load(sys.stdin)["end"]["sum"]
print("%.0f" % ((e["packets"]-e["lost_packets"])/e["seconds"]))')
  kill "$pid"; wait "$pid" || true; pid=""
  echo "$tcp $udp"
}

results=()
for round in $(seq "$rounds"); do
  read -r bare_tcp bare_udp < <(run forward)
  read -r br_tcp br_udp < <(run bridge)
  echo "round $round: bare $bare_tcp Gbit/s $bare_udp frames/s, bridge $br_tcp Gbit/s $br_udp frames/s"
  results+=("$bare_tcp $bare_udp $br_tcp $br_udp")
done
python3 - "${results[@]}" <<'PY'
import statistics, sys
rows = [list(map(float, r.split())) for r in sys.argv[1:]]
bt, bu, rt, ru = (statistics.median(col) for col in zip(*rows))
print(f"median of {len(rows)} rounds")
print(f"{'':8} {'TCP Gbit/s':>11} {'UDP 64 B frames/s':>18}")
print(f"{'bare':8} {bt:11.3f} {bu:18.0f}")
print(f"{'bridge':8} {rt:11.3f} {ru:18.0f}")
print(f"{'ratio':8} {rt/bt:11.2f} {ru/bu:18.2f}   (target >= 0.9)")
PY
