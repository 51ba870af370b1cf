#!/usr/bin/env bash
# clang-tidy over the module core, the user backend and the host side
# (libvane, vaned, vanectl), with Clang's thread-safety analysis on (the
# lock annotations of kport/lock.h).
# Needs a configured build (compile_commands.json) in build/default.
set -euo pipefail
cd "$(dirname "$0")/.."
db=build/default
[ -f "$db/compile_commands.json" ] || cmake --preset default >/dev/null
files=$(git ls-files 'module/*.cc' 'kport/user/*.cc' 'sdk/*.cc' 'host/*.cc' 'tools/vanectl/*.cc')
# One clang-tidy per processor, a few files each; any finding fails the run.
echo "$files" | xargs -P "$(nproc)" -n 8 clang-tidy -p "$db" --quiet --warnings-as-errors='*' \
  --extra-arg=-Wthread-safety --extra-arg=-Wno-unknown-warning-option
echo "lint: $(echo "$files" | wc -l) files clean"
