#!/bin/sh
# Checks the built drv_vane.ko against the module's export rules:
#  - every C-linkage function or variable that the core defines is exported,
#    unless it is one of the symbols the module deliberately keeps to itself;
#  - none of those is exported;
#  - the metadata: name, version and license twice, both descriptions,
#    depends on kbndsafe, no author.
# Usage: check-exports.sh <kbuild output dir>
set -eu
out=$1
ko=$out/drv_vane.ko
NM=${NM:-nm}

# Kept internal: the module's entry and exit, the netlink internals, the
# packet-data printer and the sysfs attribute handlers.
internal="vane_entry_init vane_entry_exit netlink_dev_init netlink_dev_exit
netlink_receive_msg netlink_check_msg netlink_send_msg_bysock netlink_connect_bysock
netlink_filter_icmp_pkt bypass_print_pkt_data wlan_lb_attr_show wlan_lb_attr_store"
# Language runtime hooks the core defines for the compiler, not for modules.
runtime="__cxa_pure_virtual __dso_handle"

fail=0
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT

core_objs=$(grep -v '^#' "$out/module/sources.txt" | sed "s|^\(.*\)\.cc$|$out/module/\1.o|")
# shellcheck disable=SC2086
$NM --defined-only -g $core_objs | awk 'NF == 3 && $2 ~ /[TDBRV]/ {print $3}' |
    grep -v '^_Z' | sort -u >"$tmp/defined"
$NM "$ko" | awk '$3 ~ /^__ksymtab_/ {sub(/^__ksymtab_/, "", $3); print $3}' | sort -u >"$tmp/exported"
printf '%s\n' $internal $runtime | sort -u >"$tmp/kept"

missing=$(comm -23 "$tmp/defined" "$tmp/exported" | comm -23 - "$tmp/kept")
if [ -n "$missing" ]; then
    echo "check-exports: defined by the core but not exported (add to kport/linux/exports.c):" $missing >&2
    fail=1
fi
leaked=$(printf '%s\n' $internal | sort | comm -12 - "$tmp/exported")
if [ -n "$leaked" ]; then
    echo "check-exports: exported but internal:" $leaked >&2
    fail=1
fi

modinfo_field() {
    # modinfo(8) may be absent on a build machine; the .modinfo section is
    # what it reads anyway.
    ${OBJCOPY:-objcopy} -O binary --only-section=.modinfo "$ko" "$tmp/modinfo"
    tr '\0' '\n' <"$tmp/modinfo" | sed -n "s/^$1=//p"
}
expect() {
    got=$(modinfo_field "$1" | sort | tr '\n' '|')
    if [ "$got" != "$2" ]; then
        echo "check-exports: modinfo $1 is '$got', expected '$2'" >&2
        fail=1
    fi
}
expect name 'drv_vane|'
expect version '1.0|1.0|'
expect license 'Dual BSD/GPL|Dual BSD/GPL|'
expect description "Enterprice ethernet switch's kernel mode vane stub function entry|Enterprice ethernet switch's network testing function|"
expect depends 'kbndsafe|'
expect author ''
exit $fail
