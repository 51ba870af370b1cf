/* The datagram format of vaned's injection socket: how another program hands
 * packets to the dispatcher as the switch driver would.
 *
 * The socket is a Unix SOCK_DGRAM socket, by default VANE_WIRE_SOCK_INJECT in
 * vaned's run directory (see vane/wire.h), created with mode 0600: only its
 * owner (and root) may send. Each datagram carries exactly one packet:
 *
 *   struct vane_wire_inject header;   the message type and the length
 *   uint8_t data[header.len];         the delivery buffer, ready-made
 *
 * `data` is what the switch driver passes to netlink_send_msg: the 12-byte
 * delivery prefix (word 0, word 1, ethNum, native byte order) followed by
 * the packet as the chip delivered it (its header bytes, then the frame).
 * vaned does not wrap it; it goes to the dispatcher as it is.
 *
 * A datagram is malformed, counted as skipped and otherwise ignored, when it
 * is shorter than the header, when `len` differs from the number of bytes
 * that follow the header, or when `len` is 0 or above VANE_INJECT_MAX. A
 * well-formed datagram whose type the dispatcher refuses (not 1..15) is
 * counted as refused. Nothing is sent back. All integers in host byte
 * order. */
#ifndef VANE_INJECT_H
#define VANE_INJECT_H

#include <stdint.h>

/* The largest delivery buffer the dispatcher accepts. */
#define VANE_INJECT_MAX 10000u

struct vane_wire_inject {
  uint32_t type; /* message type, 1..15 */
  uint32_t len;  /* bytes of data after this header, 1..VANE_INJECT_MAX */
};

#endif /* VANE_INJECT_H */
