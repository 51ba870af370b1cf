#!/bin/bash
# Builds kbndsafe.ko, drv_vane.ko, vane_drvsim.ko, the shared scenario suite
# as the statically linked vane_scenarios (tests/qemu/guest.mk) and the
# stress, boots a kernel under qemu with them in an initramfs, and judges the
# serial log.
#
#   tests/qemu/run.sh x86_64|arm64      Debian's own kernel
#   tests/qemu/run.sh kasan|kcsan       an x86_64 debug kernel built from
#                                       Debian's source (debug-kernel.sh),
#                                       two processors, with the stress and
#                                       (kasan) a leak scan after unloading
#   tests/qemu/run.sh kasan|kcsan BUG   boots once with vane_bugplant.ko
#                                       planting BUG, and requires the
#                                       detector's report
#
# VANE_FILTER=<GoogleTest filter> runs only those scenarios (for work on
# one of them).
#
# Fails (exit 1) on a failed check, on a missing verdict, and on any Oops,
# BUG, WARNING, call trace, panic or debug-kernel report in the log. Output
# under build/qemu/<target>/ (serial.log is the guest's console). Installs
# what is missing through tests/qemu/setup.sh first.
set -euo pipefail

target=${1:-x86_64}
bug=${2:-}
repo=$(cd "$(dirname "$0")/../.." && pwd)
here=$repo/tests/qemu
out=$repo/build/qemu/$target${bug:+-$bug}

case $target in
x86_64 | kasan | kcsan) "$here/setup.sh" x86_64 ;;
arm64) "$here/setup.sh" ;;
*)
    echo "usage: $0 [x86_64|arm64|kasan|kcsan [BUG]]" >&2
    exit 2
    ;;
esac

make_args=()
append=""
smp=2
mem=512
case $target in
x86_64)
    kver=$("$repo/kport/linux/kver.sh")
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
kasan | kcsan)
    kdir=$("$here/debug-kernel.sh" "$target")
    karch=x86
    cc=gcc
    kimage=$kdir/arch/x86/boot/bzImage
    busybox=/bin/busybox
    qemu=(qemu-system-x86_64 -M pc -accel tcg)
    console=ttyS0
    limit=900
    make_args=(KDIR="$kdir" OUT="$repo/build/kmod/x86_64-$target" VANE_BUGPLANT=m)
    # No ACPI in these kernels: one processor per socket in the BIOS table,
    # and the TSC's rate from the host (under TCG the guest TSC ticks at
    # it), since calibration against the PIT is unreliable under emulation.
    smp=2,sockets=2,cores=1,threads=1
    mem=1024
    khz=$(awk -F': *' '/^cpu MHz/ { printf "%d", $2 * 1000; exit }' /proc/cpuinfo)
    append="tsc_early_khz=$khz tsc=reliable"
    if [ -n "$bug" ]; then
        append="$append vane.bug=$bug"
    else
        append="$append vane.stress=6"
        [ "$target" = kasan ] && append="$append vane.kmemleak=1"
    fi
    ;;
esac
# What each planted bug must make the kernel say.
case $bug in
"") ;;
oob) expect='BUG: KASAN: slab-out-of-bounds' ;;
lockinv) expect='WARNING: possible circular locking dependency detected' ;;
sleep) expect='BUG: sleeping function called from invalid context' ;;
timerfree) expect='ODEBUG: free active .* object type: timer_list' ;;
leak) expect='unreferenced object 0x[0-9a-f]+ \(size 128\)' ;;
race) expect='BUG: KCSAN: data-race in race_(reader|writer)' ;;
*)
    echo "run: unknown bug $bug" >&2
    exit 2
    ;;
esac
name=$target
case $target in kasan | kcsan) name=x86_64_$target${bug:+_plant_$bug} ;; esac

now() { date +%s.%N; }
secs() { awk -v a="$1" -v b="$(now)" 'BEGIN { printf "%.1f", b - a }'; }

mkdir -p "$out"
t0=$(now)
make -s -C "$repo/kport/linux" ARCH=$karch "${make_args[@]}"
kmod=$repo/build/kmod/$([ "$karch" = arm64 ] && echo arm64 || echo x86_64)
case $target in kasan | kcsan) kmod=$kmod-$target ;; esac
guest_arch=$([ "$karch" = arm64 ] && echo arm64 || echo x86_64)
make -s -j2 -f "$here/guest.mk" ARCH=$guest_arch
scenarios=$repo/build/qemu-guest/$guest_arch/vane_scenarios
$cc -static -O2 -Wall -Wextra -Werror -o "$out/vane_stress" "$here/stress.c"
# libvane and vanectl against the real module: x86_64 guests only, linked
# dynamically against the host's libraries, which go into the guest too.
guest_dyn=()
if [ "$karch" = x86 ]; then
    hostbuild=${VANE_HOST_BUILD:-$repo/build/default}
    [ -f "$hostbuild/build.ninja" ] || (cd "$repo" && cmake --preset default >/dev/null)
    cmake --build "$hostbuild" --target vane vanectl >/dev/null
    g++ -std=gnu++20 -O2 -Wall -Wextra -Werror -Wno-missing-field-initializers \
        -I "$repo/sdk/include" -o "$out/vane_libvane" "$here/libvane.cc" \
        "$hostbuild/sdk/libvane.a" -lmnl
    guest_dyn=("$out/vane_libvane" "$hostbuild/tools/vanectl/vanectl")
