#!/usr/bin/env bash
# Checks that module-core objects compiled under the kernel's constraints can
# go into a kernel module: no section that the module loader ignores or that
# needs a C++ runtime, and no undefined symbol other than the platform layer,
# the bounds-checked routines and the few C library functions every kernel
# exports.
#
# usage: check-kernel-objects.sh OBJECT...
set -euo pipefail

if [ "$#" -eq 0 ]; then
  echo "usage: $0 OBJECT..." >&2
  exit 2
fi

combined=$(mktemp --suffix=.o)
trap 'rm -f "$combined"' EXIT
ld -r -o "$combined" "$@"

status=0

# .init_array/.ctors: global constructors (silently never run by the kernel);
# .eh_frame/.gcc_except_table: exception and unwind tables.
forbidden=$(readelf -SW "$combined" |
  grep -oE '\.(init_array|ctors|eh_frame|gcc_except_table)[^ ]*' | sort -u || true)
if [ -n "$forbidden" ]; then
  echo "forbidden sections:"
  echo "$forbidden" | sed 's/^/  /'
  status=1
fi

allowed_re='^(kport_[A-Za-z0-9_]+|memcpy_s|memset_s|sprintf_s|snprintf_s|vsprintf_s|memcpy|memset|memmove|memcmp|strlen|strnlen|strcmp|strncmp|strchr|strrchr|__stack_chk_fail|__fentry__|__x86_return_thunk|__x86_indirect_thunk_[a-z0-9]+)$'
undefined=$(nm -u "$combined" | awk '{print $2}' | sort -u)
bad=$(echo "$undefined" | grep -vE "$allowed_re" | grep -v '^$' || true)
if [ -n "$bad" ]; then
  echo "undefined symbols outside the platform layer:"
  echo "$bad" | sed 's/^/  /'
  status=1
fi

count=$(echo "$undefined" | grep -c . || true)
if [ "$status" -eq 0 ]; then
  echo "kernel constraints: $# objects, $count undefined symbols, all provided by the platform"
fi
exit "$status"
