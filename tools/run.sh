#!/usr/bin/env bash
# The main job: vaned, the dispatcher on the host, serving four sample
# workers (separate processes built on libvane) with the sample wireless
# controller's configuration, replaying a capture through the chip-header
# stage, then a report.
#
#   bash tools/run.sh                      the built-in sample
#   bash tools/run.sh --config FILE        your configuration (tools/vanectl/CONFIG.md)
#   bash tools/run.sh --pcap FILE          your capture (Ethernet, pcap or pcapng)
#   bash tools/run.sh --iface NAME --seconds N   live traffic of an interface
#   bash tools/run.sh --timing recorded|fast --rate PPS   how the capture is paced
#   bash tools/run.sh --loop --seconds N   replay the capture over and over for N seconds
#   bash tools/run.sh --short              a quick run for the test suite
#   bash tools/run.sh --no-setup --build-dir DIR   use what is already built
#
# Everything it makes goes under build/sample/ (run directory, logs, the
# workers' and vaned's reports); the report is also written to
# build/sample/report.txt and report.json.
set -euo pipefail
repo=$(cd "$(dirname "$0")/.." && pwd)
cd "$repo"

config=$repo/tools/sample/wlc.yaml
pcap=""
iface=""
seconds=10
timing=fast
rate=""
loop=0
short=0
strict=""
setup=1
build=$repo/build/default
out=$repo/build/sample

usage() { sed -n '2,18p' "$0" | sed 's/^# \{0,1\}//'; }
while [ $# -gt 0 ]; do
    case $1 in
    --config) config=$(realpath "$2"); shift ;;
    --pcap) pcap=$(realpath "$2"); shift ;;
    --iface) iface=$2; shift ;;
    --seconds) seconds=$2; shift ;;
    --timing) timing=$2; shift ;;
    --rate) rate=$2; timing=rate; shift ;;
    --loop) loop=1 ;;
    --short) short=1 strict=1 ;;
    --no-setup) setup=0 ;;
    --build-dir) build=$(realpath "$2"); shift ;;
    --out) out=$(realpath -m "$2"); shift ;;
    -h | --help) usage; exit 0 ;;
    *) echo "run.sh: unknown option $1 (see --help)" >&2; exit 2 ;;
    esac
    shift
done

# The system's python3: it has scapy and yaml (python3-scapy, python3-yaml),
# whatever other python3 comes first in PATH.
py=/usr/bin/python3
say() { printf '\033[1m== %s\033[0m\n' "$*"; }

if [ $setup = 1 ]; then
    say "installing what is missing"
    bash tools/setup-deps.sh
    say "building vaned, vanectl and the sample worker"
    cmake --preset default >/dev/null
    cmake --build "$build" --target vaned vanectl vane_sample_worker
fi
vaned=$build/host/vaned
vanectl=$build/tools/vanectl/vanectl
worker=$build/sdk/vane_sample_worker
for b in "$vaned" "$vanectl" "$worker"; do
    [ -x "$b" ] || { echo "run.sh: $b is not built (drop --no-setup)" >&2; exit 1; }
done

rm -rf "$out"
mkdir -p "$out"
run=$out/run
mkdir -m 0700 "$run"
export VANE_RUNDIR=$run VANE_TRANSPORT=unix

if [ -z "$pcap" ] && [ -z "$iface" ]; then
    pcap=$out/sample.pcapng
    count=4000
    [ $short = 1 ] && count=600
    say "generating the sample capture ($count packets)"
    "$py" tools/sample/make_capture.py --count $count --out "$pcap"
fi
if [ -n "$iface" ]; then
    source="iface:$iface,eth=21"
else
    source="pcap:$pcap,eth=21,timing=$timing${rate:+,rate=$rate}"
    [ $loop = 0 ] || source="$source,loop"
fi

pids=()
cleanup() {
    for p in "${pids[@]}"; do kill "$p" 2>/dev/null || true; done
    wait 2>/dev/null || true
}
trap cleanup EXIT

say "starting vaned (run directory $run)"
"$vaned" --run-dir "$run" --config "$config" --source "$source" --paused \
    --stats "$out/vaned.json" 2>"$out/vaned.log" &
vaned_pid=$!
pids+=("$vaned_pid")
for _ in $(seq 100); do
    [ -S "$run/nl26.sock" ] && break
    kill -0 "$vaned_pid" 2>/dev/null || { cat "$out/vaned.log" >&2; exit 1; }
    sleep 0.05
done

say "applying $config"
"$vanectl" apply "$config" | tail -1

say "starting four workers"
start_worker() {
    local name=$1
    shift
    "$worker" --name "$name" --report "$out/worker-$name.json" --ready "$out/ready-$name" "$@" \
        2>"$out/worker-$name.log" &
    pids+=("$!")
    worker_pids+=("$!")
}
worker_pids=()
start_worker capwap --vcpus 1,2
start_worker aaa --vcpus 3,4
start_worker portal --vcpus 5,6
start_worker default --vcpus 7 --default --fast
for name in capwap aaa portal default; do
    for _ in $(seq 100); do [ -e "$out/ready-$name" ] && break; sleep 0.05; done
    [ -e "$out/ready-$name" ] || { echo "run.sh: worker $name did not register" >&2; exit 1; }
done

say "replaying ($source)"
t0=$(date +%s.%N)
kill -USR1 "$vaned_pid"
deadline=$(($(date +%s) + seconds))
while kill -0 "$vaned_pid" 2>/dev/null; do
    sleep 0.5
    "$py" tools/sample/report.py --progress "$out" 2>/dev/null || true
    if [ -n "$iface" ] || [ $loop = 1 ]; then
        [ "$(date +%s)" -lt "$deadline" ] || break
    elif "$py" tools/sample/report.py --done "$out" 2>/dev/null; then
        break
    fi
done
t1=$(date +%s.%N)
echo

say "collecting"
"$vanectl" --json show counters >"$out/counters.json"
"$vanectl" --json show steering >"$out/steering.json"
kill -TERM "$vaned_pid" 2>/dev/null || true
wait "$vaned_pid" || { echo "run.sh: vaned failed; see $out/vaned.log" >&2; exit 1; }
for p in "${worker_pids[@]}"; do kill -TERM "$p" 2>/dev/null || true; done
for p in "${worker_pids[@]}"; do wait "$p" || true; done
pids=()

"$py" tools/sample/report.py --final "$out" --config "$config" \
    --elapsed "$(awk -v a="$t0" -v b="$t1" 'BEGIN { print b - a }')" \
    --workers capwap=1,2 aaa=3,4 portal=5,6 default=7,default,fast ${strict:+--strict} \
    | tee "$out/report.txt"