fi
build_time=$(secs "$t0")

rootfs=$out/rootfs
rm -rf "$rootfs"
mkdir -p "$rootfs"/{bin,dev,proc,sys,tmp,lib/vane}
cp "$busybox" "$rootfs/bin/busybox"
cp "$scenarios" "$out/vane_stress" "$rootfs/bin/"
install -m 755 "$here/init.sh" "$rootfs/init"
for bin in "${guest_dyn[@]}"; do
    cp "$bin" "$rootfs/bin/"
    for lib in $(ldd "$bin" | awk '$2 == "=>" && $3 ~ /^\// { print $3 } $1 ~ /^\/.*ld-linux/ { print $1 }'); do
        mkdir -p "$rootfs$(dirname "$lib")"
        cp -L "$lib" "$rootfs$lib"
    done
done
if [ "${#guest_dyn[@]}" -gt 0 ]; then
    mkdir -p "$rootfs/etc/vane"
    cp "$repo/tools/sample/wlc.yaml" "$rootfs/etc/vane/wlc.yaml"
fi
for m in kbndsafe drv_vane vane_drvsim vane_nlhold vane_kport_selftest vane_bugplant; do
    [ "$m" != vane_bugplant ] || [ -n "$bug" ] || continue
    cp "$kmod/$m.ko" "$rootfs/lib/vane/"
done
# The kernel opens /dev/console for /init before devtmpfs is mounted.
mknod "$rootfs/dev/console" c 5 1 2>/dev/null || true
(cd "$rootfs" && find . | cpio -o -H newc --quiet | gzip -1) >"$out/initramfs.cpio.gz"

t1=$(now)
status=0
timeout $limit "${qemu[@]}" -m $mem -smp $smp -kernel "$kimage" -initrd "$out/initramfs.cpio.gz" \
    -append "console=$console loglevel=5 panic=-1 vane.target=$target ${VANE_FILTER:+vane.filter=$VANE_FILTER} $append" -nographic -no-reboot \
    </dev/null >"$out/serial.log" 2>&1 || status=$?
boot_time=$(secs "$t1")

log=$out/serial.txt
tr -d '\r' <"$out/serial.log" >"$log"
grep -E '^VANE-(PASS|FAIL|SKIP)|^vane-' "$log" || true

passes=$(grep -c '^VANE-PASS ' "$log" || true)
fails=$(grep -c '^VANE-FAIL ' "$log" || true)
skips=$(grep -c '^VANE-SKIP ' "$log" || true)
verdict=ok
# The scenario program's closing count: without it, it died on the way.
if [ -z "$bug" ] && ! grep -qE "^$target: [0-9]+ passed, [0-9]+ failed, [0-9]+ skipped\$" "$log"; then
    echo "run: vane_scenarios did not finish (no closing count in $out/serial.log)" >&2
    verdict=bad
fi
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
# Every detector's report, whichever comes first: lockdep and KASAN switch
# themselves off after one, so any report fails the run.
reports='Oops|BUG:|WARNING:|Call Trace|Kernel panic|ODEBUG:|list_(add|del) corruption|'\
'suspicious RCU usage|sleeping function called from invalid context|unreferenced object|'\
'INFO: lockdep is turned off|possible (circular|recursive) locking|inconsistent lock state'
if [ -n "$bug" ]; then
    # The planted bug's report must be there; it is the only fault allowed.
    if grep -qE "$expect" "$log"; then
        echo "run: $bug planted, the kernel reported it:"
        grep -m1 -E "$expect" "$log"
        passes=1 fails=0 skips=0
    else
        echo "run: $bug planted, but no report matching '$expect' in $out/serial.log" >&2
        passes=0 fails=1 skips=0
    fi
elif grep -nE "$reports" "$log" >&2; then
    echo "run: the kernel log above shows a fault" >&2
    verdict=bad
fi

echo "$name: $passes passed, $fails failed, $skips skipped (build ${build_time}s, boot and tests ${boot_time}s)"
if [ $verdict = ok ] && [ "$fails" = 0 ] && [ "$passes" -gt 0 ]; then
    exit 0
fi
exit 1
