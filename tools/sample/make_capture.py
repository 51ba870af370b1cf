#!/usr/bin/python3
"""Writes the sample capture of `bash tools/run.sh`: the traffic of the small
wireless controller that tools/sample/wlc.yaml describes, as a pcapng file.

The network: controller 10.0.0.1, access points 10.1.0.11-14 with CAPWAP
control (UDP 5246) and data (UDP 5247) tunnels from ports 12222/12223,
RADIUS server 10.0.0.2 (1812/1813, CoA 3799), Portal server 10.0.0.3
(UDP 2000), a timing master 10.0.0.9 (UDP 319), DHCP clients behind the
access points, and the board's internal ECM frames.

The capture holds, in both directions where the protocol has two:
  - CAPWAP control: discovery, join and echo requests and responses with
    their message elements;
  - CAPWAP data carrying 802.3 frames, some too large for one IPv4 packet and
    fragmented (2 to 4 fragments, in order);
  - CAPWAP data keep-alives (K flag) with each access point's session ID;
  - RADIUS Access-Request/Accept, Accounting-Request/Response, CoA-Request/ACK;
  - DHCP discover/offer/request/ack of several clients;
  - Portal requests and acknowledgements, PTP Sync and Delay_Req, ICMP echo,
    ARP, and ECM frames (VLAN tag, EtherType 0x06A4, vCPU byte).

The output is deterministic: a fixed seed and fixed time stamps spread over a
few seconds. Needs python3 with scapy (Debian: python3-scapy).

usage: make_capture.py [--count N] [--out FILE] [--seed S] [--seconds T]
"""

import argparse
import random
import struct
import sys

from scapy.layers.dhcp import BOOTP, DHCP
from scapy.layers.inet import ICMP, IP, UDP, fragment
from scapy.layers.l2 import ARP, Dot1Q, Ether
from scapy.layers.radius import Radius, RadiusAttribute
from scapy.packet import Raw
from scapy.utils import PcapNgWriter

WLC_IP = "10.0.0.1"
WLC_MAC = "00:16:3e:00:00:01"
RADIUS_IP = "10.0.0.2"
RADIUS_MAC = "00:16:3e:00:00:02"
PORTAL_IP = "10.0.0.3"
PORTAL_MAC = "00:16:3e:00:00:03"
PTP_IP = "10.0.0.9"
PTP_MAC = "00:16:3e:00:00:09"
CONTROL_PORT = 5246
DATA_PORT = 5247
AP_CONTROL_PORT = 12222
AP_DATA_PORT = 12223
START = 1767225600  # 2026-01-01 00:00:00 UTC
# Source ports of the clients' own traffic inside the data tunnels.
CLIENT_PORTS = (50412, 51876, 53190, 54622, 56018, 57344)

# The access points of wlc.yaml: address, MAC, keep-alive session ID.
APS = [
    ("10.1.0.%d" % n, "00:1a:1e:00:00:%02x" % n,
     bytes.fromhex("0a01%04x%024x" % (n, n - 10)))
    for n in (11, 12, 13, 14)
]

# CAPWAP message types and message element types.
DISCOVERY_REQUEST, DISCOVERY_RESPONSE = 1, 2
JOIN_REQUEST, JOIN_RESPONSE = 3, 4
ECHO_REQUEST, ECHO_RESPONSE = 13, 14
ME_AC_DESCRIPTOR = 1
ME_AC_NAME = 4
ME_CONTROL_IPV4 = 10
ME_DISCOVERY_TYPE = 20
ME_LOCATION = 28
ME_LOCAL_IPV4 = 30
ME_RESULT_CODE = 33
ME_SESSION_ID = 35
ME_WTP_BOARD_DATA = 38
ME_WTP_DESCRIPTOR = 39
ME_FRAME_TUNNEL_MODE = 41
ME_WTP_MAC_TYPE = 44
ME_WTP_NAME = 45


def element(etype, value):
    return struct.pack("!HH", etype, len(value)) + value


