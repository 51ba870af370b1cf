#!/usr/bin/env bash
# Passes a test runner's output through unchanged and fails at its end when
# an expected suite ran no test: a suite that drops out of the build or finds
# nothing to run must not pass as "0 failed".
#
#   ... | check-ran.sh ctest LABEL...  ctest's label summary counts at least
#                                      one test for each LABEL (every test
#                                      program labels its tests with its name;
#                                      a skipped test counts as run)
#   ... | check-ran.sh runs            at least one "<name>: N passed, M failed"
#                                      line, and N > 0 on each
set -euo pipefail
mode=${1:?usage: check-ran.sh ctest LABEL... | runs}
shift
case $mode in ctest | runs) ;; *)
    echo "check-ran.sh: unknown mode '$mode'" >&2
    exit 2
    ;;
esac

awk -v mode="$mode" -v labels="$*" '
  { print; fflush() }
  mode == "ctest" && /^Label Time Summary:/ { summary = 1; next }
  mode == "ctest" && summary {
    # "tests_kport    =   1.93 sec*proc (55 tests)"
    if ($2 == "=" && $5 ~ /^\([0-9]+$/) ran[$1] = substr($5, 2) + 0
    else summary = 0
  }
  mode == "runs" && $1 ~ /^[a-z0-9_]+:$/ && $3 == "passed," && $5 ~ /^failed/ {
    lines++
    if ($2 + 0 == 0) { zero = zero " " substr($1, 1, length($1) - 1) }
  }
  END {
    bad = 0
    if (mode == "ctest") {
      n = split(labels, want, " ")
      for (i = 1; i <= n; i++) {
        if (!(want[i] in ran)) {
          printf "check-ran: %s ran no test\n", want[i] > "/dev/stderr"
          bad = 1
        }
      }
    } else {
      if (lines == 0) { print "check-ran: no \"N passed, M failed\" line" > "/dev/stderr"; bad = 1 }
      if (zero != "") { printf "check-ran: no test passed in:%s\n", zero > "/dev/stderr"; bad = 1 }
    }
    exit bad
  }'
