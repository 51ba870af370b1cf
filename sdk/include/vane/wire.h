/* The datagram protocol between vaned and its clients (libvane's unix
 * transport, vanectl, the injection source).
 *
 * Sockets. vaned binds two Unix datagram sockets in its run directory,
 * VANE_WIRE_SOCK_NORMAL and VANE_WIRE_SOCK_FAST, which stand for the two
 * netlink protocols 26 and 27. A client uses one SOCK_DGRAM socket per
 * channel, bound to an autobound (abstract) address so that vaned can answer.
 * vaned reads the sender's credentials of every datagram (SO_PASSCRED):
 *   - the sender's process id is what a netlink kernel socket would see as
 *     the sender's credentials, so control message 0 registers that pid;
 *   - a client address that sends control message 0 becomes the port id
 *     equal to its pid on that channel (the address packets for that pid go
 *     to; a later one replaces it), as the first netlink socket of a process
 *     is; any other client address gets a port id of vaned's choosing
 *     (VANE_WIRE_PORTID_AUTO | n), to which its acknowledgements go;
 *   - only the run directory's owner and root may send: anyone else gets an
 *     error acknowledgement (or file reply) with -EPERM and nothing else
 *     happens.
 *
 * Datagrams client -> vaned: one or more netlink messages exactly as they
 * would be sent to the kernel module (control messages, type 18), or one of
 * the file requests below. Datagrams vaned -> client: the bytes the kernel
 * module would send (packets, NLMSG_ERROR acknowledgements), file replies,
 * and the overrun notice. All integers in host byte order. */
#ifndef VANE_WIRE_H
#define VANE_WIRE_H

#include <stdint.h>

#define VANE_WIRE_RUN_DIR_DEFAULT "/run/vane"
#define VANE_WIRE_SOCK_NORMAL "nl26.sock"
#define VANE_WIRE_SOCK_FAST "nl27.sock"
#define VANE_WIRE_SOCK_INJECT "inject.sock" /* the injection source, when configured */

#define VANE_WIRE_PORTID_AUTO 0x80000000u

/* The largest datagram either side sends: a 10,000-byte packet message, or
 * a file reply of VANE_WIRE_FILE_CHUNK bytes, with their headers. */
#define VANE_WIRE_FILE_CHUNK 65536u
#define VANE_WIRE_DGRAM_MAX (VANE_WIRE_FILE_CHUNK + 64u)

/* nlmsg_type of the daemon's own messages; above every type the module
 * uses, so they can never be mistaken for one. */
#define VANE_WIRE_FILE_READ 0x7F01u  /* client -> vaned */
#define VANE_WIRE_FILE_WRITE 0x7F02u /* client -> vaned */
#define VANE_WIRE_FILE_REPLY 0x7F03u /* vaned -> client, same nlmsg_seq */
/* vaned -> client: messages for this port id were dropped because the
 * client's receive queue was full (what ENOBUFS says on netlink). Sent
 * before the next message that does get through, or by the next
 * housekeeping tick. Payload: vane_wire_overrun. nlmsg_type is netlink's
 * NLMSG_OVERRUN. */
#define VANE_WIRE_OVERRUN 4u

/* After the 16-byte netlink header. The path is not NUL-terminated; the
 * data of a write follows it. A read asks for at most VANE_WIRE_FILE_CHUNK. */
struct vane_wire_file_req {
  int64_t pos;
  uint32_t count;
  uint32_t path_len; /* 1..255 */
};

/* After the 16-byte netlink header; `result` bytes of data follow a read's
 * reply. result: bytes read or written, or -errno (-ENOENT for an unknown
 * path, -EPERM for a sender that may not, -EINVAL for a bad request). */
struct vane_wire_file_reply {
  int64_t result;
  int64_t pos; /* the position after the operation */
};

struct vane_wire_overrun {
  uint32_t lost; /* messages dropped since the last notice */
  uint32_t channel;
};

#endif /* VANE_WIRE_H */