def capwap_header(wbid=1, keep_alive=False, t_flag=False):
    """The 8-byte CAPWAP header: preamble 0, HLEN 2, RID 0."""
    word = (2 << 19) | (wbid << 9) | (0x100 if t_flag else 0) | (0x08 if keep_alive else 0)
    return struct.pack("!II", word, 0)


def capwap_control(msg_type, seq, elements):
    body = b"".join(elements)
    # Message element length counts the flags byte and the elements.
    return capwap_header() + struct.pack("!IBHB", msg_type, seq, len(body) + 1, 0) + body


def board_data(serial):
    sub = struct.pack("!HH", 0, 8) + b"VN-AP200" + struct.pack("!HH", 1, len(serial)) + serial
    return element(ME_WTP_BOARD_DATA, struct.pack("!I", 0) + sub)


def wtp_descriptor():
    version = b"1.0.0"
    value = struct.pack("!BBB", 1, 1, 1) + struct.pack("!BH", 1, 0)  # radios, one encryption
    value += struct.pack("!IHH", 0, 0, len(version)) + version        # hardware version
    value += struct.pack("!IHH", 0, 1, len(version)) + version        # software version
    value += struct.pack("!IHH", 0, 2, len(version)) + version        # boot version
    return element(ME_WTP_DESCRIPTOR, value)


def ac_descriptor():
    version = b"2.1.0"
    value = struct.pack("!HHHHBBBB", 4, 4, 64, 32, 0, 0x06, 0, 0x04)
    value += struct.pack("!IHH", 0, 4, len(version)) + version
    value += struct.pack("!IHH", 0, 5, len(version)) + version
    return element(ME_AC_DESCRIPTOR, value)


def ap_control_request(ap, msg_type, seq):
    ip, _, session = ap
    if msg_type == DISCOVERY_REQUEST:
        return capwap_control(msg_type, seq, [
            element(ME_DISCOVERY_TYPE, b"\x01"),
            board_data(("SN%s" % ip.split(".")[-1]).encode()),
            wtp_descriptor(),
            element(ME_FRAME_TUNNEL_MODE, b"\x04"),
            element(ME_WTP_MAC_TYPE, b"\x01"),
        ])
    if msg_type == JOIN_REQUEST:
        return capwap_control(msg_type, seq, [
            element(ME_LOCATION, b"building 1, floor %s" % ip.split(".")[-1].encode()),
            board_data(("SN%s" % ip.split(".")[-1]).encode()),
            wtp_descriptor(),
            element(ME_WTP_NAME, ("ap-%s" % ip.split(".")[-1]).encode()),
            element(ME_SESSION_ID, session),
            element(ME_FRAME_TUNNEL_MODE, b"\x04"),
            element(ME_WTP_MAC_TYPE, b"\x01"),
            element(ME_LOCAL_IPV4, bytes(int(x) for x in ip.split("."))),
        ])
    return capwap_control(ECHO_REQUEST, seq, [])


def ac_control_response(msg_type, seq):
    if msg_type == DISCOVERY_RESPONSE:
        return capwap_control(msg_type, seq, [
            ac_descriptor(),
            element(ME_AC_NAME, b"wlc-1"),
            element(ME_CONTROL_IPV4, bytes([10, 0, 0, 1]) + struct.pack("!H", 4)),
        ])
    if msg_type == JOIN_RESPONSE:
        return capwap_control(msg_type, seq, [
            element(ME_RESULT_CODE, struct.pack("!I", 0)),
            ac_descriptor(),
            element(ME_AC_NAME, b"wlc-1"),
            element(ME_CONTROL_IPV4, bytes([10, 0, 0, 1]) + struct.pack("!H", 4)),
        ])
    return capwap_control(ECHO_RESPONSE, seq, [])


def keep_alive(session):
    # Message element length 22: itself, then the session ID element.
    return capwap_header(keep_alive=True) + struct.pack("!H", 22) + element(ME_SESSION_ID, session)


