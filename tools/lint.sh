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
# shellcheck disable=SC2086
clang-tidy -p "$db" --quiet --warnings-as-errors='*' \
  --extra-arg=-Wthread-safety --extra-arg=-Wno-unknown-warning-option $files
echo "lint: $(echo "$files" | wc -l) files clean"
