#!/usr/bin/env bash
# Fails when a C or C++ source of the repository is not clang-format clean.
set -euo pipefail
cd "$(dirname "$0")/.."
files=$(git ls-files '*.c' '*.cc' '*.h' | grep -v '^third_party/' || true)
# shellcheck disable=SC2086
clang-format --dry-run --Werror $files
echo "format: $(echo "$files" | wc -l) files clean"
