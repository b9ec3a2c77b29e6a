#!/bin/busybox sh
# The init of the real-device test's VM. The gadget side: dummy_hcd's device
# controller with an NCM function (configfs), its network interface usb0 at
# 10.77.0.1. The host side: ethbrg bridge on dummy_hcd's host controller,
# its TAP eb0 at 10.77.0.2 in a network namespace of its own (so that traffic
# between the two addresses crosses USB rather than the local route). Each
# check prints "USBVM PASS name" or "USBVM FAIL name: why" on the console;
# "USBVM END" closes the run.
/bin/busybox --install -s /bin
export PATH=/bin
mount -t proc proc /proc
mount -t sysfs sys /sys
mount -t devtmpfs dev /dev
mkdir -p /tmp && mount -t tmpfs tmp /tmp

pass() { echo "USBVM PASS $*"; }
fail() { echo "USBVM FAIL $*"; }
end() {
  echo "USBVM END"
  sync
  poweroff -f
}
# wait_for SECONDS COMMAND...: polls COMMAND every 0.1 s.
wait_for() {
  local n=$(($1 * 10))
  shift
  while [ "$n" -gt 0 ]; do
    "$@" >/dev/null 2>&1 && return 0
    usleep 100000
    n=$((n - 1))
  done
  return 1
}
in_ns() { nsenter -t "$NS" -n "$@"; }

for m in $(cat /lib/modules/order); do
  insmod "/lib/modules/$m.ko" || { fail "insmod $m"; end; }
done
mount -t configfs none /sys/kernel/config
ip link set lo up

G=/sys/kernel/config/usb_gadget/ncm
mkdir "$G"
echo 0x0525 > "$G/idVendor"
echo 0xa4a1 > "$G/idProduct"
mkdir "$G/strings/0x409"
echo ethbrg > "$G/strings/0x409/manufacturer"
echo "NCM gadget" > "$G/strings/0x409/product"
echo 0001 > "$G/strings/0x409/serialnumber"
# The gadget stays quiet until the test sends: no IPv6 (its neighbour and
# multicast messages go out the moment the host selects the data interface).
# A datagram that arrives while the adapter is still initializing is held
# until the device's next connect notification, and the gadget sends that
# only once, so such a message would stop the receive path for the run.
echo 1 > /proc/sys/net/ipv6/conf/all/disable_ipv6
echo 1 > /proc/sys/net/ipv6/conf/default/disable_ipv6
mkdir "$G/functions/ncm.usb0"
echo 02:45:54:48:00:01 > "$G/functions/ncm.usb0/host_addr"
echo 02:45:54:48:00:02 > "$G/functions/ncm.usb0/dev_addr"
mkdir "$G/configs/c.1"
ln -s "$G/functions/ncm.usb0" "$G/configs/c.1/"
UDC="$(ls /sys/class/udc | head -1)"
echo "$UDC" > "$G/UDC"
wait_for 10 test -e /dev/bus/usb/001/002 || { fail "enumeration: no device on dummy_hcd's host side"; end; }
wait_for 5 ip link show usb0 || { fail "no usb0"; end; }
ip addr add 10.77.0.1/24 dev usb0
ip link set usb0 up
echo "usbvm: gadget on $UDC, $(cat /sys/bus/usb/devices/1-1/speed) Mbit/s, host side $(cat /sys/bus/usb/devices/1-1/idVendor):$(cat /sys/bus/usb/devices/1-1/idProduct)"

# The adapter's view of the device, through every OID; then the errors a
# user meets: a device held by another program, and one not permitted.
out="$(ethbrg info --usb 0525:a4a1 2>&1)"
rc=$?
echo "$out" | grep -E "^device|LINK_SPEED|MEDIA_CONNECT|MAXIMUM_FRAME_SIZE |CURRENT_ADDRESS|VENDOR_DESC|ethbrg:"
if [ $rc = 0 ]; then pass "info"; else fail "info: exit status $rc"; fi
echo "nobody:x:65534:65534:nobody:/:/bin/sh" > /etc/passwd
echo "nogroup:x:65534:" > /etc/group
out="$(su -s /bin/sh nobody -c "ethbrg info --usb 0525:a4a1" 2>&1)"
if echo "$out" | grep -q "not permitted"; then pass "not permitted: $out"; else fail "not permitted: $out"; fi

unshare -n sleep 100000 &
NS=$!
usleep 100000
in_ns ip link set lo up
nsenter -t "$NS" -n ethbrg bridge --usb 0525:a4a1 --tap eb0 --wait-device --usb-capture /tmp/usb.pcap \
  --trace-mask 0x7 --trace-dump /tmp/trace.bin > /tmp/bridge.log 2>&1 &
BRIDGE=$!
if ! wait_for 15 grep -q "bridge up" /tmp/bridge.log; then
  cat /tmp/bridge.log
  fail "bridge did not come up"
  end
fi
in_ns ip addr add 10.77.0.2/24 dev eb0
in_ns ip link set eb0 up
carrier() { in_ns ip link show eb0 | grep -q LOWER_UP; }
if wait_for 10 carrier; then pass "bring-up: $(grep 'bridge up' /tmp/bridge.log)"; else fail "bring-up: no media connect"; fi
out="$(ethbrg info --usb 1:2 2>&1)"
if echo "$out" | grep -q "busy"; then pass "busy: $out"; else fail "busy: $out"; fi

