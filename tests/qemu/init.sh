#!/bin/busybox sh
# /init of the qemu guest (busybox). Checks what only a real kernel can show
# (the kport glue, a start-up that finds protocol 26 taken, load and unload
# cycles, the module's information), runs the shared scenario suite
# vane_scenarios (which loads and unloads drv_vane.ko and vane_drvsim.ko
# around every test), libvane and vanectl over netlink on x86_64, the
# concurrency stress on the debug kernels, dumps the kernel log and powers
# off. One line per check:
#   VANE-PASS <name>   VANE-FAIL <name>: <why>   VANE-SKIP <name>: <why>
# then "VANE-VERDICT PASS|FAIL"; tests/qemu/run.sh judges the serial log.
#
# Kernel command-line words that change the run (tests/qemu/run.sh sets them):
#   vane.target=NAME  the kernel the scenarios report: x86_64, arm64, kasan,
#                     kcsan; on the two debug kernels only the scenarios of
#                     SHORT_FILTER below run
#   vane.filter=F     run only the scenarios of GoogleTest filter F
#   vane.bug=NAME     plant one bug with vane_bugplant.ko and stop: the
#                     harness requires the detector's report in the log
#   vane.stress=SECS  after the scenarios, four rounds of load, vane_stress
#                     for SECS seconds, unload
#   vane.kmemleak=1   scan for leaks once every module is unloaded
/bin/busybox --install -s /bin
export PATH=/bin
mount -t proc proc /proc
mount -t sysfs sysfs /sys
mount -t devtmpfs devtmpfs /dev

M=/lib/vane
FAILS=0

param() {
    for w in $(cat /proc/cmdline); do
        case $w in "$1="*) echo "${w#*=}" && return ;; esac
    done
}
TARGET=$(param vane.target)
FILTER=$(param vane.filter)
BUG=$(param vane.bug)
STRESS=$(param vane.stress)
KMEMLEAK=$(param vane.kmemleak)
if [ -n "$KMEMLEAK$BUG" ]; then
    mount -t debugfs debugfs /sys/kernel/debug
fi
LEAKS=/sys/kernel/debug/kmemleak
# kmemleak reports objects older than about five seconds, after two scans.
leak_scan() {
    sleep 6
    echo scan >$LEAKS
    echo scan >$LEAKS
    cat $LEAKS
}
end_run() {
    echo VANE-DMESG-BEGIN
    dmesg
    echo VANE-DMESG-END
    if [ $FAILS = 0 ]; then echo "VANE-VERDICT PASS"; else echo "VANE-VERDICT FAIL"; fi
    sync
    # Without ACPI poweroff does not stop the machine; qemu runs with
    # -no-reboot, so a reboot ends it.
    reboot -f
}

pass() { echo "VANE-PASS $1"; }
fail() {
    echo "VANE-FAIL $1: $2"
    FAILS=$((FAILS + 1))
}
# check <name> <why> <command...>
check() {
    name=$1 why=$2
    shift 2
    if "$@"; then pass "$name"; else fail "$name" "$why"; fi
}
loaded() { grep -q "^$1 " /proc/modules; }
absent() { ! loaded "$1"; }

echo "VANE-BEGIN $(uname -r) $(uname -m), $(grep -c ^processor /proc/cpuinfo) cpus"

if [ -n "$BUG" ]; then
    # The detector's report is what counts; the harness looks for it.
    check plant-$BUG "insmod vane_bugplant.ko bug=$BUG failed" insmod $M/vane_bugplant.ko bug=$BUG
    [ "$BUG" = race ] || sleep 1
    if [ "$BUG" = leak ]; then
        rmmod vane_bugplant
        leak_scan
    fi
    end_run
fi

# Leaks of the boot itself are not the modules' business.
if [ "$KMEMLEAK" = 1 ]; then
    echo scan >$LEAKS
    echo clear >$LEAKS
fi

check load-kbndsafe "insmod kbndsafe.ko failed" insmod $M/kbndsafe.ko

# The kport glue on its own: timers, lock context, sysfs, strtol, log level.
if insmod $M/vane_kport_selftest.ko; then
    pass kport-selftest
    v=/sys/class/vane_kport_test/vane_kport_test/value
    check kport-sysfs-show "$v does not read 5" [ "$(cat $v)" = 5 ]
    echo 0x2a >$v
    check kport-sysfs-store "$v does not read 42 after storing 0x2a" [ "$(cat $v)" = 42 ]
    check kport-printk-alert "no alert-level line from kport_printk" \
        sh -c "dmesg -r | grep -q '^<1>.*vane-kport-selftest: alert 7'"
    check unload-kport-selftest "rmmod vane_kport_selftest failed" rmmod vane_kport_selftest
else
    fail kport-selftest "insmod failed; the kernel log names the failed check"
fi

# Kernel sockets serving protocol $1, from the kernel's own list.
served() { awk -v p="$1" 'NR > 1 && $2 == p' /proc/net/netlink | grep -q .; }
served_both() { served 26 && served 27; }
# What an unloaded drv_vane must not leave behind.
nothing_left() {
    [ ! -e /proc/bypassDebug -a ! -e /proc/wlan_lb -a ! -e /sys/class/wlan_lb ] &&
        ! served 26 && ! served 27
}
startup_failed_cleanly() { absent drv_vane && [ ! -e /proc/bypassDebug ] && ! served 27; }
all_gone() { absent drv_vane && absent vane_drvsim && nothing_left; }
load_pair() { insmod $M/drv_vane.ko && insmod $M/vane_drvsim.ko; }
unload_pair() { rmmod vane_drvsim && rmmod drv_vane; }

