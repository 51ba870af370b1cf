#!/usr/bin/env python3
"""Writes the seed corpora of the fuzz targets (fuzz/corpus/<target>/): valid
control messages of every id, a working configuration with packets of every
kind the dispatcher tells apart, and file operations on every file.

Run it again after changing the input formats of the targets; the seeds are
committed, so a fuzz run needs no Python."""
import os
import struct

HERE = os.path.dirname(os.path.abspath(__file__))

NLM_F_REQUEST, NLM_F_ACK = 0x1, 0x4
MSG_TYPE = 18
ECM_ETHNUM, MC_ETHNUM, VP_ETHNUM = 7, 20, 30


def u16(v): return struct.pack('<H', v)
def u32(v): return struct.pack('<I', v)
def be16(v): return struct.pack('>H', v)
def block(b): return u16(len(b)) + b


def control(msg_id, payload, len_field=None):
    ln = 24 + len(payload)
    head = struct.pack('<IHHII', ln, MSG_TYPE, NLM_F_REQUEST | NLM_F_ACK, 1, 0)
    return head + u32(msg_id) + u32(len(payload) if len_field is None else len_field) + payload


def config(dispatch=1, board=0, no_hg=0, ecm_vp_only=0):
    slots = [0] * 22
    slots[0] = 0            # HiGig2 header at 0
    slots[1] = 16           # Ethernet header after it
    slots[7], slots[15] = MC_ETHNUM, MC_ETHNUM + 3
    slots[8] = ECM_ETHNUM
    slots[9], slots[18] = VP_ETHNUM, VP_ETHNUM + 3
    slots[10] = dispatch
    slots[11] = board
    slots[12] = 34          # inner frame of a marked VP fragment
    slots[14] = 0           # cause ID at 18-19
    slots[16] = 60          # first-fragment mark
    slots[17] = 30          # inner frame of a direct VP packet
    slots[19] = ecm_vp_only
    slots[20] = no_hg
    slots[21] = 22
    return b''.join(u32(s) for s in slots)


def ipv4_udp(sport, dport, frag=0, payload=b'\0' * 16, proto=17):
    udp = be16(sport) + be16(dport) + be16(8 + len(payload)) + be16(0) + payload
    body = udp if proto == 17 else payload
    total = 20 + len(body)
    ip = bytes([0x45, 0]) + be16(total) + be16(0x1234) + be16(frag) + bytes([64, proto]) + \
        be16(0) + bytes([10, 0, 0, 1, 10, 0, 0, 2])
    return be16(0x0800) + ip + body


def ether(dst, src=b'\x00\x11\x22\x33\x44\x55', vlan=None):
    tag = be16(0x8100) + be16(vlan) if vlan is not None else b''
    return dst + src + tag


def prefix(ethnum, word0=0): return u32(word0) + u32(0) + u32(ethnum)


def higig(cause=0x2a):
    hg = bytearray(16)
    hg[0] = 0xfb
    return bytes(hg)


CAPWAP_KA = bytes([0x00, 0x10, 0x43, 0x08]) + b'\0' * 4 + be16(22) + be16(35) + be16(16) + \
    bytes(range(16))


def packets():
    mc_dst = b'\x00\xaa\xbb\xcc\xdd\xee'
    yield 0, 0, prefix(ECM_ETHNUM) + ether(b'\x0a\x0b\x0b\x00\x00\x01', vlan=1) + be16(0x06a4) + \
        b'\x0a\x0b\x0c\x05' + b'\0' * 40
    yield 0, 0, prefix(1) + ether(mc_dst) + ipv4_udp(0, 0, proto=1, payload=b'\x08\0\0\0\0\1\0\1')
    for sport, dport in ((5246, 5246), (5247, 5247), (1812, 1812), (3799, 3799), (68, 67)):
        yield 0, 0, prefix(MC_ETHNUM) + higig() + ether(mc_dst) + ipv4_udp(sport, dport)
    yield 0, 0, prefix(MC_ETHNUM) + higig() + ether(mc_dst) + ipv4_udp(5247, 5247, payload=CAPWAP_KA)
    for frag in (0x2000, 0x2010, 0x0020):  # first, middle, last
        yield 0, 0, prefix(MC_ETHNUM) + higig() + ether(mc_dst) + ipv4_udp(5246, 5246, frag=frag)
    for mark in (0x07, 0x3d):
        inner = ether(mc_dst) + ipv4_udp(5246, 5246, frag=0x2000)
        yield 0, 0, prefix(MC_ETHNUM) + higig() + ether(b'\x0a\x0b\x0b' + bytes([mark, 0, 0])) + \
            be16(0x06a4) + b'\0' * 16 + inner
    yield 1, 0, prefix(VP_ETHNUM) + ether(b'\x0a\x0b\x0b\x00\x00\x01', vlan=1) + be16(0x06a4) + \
        b'\x0a\x0b\x0c\x09' + b'\0' * 60


