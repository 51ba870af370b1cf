#!/usr/bin/env bash
# Builds the libFuzzer targets (preset "fuzz": clang, AddressSanitizer +
# UndefinedBehaviorSanitizer) and runs each for a bounded time, starting from
# the committed seeds (fuzz/corpus/<target>) and the dictionary
# (fuzz/vane.dict). Fails on any finding: crash, sanitizer report, leak,
# time-out or out-of-memory; the input that caused it is kept under
# build/fuzz/findings/ and reproduces with `build/fuzz/fuzz/<target>_fuzz FILE`.
#
#   tools/fuzz.sh                  about a minute per target (FUZZ_SECONDS)
#   tools/fuzz.sh --long [TARGET]  until stopped (Ctrl-C), growing a corpus
#                                  kept under build/fuzz/corpus/<target>
#
# Prints per target the executions and the coverage reached, then
# "fuzz: N passed, M failed".
set -euo pipefail
cd "$(dirname "$0")/.."

long=0
only=""
if [ "${1:-}" = --long ]; then
    long=1
    only=${2:-}
fi
seconds=${FUZZ_SECONDS:-60}
targets=(control packet files capture vaned_socket)
[ -z "$only" ] || targets=("$only")

dpkg-query -W -f='${Status}\n' libclang-rt-14-dev 2>/dev/null | grep -q 'ok installed' || {
    apt-get update -qq
    DEBIAN_FRONTEND=noninteractive apt-get install -y -qq libclang-rt-14-dev >/dev/null
}
cmake --preset fuzz >/dev/null
# The targets alone: the rest of the tree (tools, tests) is not fuzzed.
cmake --build --preset fuzz --target "${targets[@]/%/_fuzz}" >/dev/null

findings=build/fuzz/findings
mkdir -p "$findings"
passed=0
failed=0
for t in "${targets[@]}"; do
    bin=build/fuzz/fuzz/${t}_fuzz
    if [ $long = 1 ]; then
        corpus=build/fuzz/corpus/$t
        mkdir -p "$corpus"
        exec "$bin" -dict=fuzz/vane.dict -timeout=10 -rss_limit_mb=4096 \
            -artifact_prefix="$findings/$t-" "$corpus" "fuzz/corpus/$t"
    fi
    # The committed seeds stay as they are: the run grows a scratch copy.
    corpus=$(mktemp -d)
    cp fuzz/corpus/"$t"/* "$corpus"/
    log=build/fuzz/$t.log
    status=0
    "$bin" -dict=fuzz/vane.dict -max_total_time="$seconds" -timeout=10 -rss_limit_mb=4096 \
        -print_final_stats=1 -artifact_prefix="$findings/$t-" "$corpus" >"$log" 2>&1 || status=$?
    rm -rf "$corpus"
    execs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log")
    cov=$( (grep -E '^#[0-9]+[[:space:]]+(DONE|pulse|NEW|REDUCE)' "$log" || true) | tail -n 1 |
        sed -nE 's/.*cov: ([0-9]+) ft: ([0-9]+).*exec\/s: ([0-9]+).*/cov \1, ft \2, \3 exec\/s/p')
    if [ $status = 0 ]; then
        passed=$((passed + 1))
        echo "fuzz $t: clean, ${execs:-?} executions in ${seconds}s (${cov:-no stats})"
    else
        failed=$((failed + 1))
        echo "fuzz $t: FINDING (exit $status), after ${execs:-?} executions; log $log" >&2
        grep -E 'ERROR|SUMMARY|fuzz:|artifact' "$log" | head -n 20 >&2 || true
    fi
done
echo "fuzz: $passed passed, $failed failed"
[ $failed = 0 ]
