#!/usr/bin/python3
"""Generates the sample capture and checks, with tshark, that it holds what
the sample configuration expects: every protocol dissected as itself, in both
directions where it has two, keep-alives with the configured session IDs,
IPv4 fragments that reassemble, the exact frame count, and the same bytes on
every run.

usage: check_capture.py MAKE_CAPTURE TSHARK
"""

import collections
import os
import subprocess
import sys
import tempfile

COUNT = 1500
SESSIONS = {"0a01%04x%024x" % (n, n - 10) for n in (11, 12, 13, 14)}
FIELDS = [
    "frame.number", "frame.time_epoch", "frame.protocols", "_ws.malformed", "eth.src",
    "vlan.etype", "arp.opcode", "ip.id", "ip.flags.mf", "ip.frag_offset", "ip.reassembled_in",
    "icmp.type", "udp.srcport", "udp.dstport", "capwap.control.header.message_type",
    "capwap.header.flags.k", "capwap.control.message_element.session_id", "radius.code",
    "dhcp.option.dhcp", "dhcp.hw.mac_addr", "ptp.v2.messagetype",
]

failures = []


def check(ok, what):
    if not ok:
        failures.append(what)


def generate(make, path):
    subprocess.run([sys.executable, make, "--count", str(COUNT), "--out", path], check=True,
                   stdout=subprocess.DEVNULL)


def dissect(tshark, path):
    cmd = [tshark, "-2", "-r", path, "-T", "fields", "-E", "occurrence=f", "-E", "separator=\t"]
    for f in FIELDS:
        cmd += ["-e", f]
    out = subprocess.run(cmd, check=True, capture_output=True, text=True).stdout
    return [dict(zip(FIELDS, line.split("\t"))) for line in out.splitlines()]


def main():
    make, tshark = sys.argv[1], sys.argv[2]
    with tempfile.TemporaryDirectory(prefix="vane-capture-") as tmp:
        first, second = os.path.join(tmp, "a.pcapng"), os.path.join(tmp, "b.pcapng")
        generate(make, first)
        generate(make, second)
        with open(first, "rb") as a, open(second, "rb") as b:
            check(a.read() == b.read(), "two runs with the same options differ")
        frames = dissect(tshark, first)

    check(len(frames) == COUNT, "%d frames, not %d" % (len(frames), COUNT))
    check(not [f for f in frames if f["_ws.malformed"]], "malformed frames")
    times = [float(f["frame.time_epoch"]) for f in frames]
    check(times == sorted(times) and 1 < times[-1] - times[0] < 30,
          "time stamps not in order over a few seconds")

    def has(proto, f):
        return proto in f["frame.protocols"].split(":")

    def udp(f, port):
        return port in (f["udp.srcport"], f["udp.dstport"])

    def both_ways(frames_, port):
        return ({f["udp.srcport"] == port for f in frames_} == {True, False})

    def not_fragment(f):
        return f["ip.flags.mf"] in ("", "0", "False") and f["ip.frag_offset"] in ("", "0")

    whole = [f for f in frames if not_fragment(f)]
    control = [f for f in whole if udp(f, "5246")]
    check(control and all(has("capwap", f) and f["capwap.control.header.message_type"]
                          for f in control), "CAPWAP control not dissected as such")
    check(both_ways(control, "5246"), "CAPWAP control in one direction only")
    types = {int(f["capwap.control.header.message_type"], 0) & 0xFF for f in control}
    check({1, 2, 3, 4, 13, 14} <= types, "CAPWAP control message types: %s" % sorted(types))

    data = [f for f in whole if udp(f, "5247")]
    check(data and all(has("capwap.data", f) for f in data), "CAPWAP data not dissected")
    check(both_ways(data, "5247"), "CAPWAP data in one direction only")
    check(any(has("eth", f) and f["frame.protocols"].count("eth") == 2 for f in data),
          "no 802.3 frame inside CAPWAP data")
    ka = [f for f in data if f["capwap.header.flags.k"] in ("1", "True")]
    check(ka and both_ways(ka, "5247"), "keep-alives missing or one way")
    sessions = {f["capwap.control.message_element.session_id"].replace(":", "") for f in ka}
    check(sessions == SESSIONS, "keep-alive session IDs %s" % sorted(sessions))

    radius = [f for f in whole if udp(f, "1812") or udp(f, "1813") or udp(f, "3799")]
    check(radius and all(has("radius", f) for f in radius), "RADIUS not dissected")
    codes = {f["radius.code"] for f in radius}
    check({"1", "2", "4", "5", "43", "44"} <= codes, "RADIUS codes %s" % sorted(codes))

    dhcp = [f for f in whole if udp(f, "67")]
    check(dhcp and all(has("dhcp", f) for f in dhcp), "DHCP not dissected")
    check({"1", "2", "3", "5"} <= {f["dhcp.option.dhcp"] for f in dhcp}, "DHCP message types")
    check(len({f["dhcp.hw.mac_addr"] for f in dhcp}) >= 3, "DHCP from fewer than 3 clients")

    check(both_ways([f for f in whole if udp(f, "2000")], "2000"), "Portal traffic missing")
    ptp = [f for f in whole if udp(f, "319")]
    check(ptp and all(has("ptp", f) for f in ptp), "PTP not dissected")
    check({f["icmp.type"] for f in frames if has("icmp", f)} == {"0", "8"}, "ICMP echo")
    check({f["arp.opcode"] for f in frames if has("arp", f)} == {"1", "2"}, "ARP")
    check(any(has("vlan", f) and int(f["vlan.etype"], 0) == 0x06A4 for f in frames),
          "no ECM frame")

    # Fragments: every datagram in 2..4 fragments, in order, reassembled into
    # CAPWAP data by its last fragment.
    by_datagram = collections.defaultdict(list)
    for f in frames:
        if not not_fragment(f):
            by_datagram[(f["eth.src"], f["ip.id"])].append(f)
    check(by_datagram, "no fragmented datagram")
    number = {f["frame.number"]: f for f in frames}
    for key, frags in by_datagram.items():
        offsets = [int(f["ip.frag_offset"]) for f in frags]
        check(2 <= len(frags) <= 4 and offsets == sorted(offsets) and offsets[0] == 0,
              "datagram %s: fragments at %s" % (key, offsets))
        last = frags[-1]
        check(all(f["ip.reassembled_in"] == last["frame.number"] for f in frags[:-1]),
              "datagram %s does not reassemble" % (key,))
        check(has("capwap.data", number[last["frame.number"]]),
              "datagram %s is not CAPWAP data" % (key,))

    for f in failures:
        print("FAIL:", f)
    print("%d frames checked, %d failures" % (len(frames), len(failures)))
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
