#!/usr/bin/env bash
# build-initramfs.sh ETHBRG WORKDIR: the initramfs of the real-device test.
#
# Into WORKDIR/kernel it puts, once, Debian's kernel image and the gadget-side
# modules the test loads: usb-common, usbcore (the host side of dummy_hcd;
# only the core, no class driver), udc-core, configfs, libcomposite, u_ether,
# usb_f_ncm, dummy_hcd, and tun for the TAP. They come from the package
# linux-image-<version>-amd64, extracted with dpkg-deb -x into a scratch
# folder that is deleted right after: nothing else of the package is kept, so
# no host-side USB network driver can reach the VM. Then it writes
# WORKDIR/initramfs.cpio.gz with a static busybox, those modules, the test's
# init script and ethbrg with the shared libraries it needs.
# Exit status 77 when the kernel package cannot be had.
set -euo pipefail
ethbrg="$1"
work="$2"
here="$(cd "$(dirname "$0")" && pwd)"
modules=(usb-common usbcore udc-core configfs libcomposite u_ether usb_f_ncm dummy_hcd tun)

mkdir -p "$work"
kernel="$work/kernel"
if [ ! -f "$kernel/vmlinuz" ] || [ "$(ls "$kernel"/*.ko 2>/dev/null | wc -l)" != "${#modules[@]}" ]; then
  package="$(apt-cache depends linux-image-amd64 2>/dev/null | awk '/Depends: linux-image-[0-9]/ {print $2; exit}')"
  if [ -z "$package" ]; then
    echo "usbvm: the kernel package is not known to apt (apt-get update?)"
    exit 77
  fi
  scratch="$(mktemp -d)"
  trap 'rm -rf "$scratch"' EXIT
  if ! (cd "$scratch" && apt-get download -q "$package" >/dev/null 2>&1); then
    echo "usbvm: $package cannot be downloaded"
    exit 77
  fi
  dpkg-deb -x "$scratch"/*.deb "$scratch/x"
  rm -rf "$kernel"
  mkdir -p "$kernel"
  cp "$scratch"/x/boot/vmlinuz-* "$kernel/vmlinuz"
  for m in "${modules[@]}"; do
    found="$(find "$scratch/x/lib/modules" -name "$m.ko" -o -name "$m.ko.xz" -o -name "$m.ko.zst" | head -1)"
    [ -n "$found" ] || { echo "usbvm: $m is not in $package"; exit 1; }
    case "$found" in
      *.xz) xz -dc "$found" > "$kernel/$m.ko" ;;
      *.zst) zstd -qdc "$found" > "$kernel/$m.ko" ;;
      *) cp "$found" "$kernel/$m.ko" ;;
    esac
  done
  echo "$package" > "$kernel/package"
  rm -rf "$scratch"
  trap - EXIT
fi

root="$work/root"
rm -rf "$root"
mkdir -p "$root"/{bin,lib/modules,proc,sys,dev,tmp,etc}
cp /bin/busybox "$root/bin/busybox"
cp "$kernel"/*.ko "$root/lib/modules/"
printf '%s\n' "${modules[@]}" > "$root/lib/modules/order"
cp "$here/init.sh" "$root/init"
chmod +x "$root/init"
cp "$ethbrg" "$root/bin/ethbrg"
# The program's shared libraries, at the paths the loader looks them up.
ldd "$ethbrg" | awk '/=> \// {print $3} /^\t\/lib/ {print $1}' | while read -r lib; do
  mkdir -p "$root$(dirname "$lib")"
  cp -L "$lib" "$root$lib"
done
(cd "$root" && find . | busybox cpio -o -H newc 2>/dev/null | gzip -1) > "$work/initramfs.cpio.gz"
rm -rf "$root"
