#!/bin/sh
# Prints the release of the newest installed Debian kernel that has its
# build directory (headers), e.g. 6.1.0-56-amd64. Never hard-code it.
set -eu
for d in $(ls -d /lib/modules/*/build 2>/dev/null | sort -V -r); do
    [ -f "$d/Makefile" ] || continue
    basename "$(dirname "$d")"
    exit 0
done
echo "kver: no kernel headers under /lib/modules/*/build (run tests/qemu/setup.sh)" >&2
exit 1