def lb(set_type, head, body=b''):
    return u32(set_type) + u32(head) + body


def lb_capwap(sip, dport, process, op=1):
    return lb(0, 0, u32(sip) + u32(0x0a000002) + u16(5246) + u16(dport) + bytes([0, 0, 0, 0]) +
              u32(process) + bytes([op, 0, 0, 0]))


def lb_messages():
    """One LB message of every set type, in an order that fills every table."""
    return {
        'lb_capwap': lb_capwap(0x0a000001, 5247, 12),
        'lb_capwap_wild': lb_capwap(0xffffffff, 5248, 3),
        'lb_capwap_delete': lb_capwap(0x0a000001, 5247, 0, op=2),
        'lb_capwap_ka': lb(1, 0, bytes(range(1, 17)) + u32(7) + bytes([1, 0, 0, 0])),
        'lb_nac': lb(2, 3, u16(3) + u16(0) + u32(20) + u32(21) + u32(22) + bytes(52)),
        'lb_portal': lb(3, 0, u16(8080) + u16(0) + u32(3) + bytes(4)),
        'lb_socket_port': lb(4, 0, u16(1) + u16(0) + u16(1812) + bytes([0, 1]) + u32(0) + u32(0)),
        'lb_board_type': lb(5, 3),
        'lb_cause_ids': lb(6, 2, u32(300) + u32(4) + u32(1) + u32(303) + u32(7) + u32(4)),
    }


def capture_block(total, filters=0, udf1=(0, 0), eth_type=0, src_ip=0):
    """The 92-byte capture control block (little-endian, host-order values)."""
    b = struct.pack('<BBHHHHHHHHHHHHH6s6sII16s16sIIB2sB', 0, 0, 0, total, total, 0, 0, 0, 0,
                    udf1[0], udf1[1], 0, 0, 0, eth_type, b'\0' * 6, b'\0' * 6, src_ip, 0,
                    b'\0' * 16, b'\0' * 16, filters, 0, 1, b'\0\0', 0)
    assert len(b) == 92
    return b


def write(target, name, data):
    d = os.path.join(HERE, 'corpus', target)
    os.makedirs(d, exist_ok=True)
    with open(os.path.join(d, name), 'wb') as f:
        f.write(data)


