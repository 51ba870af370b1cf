#!/usr/bin/env bash
# The mutation tool on a tiny project of its own: which tokens it picks, then
# one mutant of each outcome (killed, hung and so killed, survived, does not
# compile, stale) and a resumed run that runs nothing again.
set -euo pipefail
tool=$(cd "$(dirname "$0")" && pwd)/mutate.py
fx=$(mktemp -d)
trap 'rm -rf "$fx"' EXIT
mkdir -p "$fx/module/cap" "$fx/tests/cap"
git -C "$fx" init -q

cat >"$fx/CMakePresets.json" <<'EOF'
{"version": 6,
 "configurePresets": [{"name": "default", "generator": "Ninja",
                       "binaryDir": "${sourceDir}/build/default"}],
 "buildPresets": [{"name": "default", "configurePreset": "default"}],
 "testPresets": [{"name": "default", "configurePreset": "default"}]}
EOF
cat >"$fx/CMakeLists.txt" <<'EOF'
cmake_minimum_required(VERSION 3.25)
project(fixture CXX)
enable_testing()
add_library(cap module/cap/cap.cc)
add_executable(tests_cap tests/cap/cap_test.cc)
target_link_libraries(tests_cap cap)
add_test(NAME "cap len" COMMAND tests_cap)
EOF
cat >"$fx/module/cap/cap.cc" <<'EOF'
#include <unistd.h>

#include <array>
#define TWICE(x) ((x) * 2 == 4)
static_assert(sizeof(int) >= 2, "int");
const char* kName = "a < b && !c";  // 1 + 1 == 2
int cap_len(int n) {
  if (n < 0) return 0;
  if (n > 10) return 10;
  return n;
}
int wait_ready(int tries) {
  int k = 0;
  while (k < tries) {
    usleep(1000);
    ++k;
  }
  return k;
}
int first(const std::array<int, 2>& a, const int* p) {
  char rsv[2] = {};
  return p != nullptr && !a.empty() ? *p - a[1] + rsv[0] : -1;
}
#ifdef TEST_VARIANT
bool hook() { return true; }
#endif
EOF
cat >"$fx/tests/cap/cap_test.cc" <<'EOF'
int cap_len(int n);
int wait_ready(int tries);
int main() { return cap_len(-5) == 0 && cap_len(50) == 10 && wait_ready(3) == 3 ? 0 : 1; }
EOF

fail() { echo "mutate selftest: $*" >&2; exit 1; }

# Every token worth a mutant, and none in the define, the static_assert, the
# comment, the string, the template brackets, the pointers, the unary minus,
# the declared size or the variant-only block.
python3 "$tool" generate --root "$fx" --list "$fx/generated.txt" --count 99 --seed 1
got=$(sed 1,2d "$fx/generated.txt" | awk '{ print $2, $3, $4, $5 }')
want="module/cap/cap.cc@1:7 '<' -> '<='
module/cap/cap.cc@1:9 '0' -> '1'
module/cap/cap.cc@1:19 '0' -> '1'
module/cap/cap.cc@1:7 '>' -> '>='
module/cap/cap.cc@1:9 '0' -> '1'
module/cap/cap.cc@1:10 '<' -> '<='
module/cap/cap.cc@1:1 '++' -> '--'
module/cap/cap.cc@1:33 '2' -> '1'
module/cap/cap.cc@1:10 '!=' -> '=='
module/cap/cap.cc@1:21 '&&' -> '||'
module/cap/cap.cc@1:24 '!' -> ''
module/cap/cap.cc@1:40 '-' -> '+'
module/cap/cap.cc@1:44 '1' -> '2'
module/cap/cap.cc@1:47 '+' -> '-'
module/cap/cap.cc@1:53 '0' -> '1'
module/cap/cap.cc@1:59 '1' -> '2'"
[ "$got" = "$want" ] || fail "generated list differs:"$'\n'"$got"

cat >"$fx/mutants.txt" <<'EOF'
   1  module/cap/cap.cc@1:19  '0' -> '1'  | if (n < 0) return 0;
   2  module/cap/cap.cc@1:7  '>' -> '>='  | if (n > 10) return 10;
   3  module/cap/cap.cc@1:1  '++' -> '--'  | ++k;
   4  module/cap/cap.cc@1:27  '<' -> '<='  | int first(const std::array<int, 2>& a, const int* p) {
   5  module/cap/cap.cc@1:7  '<' -> '<='  | if (n < 0) return n;
EOF
before=$(md5sum <"$fx/module/cap/cap.cc")
run() { python3 "$tool" run --root "$fx" --list "$fx/mutants.txt" --test-timeout 3 "$@" 2>&1; }
out=$(run) || fail "run failed:"$'\n'"$out"
for line in "#1 module/cap/cap.cc:8 '0' -> '1': killed by cap len" \
  "#3 module/cap/cap.cc:16 '++' -> '--': killed by cap len (timed out)" \
  "#4 module/cap/cap.cc:20 '<' -> '<=': did not compile: " \
  "killed 2 of 3 (66.7%); 1 did not compile, 1 stale, 0 not run" \
  "survived: module/cap/cap.cc:9: '>' -> '>='  | if (n > 10) return 10;" \
  "stale: #5 module/cap/cap.cc@1:7  | if (n < 0) return n;"; do
  grep -qF -- "$line" <<<"$out" || fail "no \"$line\" in:"$'\n'"$out"
done
[ "$(md5sum <"$fx/module/cap/cap.cc")" = "$before" ] || fail "the fixture's own tree was changed"
out=$(run) || fail "resumed run failed:"$'\n'"$out"
grep -qF "5 mutants, 1 stale, 4 already in" <<<"$out" || fail "resume ran again:"$'\n'"$out"
grep -qF "killed 2 of 3 (66.7%)" <<<"$out" || fail "resumed report differs:"$'\n'"$out"

# Stopped mid-mutant, a run puts the file back and records nothing.
rm "$fx/build/mutate/results.jsonl"
scratch=$fx/build/mutate/tree1/module/cap/cap.cc
python3 "$tool" run --root "$fx" --list "$fx/mutants.txt" --only 3 --test-timeout 60 >/dev/null &
for _ in $(seq 600); do grep -q -- "--k;" "$scratch" && break; sleep 0.1; done
kill -TERM $!
wait $! && fail "an interrupted run exits 0"
grep -q -- "++k;" "$scratch" || fail "an interrupted run left its mutant in place"
[ ! -s "$fx/build/mutate/results.jsonl" ] || fail "an interrupted run recorded a result"

# A run killed outright leaves its mutant built; the next one builds the tree.
sed -i "s/++k;/--k;/" "$scratch" && cmake --build "$fx/build/mutate/tree1/build/default" >/dev/null
out=$(run --only 1) || fail "the run after a killed one failed:"$'\n'"$out"
echo "mutate selftest: passed"