class Capture:
    """Builds conversations; each is a list of frames that stay together."""

    def __init__(self, rng):
        self.rng = rng
        self.ip_id = 0x1000
        self.seq = 0
        self.clients = ["02:c1:00:00:%02x:%02x" % (a, b) for a in range(2) for b in range(1, 9)]

    def next_id(self):
        self.ip_id = (self.ip_id + 1) & 0xFFFF
        return self.ip_id

    def next_seq(self):
        self.seq = (self.seq + 1) & 0xFF
        return self.seq

    def udp(self, smac, dmac, src, dst, sport, dport, payload):
        return (Ether(src=smac, dst=dmac) / IP(src=src, dst=dst, id=self.next_id(), ttl=64) /
                UDP(sport=sport, dport=dport) / payload)

    def ap(self):
        return APS[self.rng.randrange(len(APS))]

    def capwap_control(self):
        ap = self.ap()
        ip, mac, _ = ap
        req = self.rng.choice([DISCOVERY_REQUEST, JOIN_REQUEST, ECHO_REQUEST, ECHO_REQUEST])
        seq = self.next_seq()
        return [
            self.udp(mac, WLC_MAC, ip, WLC_IP, AP_CONTROL_PORT, CONTROL_PORT,
                     Raw(ap_control_request(ap, req, seq))),
            self.udp(WLC_MAC, mac, WLC_IP, ip, CONTROL_PORT, AP_CONTROL_PORT,
                     Raw(ac_control_response(req + 1, seq))),
        ]

    def client_frame(self, size):
        client = self.rng.choice(self.clients)
        inner = (Ether(src=client, dst="00:16:3e:00:00:fe") /
                 IP(src="192.168.10.%d" % self.rng.randrange(2, 250), dst="192.168.1.10",
                    id=self.rng.randrange(65536)) /
                 UDP(sport=self.rng.choice(CLIENT_PORTS), dport=443))
        # Record-layer-like bytes: random ones would trip other protocols'
        # heuristics in a dissector and read as malformed.
        body = b"\x17\x03\x03" + bytes(self.rng.randrange(256) for _ in range(size - 3))
        return bytes(inner / Raw(body))

    def capwap_data(self):
        ip, mac, _ = self.ap()
        up = self.udp(mac, WLC_MAC, ip, WLC_IP, AP_DATA_PORT, DATA_PORT,
                      Raw(capwap_header() + self.client_frame(self.rng.randrange(60, 900))))
        down = self.udp(WLC_MAC, mac, WLC_IP, ip, DATA_PORT, AP_DATA_PORT,
                        Raw(capwap_header() + self.client_frame(self.rng.randrange(60, 900))))
        return [up, down]

    def capwap_fragmented(self):
        ip, mac, _ = self.ap()
        pieces = self.rng.randrange(2, 5)
        # Sized so that the datagram needs exactly `pieces` fragments of 1480.
        size = 1480 * (pieces - 1) + self.rng.randrange(200, 1300) - 8 - 8 - 42
        pkt = self.udp(mac, WLC_MAC, ip, WLC_IP, AP_DATA_PORT, DATA_PORT,
                       Raw(capwap_header() + self.client_frame(size)))
        frags = fragment(pkt[IP], fragsize=1480)
        assert len(frags) == pieces, (len(frags), pieces)
        return [Ether(src=mac, dst=WLC_MAC) / f for f in frags]

    def keep_alives(self):
        ip, mac, session = self.ap()
        return [
            self.udp(mac, WLC_MAC, ip, WLC_IP, AP_DATA_PORT, DATA_PORT, Raw(keep_alive(session))),
            self.udp(WLC_MAC, mac, WLC_IP, ip, DATA_PORT, AP_DATA_PORT, Raw(keep_alive(session))),
        ]

    def radius(self):
        client = self.rng.choice(self.clients)
        ident = self.rng.randrange(256)
        auth = bytes(self.rng.randrange(256) for _ in range(16))
        sport = self.rng.randrange(32768, 61000)
        user = ("user%02d" % self.rng.randrange(1, 40)).encode()
        if self.rng.random() < 0.6:
            attrs = [RadiusAttribute(type=1, value=user),
                     RadiusAttribute(type=2, value=bytes(16)),
                     RadiusAttribute(type=4, value=bytes([10, 0, 0, 1])),
                     RadiusAttribute(type=31, value=client.replace(":", "-").encode())]
            req = Radius(code=1, id=ident, authenticator=auth, attributes=attrs)
            rsp = Radius(code=2, id=ident, authenticator=auth,
                         attributes=[RadiusAttribute(type=27, value=struct.pack("!I", 3600))])
            port = 1812
        else:
            attrs = [RadiusAttribute(type=40, value=struct.pack("!I", self.rng.choice([1, 2, 3]))),
                     RadiusAttribute(type=1, value=user),
                     RadiusAttribute(type=44, value=("%08X" % self.rng.randrange(1 << 32)).encode())]
            req = Radius(code=4, id=ident, authenticator=auth, attributes=attrs)
            rsp = Radius(code=5, id=ident, authenticator=auth)
            port = 1813
        return [
            self.udp(WLC_MAC, RADIUS_MAC, WLC_IP, RADIUS_IP, sport, port, req),
            self.udp(RADIUS_MAC, WLC_MAC, RADIUS_IP, WLC_IP, port, sport, rsp),
        ]

    def coa(self):
        ident = self.rng.randrange(256)
        auth = bytes(self.rng.randrange(256) for _ in range(16))
        sport = self.rng.randrange(32768, 61000)
        user = ("user%02d" % self.rng.randrange(1, 40)).encode()
        req = Radius(code=43, id=ident, authenticator=auth,
                     attributes=[RadiusAttribute(type=1, value=user),
                                 RadiusAttribute(type=27, value=struct.pack("!I", 600))])
        ack = Radius(code=44, id=ident, authenticator=auth)
        return [
            self.udp(RADIUS_MAC, WLC_MAC, RADIUS_IP, WLC_IP, sport, 3799, req),
            self.udp(WLC_MAC, RADIUS_MAC, WLC_IP, RADIUS_IP, 3799, sport, ack),
        ]

    def dhcp(self):
        client = self.rng.choice(self.clients)
        chaddr = bytes(int(x, 16) for x in client.split(":"))
        xid = self.rng.randrange(1 << 32)
        offered = "192.168.10.%d" % self.rng.randrange(20, 250)
        frames = []
        for kind in ("discover", "offer", "request", "ack"):
            from_client = kind in ("discover", "request")
            opts = [("message-type", kind)]
            if kind == "request":
                opts += [("requested_addr", offered), ("server_id", WLC_IP)]
            if not from_client:
                opts += [("server_id", WLC_IP), ("lease_time", 3600),
                         ("subnet_mask", "255.255.255.0"), ("router", "192.168.10.1")]
            boot = BOOTP(op=1 if from_client else 2, chaddr=chaddr, xid=xid,
                         yiaddr="0.0.0.0" if from_client else offered)
            payload = boot / DHCP(options=opts + ["end"])
            if from_client:
                frames.append(self.udp(client, "ff:ff:ff:ff:ff:ff", "0.0.0.0", "255.255.255.255",
                                       68, 67, payload))
            else:
                frames.append(self.udp(WLC_MAC, "ff:ff:ff:ff:ff:ff", WLC_IP, "255.255.255.255",
                                       67, 68, payload))
        return frames

    def portal(self):
        user_ip = bytes([192, 168, 10, self.rng.randrange(20, 250)])
        serial = self.rng.randrange(65536)
        # Version 2: type, auth method, reserved, serial, request id, user IP,
        # user port, error code, attribute count, authenticator.
        auth = bytes(self.rng.randrange(256) for _ in range(16))
        req = struct.pack("!BBBBHH4sHBB", 2, 3, 0, 0, serial, 0, user_ip, 0, 0, 0) + auth
        ack = struct.pack("!BBBBHH4sHBB", 2, 4, 0, 0, serial, 0, user_ip, 0, 0, 0) + auth
        sport = self.rng.randrange(32768, 61000)
        return [
            self.udp(PORTAL_MAC, WLC_MAC, PORTAL_IP, WLC_IP, sport, 2000, Raw(req)),
            self.udp(WLC_MAC, PORTAL_MAC, WLC_IP, PORTAL_IP, 2000, sport, Raw(ack)),
        ]

    def ptp(self):
        seq = self.next_seq()

        def message(msg_type, port_id):
            # PTPv2 header (34 bytes) and a 10-byte origin time stamp.
            header = struct.pack("!BBHBBHQI8sHHBb", msg_type, 2, 44, 0, 0, 0, 0, 0,
                                 port_id, 1, seq, 0 if msg_type == 0 else 1, 0)
            return header + struct.pack("!HII", 0, START, 0)

        return [
            self.udp(PTP_MAC, WLC_MAC, PTP_IP, WLC_IP, 319, 319,
                     Raw(message(0x0, bytes.fromhex("00163efffe000009")))),
            self.udp(WLC_MAC, PTP_MAC, WLC_IP, PTP_IP, 319, 319,
                     Raw(message(0x1, bytes.fromhex("00163efffe000001")))),
        ]

    def icmp(self):
        ip, mac, _ = self.ap()
        ident, seq = self.rng.randrange(65536), self.next_seq()
        data = bytes(range(32))
        return [
            Ether(src=mac, dst=WLC_MAC) / IP(src=ip, dst=WLC_IP, id=self.next_id()) /
            ICMP(type=8, id=ident, seq=seq) / Raw(data),
            Ether(src=WLC_MAC, dst=mac) / IP(src=WLC_IP, dst=ip, id=self.next_id()) /
            ICMP(type=0, id=ident, seq=seq) / Raw(data),
        ]

    def arp(self):
        ip, mac, _ = self.ap()
        return [
            Ether(src=mac, dst="ff:ff:ff:ff:ff:ff") /
            ARP(op=1, hwsrc=mac, psrc=ip, pdst=WLC_IP),
            Ether(src=WLC_MAC, dst=mac) / ARP(op=2, hwsrc=WLC_MAC, psrc=WLC_IP, hwdst=mac, pdst=ip),
        ]

    def ecm(self):
        vcpu = self.rng.choice([1, 2, 3, 4, 5, 6, 7])
        body = bytes([0x0A, 0x0B, 0x0C, vcpu]) + bytes(self.rng.randrange(256) for _ in range(30))
        return [Ether(src="00:00:00:00:00:02", dst="0a:0b:0b:00:00:01") /
                Dot1Q(vlan=1, type=0x06A4) / Raw(body)]


