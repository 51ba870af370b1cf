#!/bin/bash
# Builds kbndsafe.ko, drv_vane.ko, vane_drvsim.ko and the statically linked
# scenario program, boots the Debian kernel under qemu with them in an
# initramfs, and judges the serial log.
#
#   tests/qemu/run.sh [x86_64|arm64]      (default x86_64)
#
# Fails (exit 1) on a failed check, on a missing verdict, and on any Oops,
# BUG, WARNING, call trace or panic in the log. Output under build/qemu/<arch>/
# (serial.log is the guest's console). Installs what is missing through
# tests/qemu/setup.sh first.
set -euo pipefail

arch=${1:-x86_64}
repo=$(cd "$(dirname "$0")/../.." && pwd)
here=$repo/tests/qemu
out=$repo/build/qemu/$arch

case $arch in
x86_64) "$here/setup.sh" x86_64 ;;
arm64) "$here/setup.sh" ;;
*)
    echo "usage: $0 [x86_64|arm64]" >&2
    exit 2
    ;;
esac

kver=$("$repo/kport/linux/kver.sh")
case $arch in
x86_64)
    karch=x86
    cc=gcc
    kimage=/boot/vmlinuz-$kver
    busybox=/bin/busybox
    qemu=(qemu-system-x86_64 -accel tcg)
    console=ttyS0
    limit=300
    ;;
arm64)
    karch=arm64
    cc=aarch64-linux-gnu-gcc
    root=${VANE_ARM64_CACHE:-/var/cache/vane-arm64}/current/root
    kimage=$(ls "$root"/boot/vmlinuz-*)
    busybox=$root/bin/busybox
    qemu=(qemu-system-aarch64 -M virt -cpu cortex-a72)
    console=ttyAMA0
    limit=900
    ;;
esac

now() { date +%s.%N; }
secs() { awk -v a="$1" -v b="$(now)" 'BEGIN { printf "%.1f", b - a }'; }

mkdir -p "$out"
t0=$(now)
make -s -C "$repo/kport/linux" ARCH=$karch
kmod=$repo/build/kmod/$arch
$cc -static -O2 -Wall -Wextra -Werror -o "$out/vane_scenarios" "$here/scenarios.c"
build_time=$(secs "$t0")

rootfs=$out/rootfs
rm -rf "$rootfs"
mkdir -p "$rootfs"/{bin,dev,proc,sys,tmp,lib/vane}
cp "$busybox" "$rootfs/bin/busybox"
cp "$out/vane_scenarios" "$rootfs/bin/"
install -m 755 "$here/init.sh" "$rootfs/init"
for m in kbndsafe drv_vane vane_drvsim vane_nlhold vane_kport_selftest; do
    cp "$kmod/$m.ko" "$rootfs/lib/vane/"
done
# The kernel opens /dev/console for /init before devtmpfs is mounted.
mknod "$rootfs/dev/console" c 5 1 2>/dev/null || true
(cd "$rootfs" && find . | cpio -o -H newc --quiet | gzip -1) >"$out/initramfs.cpio.gz"

t1=$(now)
status=0
timeout $limit "${qemu[@]}" -m 512 -smp 2 -kernel "$kimage" -initrd "$out/initramfs.cpio.gz" \
    -append "console=$console loglevel=5 panic=-1" -nographic -no-reboot \
    </dev/null >"$out/serial.log" 2>&1 || status=$?
boot_time=$(secs "$t1")

log=$out/serial.txt
tr -d '\r' <"$out/serial.log" >"$log"
grep -E '^VANE-(PASS|FAIL)|^vane-' "$log" || true

passes=$(grep -c '^VANE-PASS ' "$log" || true)
fails=$(grep -c '^VANE-FAIL ' "$log" || true)
verdict=ok
if [ "$status" = 124 ]; then
    echo "run: qemu did not finish within ${limit}s" >&2
    verdict=bad
fi
if ! grep -q '^VANE-VERDICT ' "$log"; then
    echo "run: no verdict in the serial log ($out/serial.log)" >&2
    verdict=bad
elif ! grep -q '^VANE-VERDICT PASS' "$log"; then
    verdict=bad
fi
if grep -nE 'Oops|BUG:|WARNING:|Call Trace|Kernel panic' "$log" >&2; then
    echo "run: the kernel log above shows a fault" >&2
    verdict=bad
fi

echo "$arch: $passes passed, $fails failed (build ${build_time}s, boot and tests ${boot_time}s)"
if [ $verdict = ok ] && [ "$fails" = 0 ] && [ "$passes" -gt 0 ]; then
    exit 0
fi
exit 1
