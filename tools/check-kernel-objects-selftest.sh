#!/usr/bin/env bash
# Proves that check-kernel-objects.sh rejects what a kernel module cannot
# carry: it must pass a clean object and fail each faulty one.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

flags=(-std=gnu++20 -ffreestanding -fno-rtti -fno-threadsafe-statics -fno-pic -O2 -c)

compile() {  # name, extra flags..., source on stdin
  local name=$1
  shift
  g++ "${flags[@]}" "$@" -x c++ - -o "$work/$name.o"
}

expect() {  # pass|fail, name
  if "$here/check-kernel-objects.sh" "$work/$2.o" >"$work/$2.log" 2>&1; then
    result=pass
  else
    result=fail
  fi
  if [ "$result" != "$1" ]; then
    echo "selftest: $2 should $1 but did $result:"
    cat "$work/$2.log"
    exit 1
  fi
}

echo 'extern "C" int kport_x(int); extern "C" int f(int v) { return kport_x(v) + 1; }' |
  compile clean -fno-exceptions -fno-asynchronous-unwind-tables
expect pass clean

echo 'struct S { S(); }; S s;' | compile ctor -fno-exceptions -fno-asynchronous-unwind-tables
expect fail ctor

echo 'extern "C" int f(int v) { return v + 1; }' | compile unwind -fno-exceptions
expect fail unwind

echo 'void g(); int f() { try { g(); } catch (...) { return 1; } return 0; }' | compile eh
expect fail eh

echo 'extern "C" void* f() { return new int; }' |
  compile newop -fno-exceptions -fno-asynchronous-unwind-tables
expect fail newop

echo 'extern "C" unsigned __int128 f(unsigned __int128 a, unsigned __int128 b) { return a / b; }' |
  compile div128 -fno-exceptions -fno-asynchronous-unwind-tables
expect fail div128

echo "kernel constraint check: clean object accepted, 5 faulty objects rejected"
