/* libvane: the worker and control library of the drv_vane dispatcher.
 *
 * One API over two transports:
 *   - netlink: the kernel module drv_vane.ko (protocols 26 and 27);
 *   - unix:    the host daemon vaned, through the Unix datagram sockets of
 *              its run directory (see vane/wire.h).
 * The transport is chosen when a handle is opened: explicitly in
 * `vane_endpoint`, or (VANE_TRANSPORT_AUTO) by the environment variable
 * VANE_TRANSPORT ("netlink" or "unix"), else by whether the run directory
 * holds the daemon's sockets. VANE_RUNDIR names the run directory (default
 * "/run/vane"). A worker or a tool therefore moves between the kernel module
 * and the daemon without changing a line.
 *
 * Result codes. Every function returning int returns 0 (or a count, where
 * stated) on success and a negated errno value on failure:
 *   -EINVAL       an argument is out of range (checked before anything is sent)
 *   -ENOMEM       no memory
 *   -ECONNREFUSED nothing listens: the module is not loaded / vaned is not running
 *   -ETIMEDOUT    no acknowledgement within the handle's timeout
 *   -EPERM        the daemon refused the sender (not the run directory's owner)
 *   -EPROTO       the peer answered with something that is not an acknowledgement
 *   other         the error of the failing system call, or the error the
 *                 dispatcher put into its acknowledgement (-22 for a control
 *                 message it rejects)
 *
 * Threads: a handle is used by one thread at a time; different handles are
 * independent. Nothing here allocates per packet. */
#ifndef VANE_VANE_H
#define VANE_VANE_H

#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