# What both sides saw, for a run where traffic does not flow (a ping or a
# transfer): the interfaces, the bridge's summary, the driver's trace and
# the NTBs.
diagnose() {
  echo "usbvm: diagnosis of: $*"
  ip link show usb0
  echo "usb0: rx $(cat /sys/class/net/usb0/statistics/rx_packets) tx $(cat /sys/class/net/usb0/statistics/tx_packets) packets"
  in_ns ip link show eb0
  in_ns ip neigh
  ip neigh
  kill -TERM $BRIDGE
  wait $BRIDGE
  cat /tmp/bridge.log
  ethbrg trace decode /tmp/trace.bin | tail -150
  ethbrg check /tmp/usb.pcap 2>&1 | tail -30
  dmesg | tail -30
  end
}

# ping ARGS...: passes when every echo is answered.
ping_check() {
  local name="$1"
  shift
  local out
  out="$("$@" 2>&1)"
  if echo "$out" | grep -q " 0% packet loss"; then
    pass "$name: $(echo "$out" | grep -E 'packets transmitted|round-trip' | tr '\n' ' ')"
  else
    fail "$name: $(echo "$out" | tail -3 | tr '\n' ' ')"
    diagnose "$name"
  fi
}
ping_check "ping gadget to host" ping -c 3 -W 10 10.77.0.2
ping_check "ping host to gadget" in_ns ping -c 3 -W 10 10.77.0.1
ping_check "burst gadget to host" ping -A -q -c 1000 -s 1400 -W 10 -w 60 10.77.0.2
ping_check "burst host to gadget" in_ns ping -A -q -c 1000 -s 1400 -W 10 -w 60 10.77.0.1

# Throughput (a sanity figure: everything here is emulated): 4 MiB over TCP
# each way.
tput() {
  local name="$1" to="$2" sender="$3" receiver="$4"
  # The listener's standard input stays open: nc ends at its end of file.
  sleep 30 | $receiver nc -l -p 5001 > /tmp/rx &
  local rx=$!
  usleep 300000
  local t0 t1
  t0=$(cut -d' ' -f1 /proc/uptime)
  dd if=/dev/zero bs=65536 count=64 2>/dev/null | $sender nc "$to" 5001 &
  local tx=$!
  wait_for 20 sh -c '[ "$(wc -c < /tmp/rx)" -ge 4194304 ]'
  t1=$(cut -d' ' -f1 /proc/uptime)
  kill $rx $tx 2>/dev/null
  local got
  got=$(wc -c < /tmp/rx)
  if [ "$got" -lt 4194304 ]; then
    fail "throughput $name: $got of 4194304 bytes arrived"
    diagnose "throughput $name"
  fi
  echo "usbvm: throughput $name: $got bytes in $(echo "$t1 - $t0" | bc) s: $(echo "$got * 8 / ($t1 - $t0) / 1000000" | bc) Mbit/s"
}
tput "gadget to host" 10.77.0.2 "" "nsenter -t $NS -n"
tput "host to gadget" 10.77.0.1 "nsenter -t $NS -n" ""

# Unbinding the device controller in the middle of traffic: the adapter is
# surprise-removed with every packet completed and an empty ledger.
ping -A -q -c 100000 -W 1 10.77.0.2 > /dev/null 2>&1 &
P1=$!
in_ns ping -A -q -c 100000 -W 1 10.77.0.1 > /dev/null 2>&1 &
P2=$!
usleep 500000
echo "" > "$G/UDC"
if wait_for 10 grep -q "device removed" /tmp/bridge.log; then
  line="$(grep "device removed" /tmp/bridge.log)"
  if echo "$line" | grep -q "0 packets outstanding at halt; pool-tag ledger: empty"; then pass "removal: $line"; else fail "removal: $line"; fi
else
  fail "removal: the bridge did not see the device go"
fi
kill $P1 $P2 2>/dev/null
wait $P1 $P2 2>/dev/null

echo "$UDC" > "$G/UDC"
if wait_for 30 grep -q "device back" /tmp/bridge.log && wait_for 20 carrier; then
  pass "re-binding: $(grep 'device back' /tmp/bridge.log)"
  # The gadget's side of the link comes back on its own time too.
  wait_for 20 sh -c 'ip link show usb0 | grep -q LOWER_UP'
  ping_check "ping after re-binding" in_ns ping -c 3 -W 10 10.77.0.1
else
  fail "re-binding: the adapter did not come back"
fi

kill -TERM $BRIDGE
wait $BRIDGE
rc=$?
cat /tmp/bridge.log
if [ $rc = 0 ]; then pass "bridge summary"; else fail "bridge summary: exit status $rc"; fi
out="$(ethbrg check --quiet /tmp/usb.pcap 2>&1)"
echo "$out"
if echo "$out" | grep -qE "host NTBs +[1-9][0-9]* checked.* 0 violations"; then pass "capture check"; else fail "capture check"; fi
end
