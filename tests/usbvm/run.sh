#!/usr/bin/env bash
# run.sh ETHBRG WORKDIR: the real-device test. Boots Debian's kernel under
# QEMU (software emulation) with the initramfs of build-initramfs.sh, where
# ethbrg drives the host side of dummy_hcd against the kernel's NCM gadget
# function, and passes when every check the VM reports passed.
# Exit status 77 (skipped) without qemu-system-x86_64 or the kernel package.
set -uo pipefail
ethbrg="$1"
work="$2"
here="$(cd "$(dirname "$0")" && pwd)"
if ! command -v qemu-system-x86_64 >/dev/null || [ ! -x /bin/busybox ] || ! busybox --list | grep -qx nsenter; then
  echo "usbvm: skipped: needs qemu-system-x86_64 and a static busybox (scripts/install-deps.sh installs them)"
  exit 77
fi
"$here/build-initramfs.sh" "$ethbrg" "$work"
rc=$?
[ $rc = 0 ] || { [ $rc = 77 ] && echo "usbvm: skipped"; exit $rc; }
log="$work/console.log"
timeout 120 qemu-system-x86_64 -machine q35 -accel tcg -m 512 -smp 1 -nographic -no-reboot \
  -kernel "$work/kernel/vmlinuz" -initrd "$work/initramfs.cpio.gz" \
  -append "console=ttyS0 quiet panic=-1 rdinit=/init" > "$log" 2>&1 < /dev/null
tr -d '\r' < "$log" | grep -E "^(USBVM|usbvm:)|^[a-z ]+ +.*|^==|result" || true
passed=$(grep -c "^USBVM PASS" "$log")
failed=$(grep -c "^USBVM FAIL" "$log")
if ! grep -q "^USBVM END" "$log"; then
  echo "usbvm: the VM did not finish; console in $log"
  tail -40 "$log"
  exit 1
fi
echo "usbvm: $passed checks passed, $failed failed"
[ "$failed" = 0 ] && [ "$passed" -ge 13 ]