#ifdef __cplusplus
extern "C" {
#endif

/* ------------------------------------------------------------------------ */
/* Endpoints and transports. */

enum vane_transport {
  VANE_TRANSPORT_AUTO = 0,
  VANE_TRANSPORT_NETLINK = 1,
  VANE_TRANSPORT_UNIX = 2,
  /* Control handles only: nothing is sent; every message is handed to the
   * endpoint's `dry_run` callback and "acknowledged" with 0. */
  VANE_TRANSPORT_DRY_RUN = 3,
};

/* The two channels, named by their netlink protocol numbers. */
enum vane_channel {
  VANE_CHANNEL_NORMAL = 26,
  VANE_CHANNEL_FAST = 27,
};

typedef struct vane_endpoint {
  enum vane_transport transport;
  const char* run_dir; /* unix: NULL = $VANE_RUNDIR or "/run/vane" */
  /* DRY_RUN: called with each complete control message (netlink header
   * included) as it would be sent, and the channel it would go to. */
  void (*dry_run)(void* arg, int channel, const uint8_t* msg, size_t len);
  void* dry_run_arg;
  int timeout_ms; /* acknowledgement wait; 0 = 2000 */
} vane_endpoint;

/* The transport an endpoint resolves to (never AUTO): what AUTO would pick. */
enum vane_transport vane_resolve_transport(const vane_endpoint* ep);
/* "netlink", "unix" or "dry-run". */
const char* vane_transport_name(enum vane_transport t);

/* ------------------------------------------------------------------------ */
/* Worker side. */

typedef struct vane_worker vane_worker;

/* One packet as the dispatcher delivered it: the message type (1..15), the
 * data length, and the data (delivery prefix included). `data` is valid only
 * during the callback. */
typedef struct vane_packet {
  uint32_t type;
  uint32_t len;
  const uint8_t* data;
  int channel; /* VANE_CHANNEL_NORMAL or VANE_CHANNEL_FAST */
} vane_packet;

typedef void (*vane_packet_fn)(void* arg, const vane_packet* pkt);
/* Called when messages were lost: `lost` is how many were lost since the
 * last report on that channel (0 when the transport could not tell how many;
 * the event is still counted). */
typedef void (*vane_loss_fn)(void* arg, int channel, uint64_t lost);

#define VANE_WORKER_MAX_VCPUS 64
/* The highest vCPU slot: workers serve vCPUs 1..63, slot 0 is the default
 * receiver. */
#define VANE_VCPU_MAX 63u

typedef struct vane_worker_opts {
  vane_endpoint ep;
  int open_normal;      /* open the normal channel (26) */
  int open_fast;        /* open the fast channel (27) */
  int default_receiver; /* register as the default receiver (index 0) */
  const uint8_t* vcpus; /* vCPU slots 1..63 to register for */
  size_t n_vcpus;
  unsigned batch;         /* messages per recvmmsg; 0 = 64 */
  unsigned rcvbuf;        /* socket receive buffer in bytes; 0 = system default */
  unsigned reregister_ms; /* re-send the registrations this often; 0 = 1000 */
  vane_loss_fn on_loss;
  void* on_loss_arg;
} vane_worker_opts;

typedef struct vane_worker_stats {
  uint64_t packets;       /* delivered to the callback */
  uint64_t bytes;         /* data bytes delivered */
  uint64_t lost;          /* messages the dispatcher could not queue for us */
  uint64_t loss_events;   /* ENOBUFS / overrun notices seen */
  uint64_t malformed;     /* messages dropped because they were not well formed */
  uint64_t registrations; /* registration rounds acknowledged */
  uint64_t registration_failures;
} vane_worker_stats;

/* Opens the channels and registers (waiting for the acknowledgements); each
 * channel's socket registers every slot for its own channel. -EINVAL for no
 * channel, no slot (neither default_receiver nor a vCPU), a vCPU outside
 * 1..63, or a DRY_RUN endpoint; otherwise the first error acknowledged or
 * -ETIMEDOUT. Packets that arrive while the acknowledgements are awaited are
 * kept (up to 256 KiB, beyond that counted as lost) for the next poll. */
int vane_worker_open(const vane_worker_opts* opts, vane_worker** out);
/* Sends the registrations again now (also done every reregister_ms by
 * vane_worker_poll, so a worker finds its way back after the module is
 * reloaded or the daemon restarts). */
/* Waits for the acknowledgements like vane_worker_open and returns the first
 * error acknowledged; the periodic rounds of vane_worker_poll do not wait
 * (their acknowledgements are consumed as they arrive). While the module or
 * daemon is gone, poll retries every 50 ms instead of every reregister_ms. */
int vane_worker_register(vane_worker* w);
/* Waits up to timeout_ms (-1: forever, 0: not at all) for packets, receives
 * one batch per ready channel and calls fn for each packet. Returns the
 * number of packets handed to fn, or a negative error. A loss is reported
 * through on_loss and the statistics, never as an error. */
/* A signal interrupting the wait returns 0 (so a caller can check its flags);
 * -EINVAL without a callback. */
int vane_worker_poll(vane_worker* w, int timeout_ms, vane_packet_fn fn, void* arg);
void vane_worker_stats_get(const vane_worker* w, vane_worker_stats* out);
/* The file descriptor of a channel's socket (for epoll), or -1. */
int vane_worker_fd(const vane_worker* w, int channel);
void vane_worker_close(vane_worker* w);

/* ------------------------------------------------------------------------ */
/* Control side: one function per control message. Each builds the exact
 * wire bytes, sends them on the normal channel with the acknowledgement
 * flag, and waits for the acknowledgement; the result is the error the
 * dispatcher acknowledged with (0, or e.g. -22), or a transport error.
 * The dispatcher reports nothing else: whether a table took an entry shows
 * only in its views and the debug text. */

typedef struct vane_ctl vane_ctl;

int vane_ctl_open(const vane_endpoint* ep, vane_ctl** out);
void vane_ctl_close(vane_ctl* c);
enum vane_transport vane_ctl_transport(const vane_ctl* c);

/* Any control message: message id, payload, payload length field = len.
 * -EINVAL for a channel other than 26/27, a missing payload of nonzero
 * length, or a message larger than a datagram (VANE_WIRE_DGRAM_MAX). */
int vane_ctl_send(vane_ctl* c, int channel, uint32_t msg_id, const void* payload, uint32_t len);

/* Message 0: registers the calling process for a channel's vCPU slot
 * (vcpu 0 = default receiver and slot 0); sent on that channel's socket.
 * -EINVAL for a channel other than 26/27 or vcpu > 63. Over the daemon's
 * socket the control handle's own address becomes the process's port, so
 * packets then go to this handle: workers use vane_worker_open instead. */
int vane_ctl_register(vane_ctl* c, int channel, uint32_t vcpu);

/* Message 5: the 88-byte dispatch configuration record, slot by slot. */
typedef struct vane_dispatch_config {
  uint32_t hg_hdr_offset;
  uint32_t mac_offset;
  uint32_t reserved2;
  uint32_t reserved3;
  uint32_t ipc_eth_type;
  uint32_t vp_eth_type;
  uint32_t ecm_vcpu_eth_type;
  uint32_t multicore_eth_num_min;
  uint32_t ecm_eth_num;
  uint32_t vp_eth_num_min;
  uint32_t multicore_on;
  uint32_t board_type;
  uint32_t vp_frag_inner_offset;
  uint32_t reserved13;
  uint32_t cause_id_offset;
  uint32_t multicore_eth_num_max;
  uint32_t first_frag_flag_offset;
  uint32_t vp_inner_offset;
  uint32_t vp_eth_num_max;
  uint32_t ecm_vp_only;
  uint32_t no_hg_hdr;
  uint32_t inner_mac_offset;
} vane_dispatch_config;
/* -EINVAL for a NULL cfg; the slots themselves are not checked. */
int vane_ctl_set_config(vane_ctl* c, const vane_dispatch_config* cfg);

/* Message 6: one debug command code, 1..20 (others do nothing there and
 * are refused here with -EINVAL). */
int vane_ctl_debug_command(vane_ctl* c, uint8_t code);

/* Message 11: a cause-ID steering table (60 bytes). */
#define VANE_STEERING_IVO 0u
#define VANE_STEERING_DETEPTION 1u
#define VANE_STEERING_CAUSEIDS 20
typedef struct vane_steering_table {
  uint32_t enable;
  uint32_t table_type; /* VANE_STEERING_IVO or VANE_STEERING_DETEPTION */
  uint32_t vcpu;
  uint32_t cause_id_count; /* 0..20 */
  uint16_t cause_ids[VANE_STEERING_CAUSEIDS];
  uint16_t cause_id_min; /* 0: no range */
  uint16_t cause_id_max;
} vane_steering_table;
/* -EINVAL for NULL, table_type > 1, cause_id_count > 20 or vcpu > 63. */
int vane_ctl_set_steering(vane_ctl* c, const vane_steering_table* t);

/* The highest cause ID: a packet carries it in 13 bits. */
#define VANE_CAUSE_ID_VALUE_MAX 8191u

/* Messages 14 and 15: TIMNG. -EINVAL for a cause ID above 8191 (13 bits)
 * or a node above 63. The dispatcher holds VANE_TIMNG_ENTRIES cause IDs. */
#define VANE_TIMNG_ENTRIES 2u
int vane_ctl_timng_set(vane_ctl* c, uint32_t cause_id, uint32_t node_id, uint32_t is_master,
                       uint32_t is_frag_scan);
int vane_ctl_timng_master(vane_ctl* c, uint32_t is_master);

/* Message 10, one function per set type. Common checks (-EINVAL): a NULL
 * record; op other than VANE_LB_OP_ADD/DELETE; a vCPU (process) above 63,
 * except that a socket port also takes 0xFFFFFFFF (spread over the NAC
 * list); tcp, src_port and ipv6 other than 0/1; more than VANE_NAC_MAX NAC
 * ids; a cause-ID count of 0 or above VANE_CAUSEID_MAX; a cause-ID entry
 * with cause_id > 8191, pkt_type outside 1..11 or lb_type outside 1..4. */
#define VANE_LB_OP_ADD 1u
#define VANE_LB_OP_DELETE 2u
typedef struct vane_capwap_entry {
  uint32_t sip; /* host order, as the packet path compares them */
  uint32_t dip;
  uint16_t sport;
  uint16_t dport;
  uint8_t vpn;
  uint32_t process; /* vCPU */
} vane_capwap_entry;
int vane_ctl_lb_capwap(vane_ctl* c, const vane_capwap_entry* e, uint8_t op);
int vane_ctl_lb_capwap_ka(vane_ctl* c, const uint32_t session[4], uint32_t process, uint8_t op);
#define VANE_NAC_MAX 16
int vane_ctl_lb_nac(vane_ctl* c, uint32_t board_type, const uint32_t* ids, uint16_t count);
int vane_ctl_lb_portal(vane_ctl* c, uint16_t port, uint32_t process);
typedef struct vane_socket_port {
  uint16_t port;
  uint8_t tcp;      /* 0: UDP list, 1: TCP list */
  uint8_t src_port; /* 1: match the source port, 0: the destination port */
  uint32_t process; /* a vCPU, or VANE_PROCESS_NAC */
  uint32_t ipv6;    /* as the entry message carries it */
} vane_socket_port;
/* The socket-port process that spreads the port over the NAC list. */
#define VANE_PROCESS_NAC 0xFFFFFFFFu
int vane_ctl_lb_socket_port(vane_ctl* c, const vane_socket_port* p, uint16_t op);
int vane_ctl_lb_board_type(vane_ctl* c, uint32_t board_type);
typedef struct vane_cause_id_entry {
  uint32_t cause_id;
  uint32_t pkt_type; /* VANE_PKT_TYPE_MIN..VANE_PKT_TYPE_MAX */
  uint32_t lb_type;  /* VANE_LB_CAPWAP..VANE_LB_AAA_PORT */
} vane_cause_id_entry;
#define VANE_LB_CAPWAP 1u    /* by the tunnel's addresses and ports */
#define VANE_LB_CAPWAP_KA 2u /* by the keep-alive's session */
#define VANE_LB_AAA_MAC 3u   /* by the client's MAC over the NAC list */
#define VANE_LB_AAA_PORT 4u  /* by the AAA ports */
#define VANE_PKT_TYPE_MIN 1u /* the packet types the per-vCPU counters keep */
#define VANE_PKT_TYPE_MAX 11u
/* Entries of the cause-ID table (not the highest cause ID, which is
 * VANE_CAUSE_ID_VALUE_MAX). */
#define VANE_CAUSEID_MAX 100
int vane_ctl_lb_cause_ids(vane_ctl* c, const vane_cause_id_entry* entries, uint32_t count);

/* Handler ids 1..4, 7..9, 12, 13 (handlers other kernel modules register);
 * any other id is -EINVAL. */
int vane_ctl_handler_msg(vane_ctl* c, uint32_t msg_id, const void* payload, uint32_t len);

/* Builds one control message (netlink header, message id, payload length,
 * payload) into out; returns its length, or 0 when cap is too small. What
 * every vane_ctl_* function sends. */
size_t vane_build_control(uint8_t* out, size_t cap, uint32_t msg_id, const void* payload,
                          uint32_t len, uint32_t seq, int want_ack);

/* ------------------------------------------------------------------------ */
/* Diagnostic files: /proc/bypassDebug/..., /proc/wlan_lb/..., and the sysfs
 * attribute /sys/class/wlan_lb/wlan_lb/wlan_lb. Over netlink these are the
 * real files; over the daemon's socket they are its files, served by path
 * with the same count and position semantics. */

/* One read(2) at *pos (advanced; NULL reads at 0). Bytes read, 0 at the
 * end, or -errno. Over the daemon's socket one call moves at most
 * VANE_WIRE_FILE_CHUNK bytes, and a path must be 1..255 bytes (-EINVAL).
 * A DRY_RUN handle has no files (-EINVAL). */
ssize_t vane_file_read(vane_ctl* c, const char* path, void* buf, size_t count, int64_t* pos);
/* One write(2) at *pos (advanced, may be NULL for 0). Bytes written or -errno. */
ssize_t vane_file_write(vane_ctl* c, const char* path, const void* buf, size_t count, int64_t* pos);
/* Reads the whole file from position 0 into a buffer from malloc (free()
 * it); *len receives its length. 0 or -errno. */
/* -EFBIG beyond 1 GiB. */
int vane_file_read_all(vane_ctl* c, const char* path, uint8_t** out, size_t* len);

#ifdef __cplusplus
}
#endif

#endif /* VANE_VANE_H */
