#!/usr/bin/env python3
"""The run script's progress line and final report.

  report.py --progress OUT           one progress line from vaned's stats file
  report.py --done OUT               exit 0 once every source that plays once ended
  report.py --final OUT --config F --elapsed S [--workers name=vcpus ...] [--strict]

OUT is the run's output directory: vaned.json (vaned's stats), worker-*.json
(the sample workers' reports), counters.json and steering.json (vanectl show
--json). The final report goes to stdout and OUT/report.json.
"""
import argparse
import glob
import json
import os
import sys

import yaml

LB_NAMES = {"capwap": "CAPWAP tunnel", "capwap_ka": "CAPWAP keep-alive session",
            "aaa_mac": "AAA by client MAC", "aaa_port": "AAA by port"}


def load(path, default=None):
    try:
        with open(path) as f:
            return json.load(f)
    except (OSError, ValueError):
        return default


def source_totals(stats):
    keys = ("read", "delivered", "refused", "skipped", "bytes")
    tot = {k: 0 for k in keys}
    for s in (stats or {}).get("sources", []):
        for k in keys:
            tot[k] += s.get(k, 0)
    return tot


def progress(out):
    stats = load(os.path.join(out, "vaned.json"))
    if stats is None:
        return 1
    t = source_totals(stats)
    run_s = max([x.get("run_s", 0) for x in stats.get("sources", [])] + [0])
    rate = t["delivered"] / run_s if run_s else 0
    sys.stdout.write("\r  read %8d  delivered %8d  refused %6d  skipped %5d   (%.0f packets/s)   "
                     % (t["read"], t["delivered"], t["refused"], t["skipped"], rate))
    sys.stdout.flush()
    return 0


def done(out):
    stats = load(os.path.join(out, "vaned.json"))
    if not stats or not stats.get("sources"):
        return 1
    return 0 if all(s.get("finished") for s in stats["sources"]) else 1


def table(rows, header):
    widths = [max(len(str(r[i])) for r in rows + [header]) for i in range(len(header))]
    fmt = "  " + "  ".join("{:<%d}" % w if i == 0 else "{:>%d}" % w
                           for i, w in enumerate(widths))
    lines = [fmt.format(*header)]
    lines += [fmt.format(*[str(c) for c in r]) for r in rows]
    return "\n".join(lines)


