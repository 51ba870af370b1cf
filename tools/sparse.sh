#!/usr/bin/env bash
# Runs sparse over the Linux-side C files (the kport glue, kbndsafe, the
# driver stand-in and the test modules) as kbuild does with C=2: address
# spaces (__user), endianness and lock-context annotations. Any warning
# fails. Prints "sparse: N passed, M failed", one per checked file.
set -euo pipefail
cd "$(dirname "$0")/.."

dpkg-query -W -f='${Status}\n' sparse 2>/dev/null | grep -q 'ok installed' || {
    apt-get update -qq
    DEBIAN_FRONTEND=noninteractive apt-get install -y -qq sparse >/dev/null
}
bash tests/qemu/setup.sh x86_64

out=$PWD/build/kmod/sparse
log=$out/sparse.log
mkdir -p "$out"
# The module build itself fails on any warning in its log, sparse's included.
status=0
make -C kport/linux OUT="$out" VANE_BUGPLANT=m C=2 CHECK="sparse -Wno-unknown-attribute" \
    >"$log" 2>&1 || status=$?
checked=$(grep -c '^  CHECK ' "$out/build.log" || true)
bad=$( (grep -E '^[^ ].*\.[ch]:[0-9]+:[0-9]+: (warning|error):' "$out/build.log" || true) |
    cut -d: -f1 | sort -u | wc -l)
grep -E ': (warning|error):' "$out/build.log" >&2 || true
if [ "$status" != 0 ] && [ "$bad" = 0 ]; then
    cat "$log" >&2
    bad=1
fi
echo "sparse: $((checked - bad)) passed, $bad failed"
[ "$bad" = 0 ]