# Conversation kinds and their weights in the mix.
KINDS = [
    ("capwap_control", 6), ("capwap_data", 14), ("capwap_fragmented", 3), ("keep_alives", 4),
    ("radius", 4), ("coa", 1), ("dhcp", 2), ("portal", 2), ("ptp", 3), ("icmp", 2), ("arp", 1),
    ("ecm", 2),
]


def build(count, seed, seconds):
    rng = random.Random(seed)
    cap = Capture(rng)
    frames = []
    # One of each kind first, so that even a short capture holds them all.
    for name, _ in KINDS:
        frames += getattr(cap, name)()
    if len(frames) > count:
        sys.exit("make_capture: --count must be at least %d" % len(frames))
    names = [k for k, _ in KINDS]
    weights = [w for _, w in KINDS]
    while len(frames) < count:
        group = getattr(cap, rng.choices(names, weights)[0])()
        if len(frames) + len(group) > count:
            group = cap.ecm() if count - len(frames) == 1 else cap.arp()
            group = group[: count - len(frames)]
        frames += group
    # Evenly spread, in order, with a little jitter that keeps the order.
    step = seconds / count
    for i, f in enumerate(frames):
        f.time = START + i * step + rng.random() * step * 0.5
    return frames


def main():
    ap = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    ap.add_argument("--count", type=int, default=3000, help="frames to write (default 3000)")
    ap.add_argument("--out", default="sample.pcapng", help="output file (default sample.pcapng)")
    ap.add_argument("--seed", type=int, default=5246, help="random seed (default 5246)")
    ap.add_argument("--seconds", type=float, default=5.0,
                    help="time the capture spans (default 5)")
    args = ap.parse_args()
    frames = build(args.count, args.seed, args.seconds)
    writer = PcapNgWriter(args.out)
    for f in frames:
        writer.write(f)
    writer.close()
    print("make_capture: %d frames in %s" % (len(frames), args.out))


if __name__ == "__main__":
    main()