def final(args):
    out = args.final
    cfg = yaml.safe_load(open(args.config)) or {}
    stats = load(os.path.join(out, "vaned.json"), {})
    counters = load(os.path.join(out, "counters.json"), {"vcpus": []})
    steering = load(os.path.join(out, "steering.json"), {})
    workers = []
    for path in sorted(glob.glob(os.path.join(out, "worker-*.json"))):
        w = load(path)
        if w:
            workers.append(w)
    serves = dict(x.split("=", 1) for x in args.workers)
    tot = source_totals(stats)
    # The sources' own playing time: the run's elapsed time also holds the
    # start-up, the registrations and the polling of this script.
    run_s = max([x.get("run_s", 0) for x in stats.get("sources", [])] + [0]) or args.elapsed
    report = {"sources": stats.get("sources", []), "elapsed_s": args.elapsed, "replay_s": run_s,
              "delivery_rate_pps": tot["delivered"] / max(run_s, 1e-9)}
    lines = []
    lines.append("drv_vane sample run: %d packets read, %d delivered in %.3f s of replay "
                 "(%.0f packets/s; %.1f s in all)"
                 % (tot["read"], tot["delivered"], run_s, report["delivery_rate_pps"],
                    args.elapsed))
    for s in stats.get("sources", []):
        lines.append("  source %s: read %d, delivered %d, refused %d, skipped %d%s"
                     % (s["source"], s["read"], s["delivered"], s["refused"], s["skipped"],
                        (", error: " + s["error"]) if s.get("error") else ""))

    # Packets per worker and per message type.
    lines.append("")
    lines.append("Packets per worker")
    rows = []
    for w in workers:
        types = " ".join("%s:%d" % (t, n) for t, n in sorted(w["per_type"].items(),
                                                              key=lambda kv: int(kv[0])))
        rows.append([w["name"], serves.get(w["name"], ""), w["packets"], w["bytes"],
                     w["per_channel"]["normal"], w["per_channel"]["fast"], types or "-"])
    lines.append(table(rows, ["WORKER", "SERVES", "PACKETS", "BYTES", "NORMAL", "FAST",
                              "BY MESSAGE TYPE"]))
    report["workers"] = workers

    # Packet types, from the module's WLAN counters, named by the cause IDs
    # of the configuration.
    wlan_cfg = cfg.get("wlan") or {}
    names = {}
    for e in wlan_cfg.get("cause_ids") or []:
        names.setdefault(int(e["pkt_type"]), []).append(
            "cause %s, %s" % (e["cause_id"], LB_NAMES.get(e["lb"], e["lb"])))
    by_type = {}
    for v in counters.get("vcpus", []):
        for t in v.get("wlan", []):
            by_type.setdefault(t["pkt_type"], {})[v["vcpu"]] = t["packets"]
    lines.append("")
    lines.append("Packets per packet type (stamped by the WLAN deciders)")
    rows = []
    for t in sorted(by_type):
        per = by_type[t]
        rows.append([t, "; ".join(names.get(t, ["?"])), sum(per.values()),
                     " ".join("vCPU%d:%d" % (v, n) for v, n in sorted(per.items()))])
    lines.append(table(rows, ["TYPE", "WHAT", "PACKETS", "BY vCPU"]) if rows else "  none")
    report["packet_types"] = {str(t): per for t, per in by_type.items()}

    # Decisions by decider. The module counts a packet once per vCPU it goes
    # to, and once more at the vCPU a steering table or TIMNG chose; the
    # WLAN, ECM and VP counters count their own decisions.
    rows_by_v = {v["vcpu"]: v for v in counters.get("vcpus", [])}
    wlan_at = {v: sum(p.get(v, 0) for p in by_type.values()) for v in range(64)}
    wlan_hit = sum(n for v, n in wlan_at.items() if v != 0)
    ecm = sum(v.get("ecm", 0) for v in rows_by_v.values())
    vp = sum(v.get("vp", 0) for v in rows_by_v.values())
    steered = sum((steering.get(t) or {}).get("hits", 0) for t in ("ivo", "deteption"))
    steered_at = {}
    for t in ("ivo", "deteption"):
        tab = steering.get(t) or {}
        if tab.get("hits"):
            steered_at[tab["vcpu"]] = steered_at.get(tab["vcpu"], 0) + tab["hits"]
    timng = 0
    for e in (cfg.get("timng") or {}).get("entries") or []:
        v = int(e["node"])
        r = rows_by_v.get(v, {})
        rest = (r.get("dispatched", 0) - wlan_at.get(v, 0) - r.get("ecm", 0) - r.get("vp", 0)
                - 2 * steered_at.get(v, 0))
        timng += max(rest, 0) // 2
    to_vcpus = sum(r.get("dispatched", 0) for v, r in rows_by_v.items() if v != 0)
    to_vcpus -= steered + timng
    received = sum(w["packets"] for w in workers)
    decided = {"steering tables": steered, "TIMNG": timng, "WLAN tables": wlan_hit,
               "ECM (vCPU byte)": ecm, "VP (vCPU byte)": vp,
               "WLAN miss (to the default receiver)": wlan_at.get(0, 0),
               "default receiver (all)": max(received - to_vcpus, 0)}
    lines.append("")
    lines.append("Decisions by decider (messages)")
    lines.append(table([[k, n] for k, n in decided.items()], ["DECIDER", "MESSAGES"]))
    report["deciders"] = decided

    # Fragments: every fragmented datagram must have reached one worker.
    seen = {}
    for w in workers:
        for k in w.get("fragment_keys", []):
            seen.setdefault((k["src"], k["dst"], k["id"]), set()).add(w["name"])
    split = [k for k, ws in seen.items() if len(ws) > 1]
    lines.append("")
    lines.append("Fragments: %d fragmented datagrams, %d kept on one worker, %d split"
                 % (len(seen), len(seen) - len(split), len(split)))
    report["fragments"] = {"datagrams": len(seen), "split": len(split)}

    # What was lost, and where.
    lost_workers = sum(w["lost"] for w in workers)
    dropped = sum(c.get("dropped", 0) for ch in stats.get("channels", [])
                  for c in ch.get("clients", []))
    refused = {k: n for k, n in (stats.get("delivery") or {}).items() if int(k) < 0}
    lines.append("")
    lines.append("Lost: %d messages dropped at full worker queues (the workers counted %d), "
                 "%d packets refused by the dispatcher%s, %d frames skipped by the source"
                 % (dropped, lost_workers, tot["refused"],
                    (" " + json.dumps(refused)) if refused else "", tot["skipped"]))
    lines.append("Received by the workers: %d messages for %d packets delivered"
                 % (received, tot["delivered"]))
    report["lost"] = {"dropped": dropped, "workers_counted": lost_workers,
                      "refused": tot["refused"], "skipped": tot["skipped"]}
    print("\n".join(lines))
    with open(os.path.join(out, "report.json"), "w") as f:
        json.dump(report, f, indent=2)
    if args.strict:
        # What the built-in sample must show; the run script's short mode
        # (the test suite) fails on any of it.
        problems = []
        if tot["delivered"] == 0 or tot["delivered"] != tot["read"]:
            problems.append("%d of %d packets delivered" % (tot["delivered"], tot["read"]))
        problems += ["worker %s received nothing" % w["name"] for w in workers
                     if w["packets"] == 0]
        if len(workers) != len(serves):
            problems.append("%d worker reports for %d workers" % (len(workers), len(serves)))
        if split or not seen:
            problems.append("%d of %d fragmented datagrams split" % (len(split), len(seen)))
        if dropped or lost_workers:
            problems.append("messages lost")
        if received < tot["delivered"]:
            problems.append("the workers received fewer messages than were delivered")
        for p in problems:
            print("report: " + p, file=sys.stderr)
        return 1 if problems else 0
    return 0


def main():
    p = argparse.ArgumentParser()
    p.add_argument("--progress")
    p.add_argument("--done")
    p.add_argument("--final")
    p.add_argument("--config")
    p.add_argument("--elapsed", type=float, default=0.0)
    p.add_argument("--workers", nargs="*", default=[])
    p.add_argument("--strict", action="store_true",
                   help="exit 1 unless the run shows what the built-in sample must")
    a = p.parse_args()
    if a.progress:
        return progress(a.progress)
    if a.done:
        return done(a.done)
    if a.final:
        return final(a)
    p.print_usage()
    return 2


if __name__ == "__main__":
    sys.exit(main())