# Start-up while another kernel socket holds protocol 26: -ENOMEM, and
# nothing left behind (no proc directory, protocol 27 not served).
if insmod $M/vane_nlhold.ko; then
    out=$(insmod $M/drv_vane.ko 2>&1)
    rc=$?
    case "$rc:$out" in
    0:*) fail startup-proto26-taken "insmod succeeded" ;;
    *"Cannot allocate memory"*) pass startup-proto26-taken ;;
    *) fail startup-proto26-taken "insmod said: $out" ;;
    esac
    check startup-failure-leaves-nothing "drv_vane loaded, /proc/bypassDebug left or protocol 27 served" \
        startup_failed_cleanly
    check unload-nlhold "rmmod vane_nlhold failed" rmmod vane_nlhold
else
    fail startup-proto26-taken "the helper could not take protocol 26"
fi

# Load and unload a few times: each load starts from the load-time state.
cycles_ok=1
for i in 1 2 3; do
    insmod $M/drv_vane.ko && rmmod drv_vane || cycles_ok=0
done
check load-unload-cycles "insmod/rmmod of drv_vane failed" [ $cycles_ok = 1 ]

# What the module tells the kernel about itself, and who holds whom.
if load_pair; then
    pass load-modules
    check module-version "/sys/module/drv_vane/version is not 1.0" \
        [ "$(cat /sys/module/drv_vane/version 2>/dev/null)" = 1.0 ]
    check module-holders "kbndsafe does not hold drv_vane, or drv_vane not vane_drvsim" \
        [ -e /sys/module/kbndsafe/holders/drv_vane -a -e /sys/module/drv_vane/holders/vane_drvsim ]
    check module-serves-both "no kernel socket of protocol 26 or 27" served_both
    check unload-modules "rmmod of vane_drvsim or drv_vane failed" unload_pair
    check unload-leaves-nothing "/proc/bypassDebug, /proc/wlan_lb, the wlan_lb class or a kernel socket remains" \
        nothing_left
else
    fail load-modules "insmod of drv_vane.ko or vane_drvsim.ko failed"
fi

# The shared scenario suite. The debug kernels run at a fraction of the
# speed and are there for what their detectors see, so they run the suites
# of what comes and goes and what runs at once: the module's lifetime
# (Lifecycle: load-time state, start-up, unload with sockets, files and
# tables still there), the scenarios that run several threads or processes
# against it (named Concurrent..., Concurrency... or ...While...), and the
# kernel ones (Kernel..., e.g. the real timer's sweeps). Every scenario's
# own reload adds a teardown; the stress below adds the rest of the load.
SHORT_FILTER='Lifecycle*:*Concurren*:*While*:Kernel*'
case $TARGET in
kasan | kcsan) filter=--gtest_filter=$SHORT_FILTER ;;
*) filter= ;;
esac
[ -z "$FILTER" ] || filter=--gtest_filter=$FILTER
/bin/vane_scenarios $filter || FAILS=$((FAILS + 1))
check scenarios-leave-nothing "a module is still loaded, or something of drv_vane remains" all_gone

# libvane and vanectl over netlink (x86_64 guests).
if [ -x /bin/vane_libvane ]; then
    if load_pair; then
        /bin/vane_libvane || FAILS=$((FAILS + 1))
        check vanectl-apply "vanectl apply of the sample failed" \
            sh -c "/bin/vanectl --transport netlink apply /etc/vane/wlc.yaml >/tmp/apply.out 2>&1"
        tail -1 /tmp/apply.out
        check vanectl-show-wlan "the WLAN statistics do not show the sample's 8 CAPWAP messages" \
            sh -c "/bin/vanectl --transport netlink --json show wlan stats | grep -q '\"capwap\": *[1-9]'"
        check vanectl-show-steering "the steering view does not name vCPU 7" \
            sh -c "/bin/vanectl --transport netlink show steering | grep -q 7"
        check unload-after-libvane "rmmod failed: a socket of libvane or vanectl still open?" unload_pair
    else
        fail libvane-load "insmod failed"
    fi
fi

# Packets from both processors, control messages, proc reads and writes, all
# at once, with the module loaded and unloaded between rounds.
if [ -n "$STRESS" ]; then
    for round in 1 2 3 4; do
        if load_pair; then
            /bin/vane_stress "$STRESS" "round$round" || FAILS=$((FAILS + 1))
        else
            fail stress-round$round "insmod failed"
        fi
        rmmod vane_drvsim 2>/dev/null
        check stress-unload-round$round "rmmod drv_vane failed" rmmod drv_vane
        check stress-leaves-nothing-round$round "something of drv_vane remains" nothing_left
    done
fi
check unload-kbndsafe "rmmod kbndsafe failed" rmmod kbndsafe
check all-unloaded "a module is still loaded" \
    sh -c "! grep -qE '^(kbndsafe|drv_vane|vane_drvsim|vane_nlhold|vane_kport_selftest) ' /proc/modules"

if [ "$KMEMLEAK" = 1 ]; then
    leak_scan >/tmp/leaks
    cat /tmp/leaks
    check no-leaks "kmemleak reports unreferenced objects" [ ! -s /tmp/leaks ]
fi

end_run