def main():
    # Control messages, one seed per id family, from each sender and channel.
    ctrl = {
        'register': control(0, u32(26) + u32(0)),
        'register_vcpu': control(0, u32(27) + u32(7)),
        'config': control(5, config()),
        'debug_level': control(6, bytes([12, 0, 0, 0])),
        'handler_id3': control(3, b'\x01\x02\x03\x04'),
        'wlan_lb': control(10, u32(1) + u32(16) + bytes(16)),
        'steering': control(11, u32(1) + u32(0) + u32(9) + u32(2) + u16(100) + u16(101) +
                            b'\0' * 36 + u16(200) + u16(210)),
        'timng': control(14, u32(300) + u32(4) + u32(1) + u32(1)),
        'timng_master': control(15, u32(0) + u32(0) + u32(1) + u32(0)),
        'short_len_field': control(5, config(), len_field=1000),
    }
    for name, payload in lb_messages().items():
        ctrl[name] = control(10, payload)
    for name, msg in ctrl.items():
        write('control', name, bytes([0]) + block(msg) + bytes([3]) + block(msg))
    write('control', 'lb_all', b''.join(bytes([0]) + block(control(10, p))
                                        for p in lb_messages().values()))
    # Packets under configurations.
    # The first family also turns on the per-packet trace and packet dumps.
    for cname, cfg, debug in (('hg', config(), 0x84), ('nohg', config(no_hg=1), 0),
                              ('vpfrag', config(board=37), 0),
                              ('ecmvponly', config(ecm_vp_only=1, no_hg=1), 0)):
        for i, (sel, typ, buf) in enumerate(packets()):
            write('packet', '%s_%02d' % (cname, i),
                  cfg + bytes([debug, sel]) + u32(typ) + block(buf))
    # Files: read each of the first files whole, write levels, with traffic.
    ops = b''
    for f in range(9):
        ops += bytes([0, f]) + u32(0x80000000 | 70000) + u32(0)  # top bit: past a page
    ops += bytes([1, 1]) + u32(4) + u32(0) + block(u32(4))
    ops += bytes([2]) + u32(5) + block(config())
    ops += bytes([3]) + block(list(packets())[0][2])
    for f in range(9):
        ops += bytes([0, f]) + u32(100) + u32(7)
    write('files', 'read_all', ops)
    # The WLAN views over filled tables: keys written, every view selected,
    # every file read (file indexes are taken modulo the number of files).
    wl = b''.join(bytes([2]) + u32(10) + block(p) for p in lb_messages().values())
    for f in range(16):
        wl += bytes([1, f]) + u32(16) + u32(0) + block(u32(0x0a000001) + u32(0))
        wl += bytes([1, f]) + u32(2) + u32(0) + block(b'%d\n' % (f % 5))
        wl += bytes([0, f]) + u32(4096) + u32(0)
    write('files', 'wlan_views', wl)
    write('files', 'write_each', b''.join(bytes([1, f]) + u32(100) + u32(0) +
                                          block(u32(4) + u32(2) + capture_block(3))
                                          for f in range(9)))
    # Capture: arm, capture the dispatcher's packets from their Ethernet
    # header, report later events, look up places, print, read and re-arm.
    frames = [buf for _, _, buf in packets()]
    ipc = b'\x0a\x0b\x0c\x00\x00\x01' + b'\0' * 10 + be16(0x0640) + b'\0' * 8
    for name, arm in (('plain', capture_block(30)),
                      ('filtered', capture_block(30, filters=(1 << 5) | (1 << 9) | (1 << 13),
                                                 udf1=(12, 0x0800), eth_type=0x0800,
                                                 src_ip=0x0a000001)),
                      ('all_filters', capture_block(3, filters=0x3ff3))):
        ops = u32(1 << 2) + u32(2) + arm
        for i, buf in enumerate(frames):
            ops += bytes([0]) + u16(i) + u16(28) + block(buf)
            ops += bytes([1, 2]) + u16(100 + i) + bytes([0x80 | i]) + u16(2) + block(b'')
        ops += bytes([4, 2, 0]) + u16(2) + bytes([4, 1, 0]) + u16(0)
        ops += bytes([5]) + u16(12) + u16(0x0800) + block(frames[1][12:])
        ops += bytes([6]) + block(ipc) + bytes([7])
        ops += bytes([2]) + u32(1000) + u32(0) + bytes([2]) + u32(4000) + u32(1000)
        ops += bytes([3]) + block(u32(1 << 2) + u32(2) + capture_block(1))
        ops += bytes([0]) + u16(0) + u16(28) + block(frames[2])
        ops += bytes([2]) + u32(2880) + u32(0)
        write('capture', name, ops)
    write_vaned_socket()


def file_req(kind, path, pos=0, count=4096, data=b'', seq=1):
    """A file request of the daemon's protocol (kind 0x7F01 read, 0x7F02 write)."""
    path = path.encode()
    ln = 16 + 16 + len(path) + len(data)
    return struct.pack('<IHHII', ln, kind, NLM_F_REQUEST, seq, 0) + \
        struct.pack('<qII', pos, count, len(path)) + path + data


def write_vaned_socket():
    """Datagrams into vaned's channels: registrations from several senders,
    control messages, file requests, refused senders and deliveries."""
    reg = control(0, u32(26) + u32(0))
    reg_vcpu = control(0, u32(26) + u32(3))
    debug = control(6, bytes([2]))
    counts = file_req(0x7F01, '/proc/bypassDebug/counts', 0, 1000)
    attr = '/sys/class/wlan_lb/wlan_lb/wlan_lb'
    write('vaned_socket', 'register_deliver',
          bytes([0x80]) + block(reg) + bytes([0x88]) + block(reg_vcpu) + bytes([0x80]) + block(debug))
    write('vaned_socket', 'files',
          bytes([0]) + block(counts) + bytes([0]) + block(file_req(0x7F01, '/proc/bypassDebug/counts', 1000, 1000)) +
          bytes([8]) + block(file_req(0x7F02, attr, 0, 1, b'2')) + bytes([8]) + block(file_req(0x7F01, attr)) +
          bytes([0]) + block(file_req(0x7F01, '/proc/none')))
    write('vaned_socket', 'strangers',
          bytes([4]) + block(reg) + bytes([4]) + block(counts) + bytes([0x20]) + block(reg) +
          bytes([0x28]) + block(debug) + bytes([0xa0]) + block(reg))
    write('vaned_socket', 'replace',
          bytes([0x40]) + u32(77) + block(reg) + bytes([0x48]) + u32(77) + block(reg) +
          bytes([0xc0]) + u32(77) + block(debug) + bytes([1]) + block(control(5, config())))


if __name__ == '__main__':
    main()
