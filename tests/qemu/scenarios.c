/* drv_vane scenarios on a real kernel, over real netlink sockets, with real
 * process ids. /init runs this, statically linked, inside the qemu guest once
 * kbndsafe, drv_vane and vane_drvsim are loaded. One line per scenario:
 *   VANE-PASS <name>
 *   VANE-FAIL <name>: <what went wrong>
 *
 *   vane_scenarios             every scenario, in order (they build on each
 *                              other: the first needs a freshly loaded module)
 *   vane_scenarios noproto LABEL P..
 *                              checks that netlink protocols P.. cannot be
 *                              opened (no kernel socket serves them); the
 *                              checks are named LABEL-P
 *
 * Packets enter through the driver stand-in (/proc/vane_drvsim), as they
 * would from the switch driver; control messages go out from this process
 * and from forked workers, each of which registers its own process id. */
#include "guest.h"

#include <sys/klog.h>

#define MID_IVO_LB 11
#define MID_TIMNG 14
#define ECM_ETHNUM 7
#define ECM_VCPU 5
#define FIRST_FRAG_MARK 0xab
#define VP_NONFIRST 61

/* Untagged IPv4 ICMP echo request; returns the buffer length. */
static uint32_t icmp_echo(uint8_t* buf, uint32_t word0) {
  static const uint8_t frame[] = {
      0x00, 0x11, 0x22, 0x33, 0x44, 0x55, 0x00, 0x66, 0x77, 0x88, 0x99, 0xaa, 0x08, 0x00, /* IPv4 */
      0x45, 0x00, 0x00, 0x1c, 0x12, 0x34, 0x00, 0x00, /* IHL 5 */
      0x40, 0x01, 0x00, 0x00,                         /* ICMP */
      0x0a, 0x00, 0x00, 0x01, 0x0a, 0x00, 0x00, 0x02, 0x08, 0x00, 0x00, 0x00, 0x00, 0x01,
      0x00, 0x01, /* echo request */
  };

  prefix(buf, word0, 1);
  memcpy(buf + PREFIX_LEN, frame, sizeof(frame));
  return PREFIX_LEN + sizeof(frame);
}

/* An ECM frame on the ECM interface for vCPU `vcpu`: destination
 * 0a:0b:0b:.., one VLAN tag, EtherType 0x06A4, inner destination
 * 0a:0b:0c:<vcpu>. */
static uint32_t ecm_packet(uint8_t* buf, uint8_t vcpu) {
  uint8_t* p = buf + PREFIX_LEN;

  prefix(buf, 1, ECM_ETHNUM);
  memset(p, 0, 64);
  memcpy(p, "\x0a\x0b\x0b\x01\x02\x03\x00\x11\x22\x33\x44\x55", 12);
  memcpy(p + 12, "\x81\x00\x00\x05\x06\xa4", 6);
  memcpy(p + 18, "\x0a\x0b\x0c", 3);
  p[21] = vcpu;
  pattern(p + 22, 64 - 22, 9);
  return PREFIX_LEN + 64;
}

/* Message 5 payload: the 88-byte record with the ECM interface set and an
 * empty multi-core range (min 10, max 9), board type 0. */
static void config(uint32_t rec[22], uint32_t dispatch_on) {
  memset(rec, 0, 88);
  rec[7] = 10; /* ulMultiCoreEthNumMin */
  rec[15] = 9; /* ulMultiCoreEthNumMax */
  rec[8] = ECM_ETHNUM;
  rec[9] = 100; /* VP range empty too */
  rec[18] = 99;
  rec[10] = dispatch_on; /* ulIsSupportMulticore, offset 40 */
}

/* Checks one delivered message against the packet message layout: header,
 * type at 16, length at 20, data from 24, zero padding. */
static int check_delivery(const uint8_t* msg, int n, uint32_t portid, uint32_t type,
                          const uint8_t* data, uint32_t len) {
  const struct nlmsghdr* h = (const struct nlmsghdr*)msg;
  uint32_t want = 16 + align4(len + 8);

  CHECK(n == (int)want, "received %d bytes, expected %u", n, want);
  CHECK(h->nlmsg_len == want, "nlmsg_len %u, expected %u", h->nlmsg_len, want);
  CHECK(h->nlmsg_type == MSG_TYPE, "nlmsg_type %u", h->nlmsg_type);
  CHECK(h->nlmsg_flags == 0, "nlmsg_flags 0x%x", h->nlmsg_flags);
  CHECK(h->nlmsg_seq == 0, "nlmsg_seq %u", h->nlmsg_seq);
  CHECK(h->nlmsg_pid == portid, "nlmsg_pid %u, expected %u", h->nlmsg_pid, portid);
  CHECK(get32(msg + 16) == type, "type field %u, expected %u", get32(msg + 16), type);
  CHECK(get32(msg + 20) == len, "length field %u, expected %u", get32(msg + 20), len);
  for (uint32_t i = 0; i < len; i++)
    CHECK(msg[24 + i] == data[i], "data byte %u is 0x%02x, sent 0x%02x", i, msg[24 + i], data[i]);
  for (uint32_t i = 24 + len; i < want; i++)
    CHECK(msg[i] == 0, "padding byte %u is 0x%02x", i, msg[i]);
  return 1;
}

/* ---- workers -------------------------------------------------------------
 * A worker is a forked process that registers its own process id for one
 * vCPU of a channel and then, on command, receives one message and hands it
 * to the parent over a pipe. */
struct worker {
  pid_t pid;
  int cmd;  /* parent -> worker */
  int data; /* worker -> parent */
};

static void worker_main(int cmd, int data, int proto, uint32_t vcpu) {
  static uint8_t buf[MAX_MSG];
  int fd = nl_open(proto);
  int status = fd < 0 ? fd : register_pid(fd, (uint32_t)proto, vcpu);
  char c;

  if (write(data, &status, sizeof(status)) != sizeof(status) || status != 0) _exit(1);
  while (read(cmd, &c, 1) == 1 && c == 'r') {
    int n = nl_recv(fd, buf, sizeof(buf), 1000);

    if (write(data, &n, sizeof(n)) != sizeof(n)) _exit(1);
    if (n > 0 && write(data, buf, (size_t)n) != n) _exit(1);
  }
  close(fd);
  _exit(0);
}

static int worker_start(struct worker* w, int proto, uint32_t vcpu) {
  int to[2], from[2], status = -1;

  if (pipe(to) || pipe(from)) return -1;
  w->pid = fork();
  if (w->pid == 0) {
    close(to[1]);
    close(from[0]);
    worker_main(to[0], from[1], proto, vcpu);
  }
  close(to[0]);
  close(from[1]);
  w->cmd = to[1];
  w->data = from[0];
  if (read(w->data, &status, sizeof(status)) != sizeof(status)) return -1;
  return status;
}

/* The next message the worker receives (within a second): its length, 0. */
static int worker_recv(struct worker* w, uint8_t* buf) {
  int n = 0;

  if (write(w->cmd, "r", 1) != 1 || read(w->data, &n, sizeof(n)) != sizeof(n)) return -1;
  if (n > 0) {
    int got = 0;

    while (got < n) {
      ssize_t r = read(w->data, buf + got, (size_t)(n - got));

      if (r <= 0) return -1;
      got += (int)r;
    }
  }
  return n;
}

static void worker_stop(struct worker* w) {
  if (w->pid <= 0) return;
  if (write(w->cmd, "q", 1) != 1) kill(w->pid, SIGKILL);
  waitpid(w->pid, NULL, 0);
  close(w->cmd);
  close(w->data);
  w->pid = 0;
}

/* ---- scenarios ------------------------------------------------------------ */

static int s26 = -1, s27 = -1; /* this process's sockets, port id = pid */
static uint32_t me;
static uint8_t msg[MAX_MSG];
static uint8_t pkt[16384];

static int sc_no_receiver(void) {
  uint32_t len = ecm_packet(pkt, 1);
  int r;

  r = drvsim(0, 2, pkt, len);
  CHECK(r == -77, "netlink_send_msg before any registration: %d, expected -77", r);
  r = drvsim(1, 2, pkt, len);
  CHECK(r == -77, "netlink_fastsend_msg before any registration: %d, expected -77", r);
  return 1;
}

static int sc_register_both_channels(void) {
  uint32_t len;
  int r, n;

  s26 = nl_open(PROTO_NORMAL);
  s27 = nl_open(PROTO_FAST);
  CHECK(s26 >= 0 && s27 >= 0, "cannot open and bind the channel sockets: %d %d", s26, s27);
  r = register_pid(s26, PROTO_NORMAL, 0);
  CHECK(r == 0, "registration on the normal channel acknowledged with %d", r);
  /* Either socket registers for either channel. */
  r = register_pid(s26, PROTO_FAST, 0);
  CHECK(r == 0, "registration on the fast channel acknowledged with %d", r);

  len = ecm_packet(pkt, 1);
  r = drvsim(0, 2, pkt, len);
  CHECK(r == (int)(16 + align4(len + 8)), "normal delivery returned %d", r);
  n = nl_recv(s26, msg, sizeof(msg), 1000);
  if (!check_delivery(msg, n, me, 2, pkt, len)) return because("normal channel");
  r = drvsim(1, 2, pkt, len);
  CHECK(r == (int)(16 + align4(len + 8)), "fast delivery returned %d", r);
  n = nl_recv(s27, msg, sizeof(msg), 1000);
  if (!check_delivery(msg, n, me, 2, pkt, len)) return because("fast channel");
  CHECK(nl_recv(s26, msg, sizeof(msg), 100) == 0, "fast packet also arrived on the normal channel");
  return 1;
}

/* A type-17 message is refused with an error acknowledgement and changes
 * nothing: here it would have moved the fast channel to another process. */
static int sc_type17_error_ack(void) {
  uint32_t len;
  int status, r, n;
  pid_t child = fork();

  if (child == 0) {
    uint32_t p[2] = {PROTO_FAST, 0};
    int fd = nl_open(PROTO_NORMAL);
    struct ack a;

    if (fd < 0 || ctrl_send(fd, 17, NLM_F_REQUEST, 7, MID_PID, 8, p, 8)) _exit(10);
    if (!get_ack(fd, &a)) _exit(11);
    if (a.error != -22) _exit(12);
    if (a.orig_type != 17 || a.orig_len != 32 || a.seq != 7 || a.portid != (uint32_t)getpid())
      _exit(13);
    _exit(0);
  }
  CHECK(child > 0, "fork failed");
  waitpid(child, &status, 0);
  CHECK(WIFEXITED(status) && WEXITSTATUS(status) == 0,
        "sender saw no -22 acknowledgement echoing its header (code %d)",
        WIFEXITED(status) ? WEXITSTATUS(status) : -1);

  len = ecm_packet(pkt, 1);
  r = drvsim(1, 2, pkt, len);
  CHECK(r > 0, "fast delivery after the refused message returned %d", r);
  n = nl_recv(s27, msg, sizeof(msg), 1000);
  CHECK(n > 0, "fast channel's receiver changed");
  return 1;
}

static int sc_msg16_acknowledged(void) {
  int r = ctrl_ack(s26, MID_IGNORED, "abcd", 4);

  CHECK(r == 0, "message id 16 acknowledged with %d", r);
  CHECK(ctrl_send(s26, MSG_TYPE, NLM_F_REQUEST, 1, MID_IGNORED, 0, NULL, 0) == 0, "send");
  CHECK(nl_recv(s26, msg, sizeof(msg), 200) == 0, "answer to a message that asked for none");
  return 1;
}

static int handler_state(unsigned* calls, unsigned* len, char* data) {
  char text[128];

  if (read_text(DRVSIM_HANDLER, text, sizeof(text)) <= 0) return 0;
  data[0] = '\0';
  return sscanf(text, "calls=%u len=%u data=%40s", calls, len, data) >= 2;
}

static int sc_handler_msg3(void) {
  uint8_t payload[20];
  unsigned c0, c, l;
  char d[41];

  CHECK(handler_state(&c0, &l, d), "cannot read " DRVSIM_HANDLER);
  pattern(payload, sizeof(payload), 0x10);
  CHECK(ctrl_ack(s26, MID_HANDLER, payload, 20) == 0, "id 3 on the normal socket not acked");
  CHECK(handler_state(&c, &l, d), "cannot read " DRVSIM_HANDLER);
  CHECK(c == c0 + 1 && l == 20 && !strcmp(d, "10171e252c333a41484f565d646b7279"),
        "after id 3 with 20 bytes: calls=%u len=%u data=%s", c - c0, l, d);
  /* Through the fast socket the normal record's handler runs too. */
  CHECK(ctrl_ack(s27, MID_HANDLER, payload, 3) == 0, "id 3 on the fast socket not acked");
  CHECK(handler_state(&c, &l, d), "cannot read " DRVSIM_HANDLER);
  CHECK(c == c0 + 2 && l == 3 && !strcmp(d, "10171e"),
        "after id 3 with 3 bytes on the fast socket: calls=%u len=%u data=%s", c - c0, l, d);
  return 1;
}

static int sc_default_receiver_bytes(void) {
  static const uint32_t lens[] = {1, 2, 13, 64, 10000};

  for (unsigned k = 0; k < sizeof(lens) / sizeof(lens[0]); k++) {
    uint32_t len = lens[k], type = 2 + k;
    int r, n;

    pattern(pkt, len, 3 + k);
    if (len >= PREFIX_LEN) prefix(pkt, 1, 1);
    r = drvsim(0, type, pkt, len);
    CHECK(r == (int)(16 + align4(len + 8)), "len %u: result %d", len, r);
    n = nl_recv(s26, msg, sizeof(msg), 1000);
    if (!check_delivery(msg, n, me, type, pkt, len)) return because("len %u", len);
  }
  return 1;
}

static int sc_length_limits(void) {
  int r;

  pattern(pkt, 10001, 1);
  prefix(pkt, 1, 1);
  r = drvsim(0, 2, pkt, 0);
  CHECK(r == -22, "length 0: %d", r);
  r = drvsim(0, 2, pkt, 10001);
  CHECK(r == -22, "length 10001: %d", r);
  r = drvsim(1, 2, pkt, 10001);
  CHECK(r == -22, "fast, length 10001: %d", r);
  r = drvsim(0, 16, pkt, 100);
  CHECK(r == -22, "type 16: %d", r);
  r = drvsim(0, 2, pkt, 10000);
  CHECK(r == 16 + 10008, "length 10000: %d", r);
  CHECK(nl_recv(s26, msg, sizeof(msg), 1000) == 16 + 10008, "length 10000 not received");
  CHECK(nl_recv(s26, msg, sizeof(msg), 100) == 0, "a refused packet was delivered");
  return 1;
}

/* The kernel bounds a receiver's queue by bytes (its receive buffer), not
 * by messages: once it is full a delivery answers -EAGAIN, and the
 * receiver's next recv() reports the overrun once with ENOBUFS before the
 * queued messages. */
static int sc_queue_full_eagain(void) {
  uint32_t len = ecm_packet(pkt, 1);
  int queued = 0, drained = 0, r = 0, n;

  while (queued < 100000) {
    r = drvsim(0, 2, pkt, len);
    if (r <= 0) break;
    queued++;
  }
  CHECK(r == -11, "after %d queued packets the answer was %d, expected -11", queued, r);
  n = (int)recv(s26, msg, sizeof(msg), MSG_DONTWAIT);
  CHECK(n < 0 && errno == ENOBUFS, "first recv after the overrun: %d (errno %d)", n, errno);
  while (nl_recv(s26, msg, sizeof(msg), 0) > 0) drained++;
  CHECK(drained == queued, "%d packets queued, %d received", queued, drained);
  r = drvsim(0, 2, pkt, len);
  CHECK(r > 0 && nl_recv(s26, msg, sizeof(msg), 1000) > 0, "no delivery after draining (%d)", r);
  printf("vane-queue: %d messages of %u bytes fit before -EAGAIN\n", queued, 16 + align4(len + 8));
  return 1;
}

static int read_refcnt(void) {
  char text[16];

  return read_text("/sys/module/drv_vane/refcnt", text, sizeof(text)) > 0 ? atoi(text) : -1;
}

/* Every open socket of the module's protocols holds a reference on it. */
static int sc_socket_holds_module(void) {
  int before = read_refcnt(), during, after;
  int fd = socket(AF_NETLINK, SOCK_RAW, PROTO_FAST);

  CHECK(fd >= 0, "socket: errno %d", errno);
  during = read_refcnt();
  close(fd);
  after = read_refcnt();
  CHECK(before > 0 && during == before + 1 && after == before,
        "refcnt %d, with one more socket %d, after closing it %d", before, during, after);
  return 1;
}

static int sc_icmp_fast_channel(void) {
  uint32_t len = icmp_echo(pkt, 0);
  int r, n;

  r = drvsim(0, 1, pkt, len);
  CHECK(r > 0, "ICMP echo through netlink_send_msg: %d", r);
  n = nl_recv(s27, msg, sizeof(msg), 1000);
  if (!check_delivery(msg, n, me, 1, pkt, len)) return because("fast channel");
  CHECK(nl_recv(s26, msg, sizeof(msg), 100) == 0, "ICMP echo also on the normal channel");

  /* Type 2, or word 0 set, keeps it on the normal channel. */
  r = drvsim(0, 2, pkt, len);
  n = nl_recv(s26, msg, sizeof(msg), 1000);
  CHECK(r > 0 && n > 0, "type 2 ICMP echo not on the normal channel (%d)", r);
  len = icmp_echo(pkt, 1);
  r = drvsim(0, 1, pkt, len);
  n = nl_recv(s26, msg, sizeof(msg), 1000);
  CHECK(r > 0 && n > 0, "ICMP echo with word 0 = 1 not on the normal channel (%d)", r);
  CHECK(nl_recv(s27, msg, sizeof(msg), 100) == 0, "fast channel got a normal packet");
  return 1;
}

/* Dispatch on: an ECM packet goes to the worker of the vCPU its inner MAC
 * names; message 5 with dispatch off sends it to the default receiver. */
static int ecm_steps(struct worker* w5) {
  uint32_t rec[22], len, c133 = 0, c5 = 0, c133b = 0, c5b = 0;
  int r, n;

  config(rec, 1);
  r = ctrl_ack(s26, MID_OFFSET, rec, 88);
  CHECK(r == 0, "message 5 acknowledged with %d", r);
  CHECK(read_counter(128 + ECM_VCPU, &c133) && read_counter(ECM_VCPU, &c5),
        "cannot read " PROC_COUNTS);
  len = ecm_packet(pkt, ECM_VCPU);
  r = drvsim(0, 2, pkt, len);
  n = worker_recv(w5, msg);
  if (!check_delivery(msg, n, (uint32_t)w5->pid, 2, pkt, len))
    return because("dispatch on, result %d, vCPU worker", r);
  CHECK(nl_recv(s26, msg, sizeof(msg), 100) == 0,
        "dispatch on: the default receiver got the ECM packet too");
  CHECK(read_counter(128 + ECM_VCPU, &c133b) && read_counter(ECM_VCPU, &c5b),
        "cannot read " PROC_COUNTS);
  CHECK(c133b == c133 + 1 && c5b == c5 + 1, "counters 133 and 5 moved by %u and %u", c133b - c133,
        c5b - c5);

  config(rec, 0);
  r = ctrl_ack(s26, MID_OFFSET, rec, 88);
  CHECK(r == 0, "message 5 (dispatch off) acknowledged with %d", r);
  r = drvsim(0, 2, pkt, len);
  n = nl_recv(s26, msg, sizeof(msg), 1000);
  if (!check_delivery(msg, n, me, 2, pkt, len))
    return because("dispatch off, result %d, default receiver", r);
  CHECK(worker_recv(w5, msg) == 0, "dispatch off: the vCPU worker still got the packet");
  return 1;
}

static int sc_ecm_to_vcpu_worker(void) {
  struct worker w5 = {0};
  int ok;

  CHECK(worker_start(&w5, PROTO_NORMAL, ECM_VCPU) == 0, "vCPU %d worker failed to register",
        ECM_VCPU);
  ok = ecm_steps(&w5);
  worker_stop(&w5);
  return ok;
}

static int sc_debug_buffer(void) {
  uint32_t level = 1, rec[22];
  static char text[32768 + 1];
  int fd = open("/proc/bypassDebug/debug", O_RDWR);
  ssize_t n;

  CHECK(fd >= 0, "cannot open /proc/bypassDebug/debug");
  n = write(fd, &level, 4);
  CHECK(n == 4, "level write returned %zd", n);
  config(rec, 0);
  CHECK(ctrl_ack(s26, MID_OFFSET, rec, 88) == 0, "message 5 not acknowledged");
  n = pread(fd, text, sizeof(text) - 1, 0);
  close(fd);
  CHECK(n == 32768, "debug area read %zd bytes", n);
  text[n] = '\0';
  CHECK(strstr(text, "\r\nNETLINK_MID_OFFSET.") != NULL, "no trace of message 5: \"%.60s\"", text);
  level = 0;
  fd = open("/proc/bypassDebug/debug", O_WRONLY);
  CHECK(fd >= 0 && write(fd, &level, 4) == 4, "cannot switch the debug output off");
  close(fd);
  return 1;
}

/* Message 11 sets the ivo table, which the ivo file shows whole; short
 * messages 11 and 14 are refused; the file takes 4-byte writes only. */
static int sc_steering_and_timng(void) {
  uint8_t table[60] = {0}, img[296 + 8];
  uint32_t timng[4] = {100, 7, 0, 0}, zero = 0;
  int r, fd;
  ssize_t n;

  put32(table, 1);      /* ulEnable */
  put32(table + 8, 5);  /* ulVcpuId */
  put32(table + 12, 2); /* ulCauseIdNum */
  table[16] = 40;
  table[18] = 41;
  table[56] = 200; /* range 200..210 */
  table[58] = 210;
  r = ctrl_ack(s26, MID_IVO_LB, table, 59);
  CHECK(r == -EINVAL, "short message 11 acknowledged with %d", r);
  r = ctrl_ack(s26, MID_IVO_LB, table, 60);
  CHECK(r == 0, "message 11 acknowledged with %d", r);
  fd = open("/proc/bypassDebug/ivo", O_RDWR);
  CHECK(fd >= 0, "cannot open /proc/bypassDebug/ivo");
  n = pread(fd, img, sizeof(img), 0);
  CHECK(n == 296, "ivo read %zd bytes", n);
  CHECK(memcmp(img, table, 60) == 0, "ivo table copy differs");
  CHECK(get32(img + 120) == 0, "ivo hits %u before any packet", get32(img + 120));
  n = write(fd, &zero, 1);
  CHECK(n < 0 && errno == EINVAL, "1-byte ivo write returned %zd", n);
  n = write(fd, &zero, 4);
  CHECK(n == 4, "ivo write returned %zd", n);
  close(fd);
  r = ctrl_ack(s26, MID_TIMNG, timng, 15);
  CHECK(r == -EINVAL, "short message 14 acknowledged with %d", r);
  r = ctrl_ack(s26, MID_TIMNG, timng, 16);
  CHECK(r == 0, "message 14 acknowledged with %d", r);
  return 1;
}

/* The fragment table dumps of a freshly loaded module: fixed-size images
 * whose record count is 0, read in pieces. */
static int dump_size(const char* path, size_t want) {
  static uint8_t img[40004 + 1];
  size_t total = 0;
  ssize_t n;
  int fd = open(path, O_RDONLY);

  CHECK(fd >= 0, "cannot open %s", path);
  while ((n = read(fd, img + total, 1000)) > 0 && total + (size_t)n <= sizeof(img)) total += n;
  close(fd);
  CHECK(n == 0, "%s: read failed", path);
  CHECK(total == want, "%s: %zu bytes, not %zu", path, total, want);
  CHECK(img[0] == 0 && img[1] == 0, "%s: %u records", path, img[0] | (img[1] << 8));
  return 1;
}

static int sc_fragment_dumps(void) {
  if (!dump_size("/proc/bypassDebug/hashInfoIpv4", 16004)) return because("IPv4");
  if (!dump_size("/proc/bypassDebug/hashInfoIpv6", 40004)) return because("IPv6");
  return 1;
}

/* ---- the decision cascade on a real kernel -------------------------------
 * Multi-core traffic with the Ethernet header 24 bytes in (no HiGig2 header),
 * the cause ID at bytes 18-19: internal VP frames, a steering-table hit, a
 * TIMNG cause ID, a fragmented datagram kept together, and its entry aged
 * out by the timer. Each decision is observed through the counters it
 * raises. */
/* Ethernet + IPv4 UDP (fragment) from 10.9.9.1 to 10.9.9.2, 24 payload
 * bytes; offset in 8-byte units. */
static uint32_t inner_ipv4(uint8_t* p, int more, uint16_t offset) {
  static const uint8_t eth[14] = {0x00, 0x11, 0x22, 0x33, 0x44, 0x55, 0x00,
                                  0x00, 0x5e, 0x00, 0x01, 0x02, 0x08, 0x00};
  uint16_t frag = (uint16_t)((more ? 0x2000 : 0) | offset);

  memcpy(p, eth, 14);
  memset(p + 14, 0, 20 + 24);
  p[14] = 0x45;
  p[16] = 0;
  p[17] = 20 + 24;
  p[18] = 0x51;
  p[19] = 0x51;
  p[20] = (uint8_t)(frag >> 8);
  p[21] = (uint8_t)frag;
  p[22] = 64;
  p[23] = 17;
  memcpy(p + 26, "\x0a\x09\x09\x01\x0a\x09\x09\x02", 8);
  return 14 + 20 + 24;
}

/* An internal VP frame: outer MAC 0A:0B:0B:<vcpu>, the VP EtherType, the
 * mark byte, then the inner datagram. */
static uint32_t vp_frame(uint8_t* buf, uint8_t vcpu, uint8_t mark, int more, uint16_t off) {
  uint32_t n = mc_head(buf, 1);
  uint8_t* f = buf + n;

  memcpy(f, "\x0a\x0b\x0b", 3);
  f[3] = vcpu;
  f[4] = f[5] = 0;
  memcpy(f + 6, "\x00\x00\x5e\x00\x01\x09", 6);
  f[12] = VP_TYPE >> 8;
  f[13] = VP_TYPE & 0xff;
  f[14] = mark;
  f[15] = 0;
  return n + 16 + inner_ipv4(f + 16, more, off);
}

/* A plain multi-core packet of the cause ID. */
static uint32_t mc_packet(uint8_t* buf, uint16_t cause) {
  uint32_t n = mc_head(buf, cause);

  return n + inner_ipv4(buf + n, 0, 0);
}

static int frag_count(uint32_t* out) {
  uint8_t img[4];
  int fd = open("/proc/bypassDebug/hashInfoIpv4", O_RDONLY);
  ssize_t n;

  if (fd < 0) return 0;
  n = read(fd, img, sizeof(img));
  close(fd);
  if (n != 4) return 0;
  *out = get32(img);
  return 1;
}

/* Sends the packet; fails unless counter `a` rose by `da` and `b` by `db`. */
static int decide(const char* what, const uint8_t* buf, uint32_t len, unsigned a, uint32_t da,
                  unsigned b, uint32_t db) {
  uint32_t a0, b0, a1, b1;
  int r;

  CHECK(read_counter(a, &a0) && read_counter(b, &b0), "%s: cannot read counters", what);
  r = drvsim(0, 1, buf, len);
  CHECK(r > 0, "%s: netlink_send_msg answered %d", what, r);
  CHECK(read_counter(a, &a1) && read_counter(b, &b1), "%s: cannot read counters", what);
  CHECK(a1 - a0 == da && b1 - b0 == db, "%s: counters %u and %u rose by %u and %u, not %u and %u",
        what, a, b, a1 - a0, b1 - b0, da, db);
  return 1;
}

static int sc_cascade(void) {
  uint32_t rec[22], len, frags = 0;
  uint8_t table[60] = {0};
  uint32_t timng[4] = {300, 9, 1, 0};
  int r;

  mc_config(rec);
  r = ctrl_ack(s26, MID_OFFSET, rec, 88);
  CHECK(r == 0, "message 5 acknowledged with %d", r);
  /* ivo table: cause 40 to vCPU 5. */
  put32(table, 1);
  put32(table + 8, 5);
  put32(table + 12, 1);
  table[16] = 40;
  CHECK(ctrl_ack(s26, MID_IVO_LB, table, 60) == 0, "message 11 refused");
  CHECK(ctrl_ack(s26, MID_TIMNG, timng, 16) == 0, "message 14 refused");
  /* This process receives for every vCPU the decisions name. */
  for (unsigned i = 0; i < 4; i++) {
    static const uint32_t vcpus[4] = {5, 7, 9, 12};

    CHECK(register_pid(s26, PROTO_NORMAL, vcpus[i]) == 0, "registration for vCPU %u refused",
          vcpus[i]);
  }

  len = vp_frame(pkt, 7, 0, 0, 0);
  if (!decide("VP direct", pkt, len, 64 + 7, 1, 7, 1)) return 0;
  len = mc_packet(pkt, 40);
  if (!decide("steering", pkt, len, 5, 2, 0, 0)) return 0;
  len = mc_packet(pkt, 300);
  if (!decide("TIMNG", pkt, len, 9, 2, 0, 0)) return 0;
  /* An internal frame is decided before the steering tables look. */
  len = vp_frame(pkt, 7, 0, 0, 0);
  pkt[PREFIX_LEN + 19] = (uint8_t)(40 << 3);
  pkt[PREFIX_LEN + 18] = (uint8_t)(40 >> 5);
  if (!decide("VP before steering", pkt, len, 64 + 7, 1, 5, 0)) return 0;

  len = vp_frame(pkt, 12, FIRST_FRAG_MARK, 1, 0);
  if (!decide("first fragment", pkt, len, 64 + 12, 1, 12, 1)) return 0;
  CHECK(frag_count(&frags) && frags == 1, "%u fragment entries after the first fragment", frags);
  len = vp_frame(pkt, VP_NONFIRST, 0, 1, 3);
  if (!decide("middle fragment", pkt, len, 64 + 12, 1, 12, 1)) return 0;

  /* No last fragment comes: the entry ages out at the seventh sweep of the
   * timer (500 ticks each). */
  for (int waited = 0; waited < 90 && frag_count(&frags) && frags != 0; waited++) sleep(1);
  CHECK(frags == 0, "the fragment entry did not age out (%u left)", frags);
  len = vp_frame(pkt, VP_NONFIRST, 0, 0, 6);
  if (!decide("last fragment after ageing", pkt, len, 64 + 12, 0, 0, 1)) return 0;
  nl_drain(s26);
  return 1;
}

/* Concurrency smoke: control messages from several processes and packets
 * from several writers at once, for SMOKE_MS; no acknowledgement may be
 * lost or wrong, and every handler call must be counted. */
#define SMOKE_MS 1500
#define SMOKE_CTRL 3
#define SMOKE_PKT 2

static long now_ms(void) {
  struct timespec ts;

  clock_gettime(CLOCK_MONOTONIC, &ts);
  return ts.tv_sec * 1000L + ts.tv_nsec / 1000000L;
}

static void smoke_ctrl(int idx, int out) {
  int fd = nl_open(idx % 2 ? PROTO_FAST : PROTO_NORMAL);
  uint32_t rec[22], h = 0, bad = 0;
  long end = now_ms() + SMOKE_MS;

  if (fd < 0) _exit(1);
  while (now_ms() < end) {
    uint8_t payload[8] = {(uint8_t)idx};

    if (ctrl_ack(fd, MID_HANDLER, payload, 8) == 0)
      h++;
    else
      bad++;
    if (ctrl_ack(fd, MID_IGNORED, NULL, 0) != 0) bad++;
    config(rec, h & 1);
    if (ctrl_ack(fd, MID_OFFSET, rec, 88) != 0) bad++;
  }
  close(fd);
  if (write(out, &h, 4) != 4 || write(out, &bad, 4) != 4) _exit(1);
  _exit(0);
}

static void smoke_pkt(int idx, int out) {
  uint32_t sent = 0, bad = 0;
  long end = now_ms() + SMOKE_MS;

  while (now_ms() < end) {
    uint32_t len;
    int r;

    switch (sent % 3) {
      case 0:
        len = ecm_packet(pkt, ECM_VCPU); /* vCPU 5 has no live worker */
        break;
      case 1:
        len = icmp_echo(pkt, 0);
        break;
      default:
        len = 200 + idx;
        pattern(pkt, len, (uint8_t)sent);
        prefix(pkt, 1, 1);
    }
    r = drvsim(sent & 1, sent % 3 == 1 ? 1 : 1 + sent % 15, pkt, len);
    /* Whatever the dispatch decided, the answer is a length or a
     * delivery error, never a crash or a stand-in failure. */
    if (r == -2000 || (r < 0 && r != -111 && r != -11 && r != -77)) bad++;
    sent++;
  }
  if (write(out, &sent, 4) != 4 || write(out, &bad, 4) != 4) _exit(1);
  _exit(0);
}

static int sc_concurrency_smoke(void) {
  int pipes[SMOKE_CTRL + SMOKE_PKT][2];
  pid_t kids[SMOKE_CTRL + SMOKE_PKT];
  uint32_t handled = 0, sent = 0, bad = 0, rec[22];
  unsigned c0, c1, l;
  char d[41];
  long end;

  CHECK(handler_state(&c0, &l, d), "cannot read " DRVSIM_HANDLER);
  for (int i = 0; i < SMOKE_CTRL + SMOKE_PKT; i++) {
    CHECK(pipe(pipes[i]) == 0, "pipe");
    kids[i] = fork();
    CHECK(kids[i] >= 0, "fork");
    if (kids[i] == 0) {
      close(pipes[i][0]);
      if (i < SMOKE_CTRL) smoke_ctrl(i, pipes[i][1]);
      smoke_pkt(i, pipes[i][1]);
    }
    close(pipes[i][1]);
  }
  /* Meanwhile keep the default receivers' queues moving. */
  end = now_ms() + SMOKE_MS + 500;
  while (now_ms() < end) {
    nl_recv(s26, msg, sizeof(msg), 10);
    nl_recv(s27, msg, sizeof(msg), 0);
  }
  for (int i = 0; i < SMOKE_CTRL + SMOKE_PKT; i++) {
    uint32_t a = 0, b = 1;
    int status;

    if (read(pipes[i][0], &a, 4) != 4 || read(pipes[i][0], &b, 4) != 4) b = 1000;
    close(pipes[i][0]);
    waitpid(kids[i], &status, 0);
    if (i < SMOKE_CTRL)
      handled += a;
    else
      sent += a;
    bad += b;
  }
  nl_drain(s26);
  nl_drain(s27);
  config(rec, 0);
  ctrl_ack(s26, MID_OFFSET, rec, 88);
  CHECK(handler_state(&c1, &l, d), "cannot read " DRVSIM_HANDLER);
  CHECK(bad == 0, "%u failed or unexpected answers", bad);
  CHECK(c1 - c0 == handled, "handler ran %u times for %u acknowledged messages", c1 - c0, handled);
  CHECK(handled > 0 && sent > 0, "nothing happened (%u messages, %u packets)", handled, sent);
  printf("vane-smoke: %u handler messages, %u packets in %d ms\n", handled, sent, SMOKE_MS);
  return 1;
}

/* ---- capture, self-tests and the debug printouts --------------------------
 * The capture entry points called by the driver stand-in as the switch
 * driver calls them, the store read back through catchPkt, and debug
 * commands 4 to 8 pushing the built-in messages through the real delivery
 * path to a receiver process, 19 and 20 printing to the kernel log. */
#define DRVSIM_CAPTURE "/proc/vane_drvsim/capture"
#define PROC_CATCH "/proc/bypassDebug/catchPkt"
#define MID_DEBUG 6
#define CATCH_STORE 2880
#define CATCH_ENTRY 96

/* Arms a run of `total` captures on slot 2, no filters. */
static int catch_arm(uint16_t total, size_t len) {
  uint8_t b[128] = {0};
  int fd = open(PROC_CATCH, O_WRONLY);
  ssize_t n;

  if (fd < 0) return -errno;
  put32(b, 1u << 2);
  put32(b + 4, 2);
  memcpy(b + 8 + 4, &total, 2); /* usTotalCnt */
  memcpy(b + 8 + 6, &total, 2); /* usCount */
  b[8 + 88] = 1;                /* ucCatchIsOn */
  n = write(fd, b, len);
  close(fd);
  return n < 0 ? -errno : (int)n;
}

/* One stand-in call: op 0 captures `data`, op 1 reports event `event` of
 * `mark` on slot `where`. Returns the capture result (op 0) or 0, -1. */
static int catch_call(uint32_t op, uint16_t value, uint16_t where, uint8_t event, uint8_t mark,
                      const uint8_t* data, uint32_t len, uint8_t* mark_out) {
  static uint8_t buf[12 + 256];
  char text[64];
  unsigned result = 0, m = 0;
  int fd = open(DRVSIM_CAPTURE, O_WRONLY);
  ssize_t n;

  if (fd < 0 || len > 256) return -1;
  memset(buf, 0, 12);
  put32(buf, op);
  memcpy(buf + 4, &value, 2);
  memcpy(buf + 6, &where, 2);
  buf[8] = event;
  buf[9] = mark;
  if (len) memcpy(buf + 12, data, len);
  n = write(fd, buf, 12 + len);
  close(fd);
  if (n != (ssize_t)(12 + len)) return -1;
  if (op != 0) return 0;
  if (read_text(DRVSIM_CAPTURE, text, sizeof(text)) <= 0) return -1;
  if (sscanf(text, "result=%u mark=0x%x", &result, &m) != 2) return -1;
  if (mark_out) *mark_out = (uint8_t)m;
  return (int)result;
}

static int catch_read(uint8_t* store) {
  int fd = open(PROC_CATCH, O_RDONLY);
  ssize_t n;

  if (fd < 0) return -errno;
  n = read(fd, store, CATCH_STORE + 10);
  close(fd);
  return (int)n;
}

static int sc_capture_through_drvsim(void) {
  static uint8_t store[CATCH_STORE + 10];
  uint8_t frame[100], mark = 0, zeros[CATCH_ENTRY] = {0};
  int r;

  r = catch_arm(3, 99);
  CHECK(r == -EINVAL, "99-byte catchPkt write returned %d", r);
  r = catch_arm(3, 100);
  CHECK(r == 100, "catchPkt write returned %d", r);
  catch_read(store); /* start from an empty store */
  for (int i = 0; i < 3; i++) {
    pattern(frame, sizeof(frame), (uint32_t)i);
    r = catch_call(0, (uint16_t)(10 + i), 0, 0, 0, frame, 60 + (uint32_t)i * 20, &mark);
    CHECK(r == 1 && mark == 0x80 + i, "capture %d: result %d mark 0x%02x", i, r, mark);
  }
  r = catch_call(0, 13, 0, 0, 0, frame, 60, &mark);
  CHECK(r == 0, "a fourth capture in a run of 3: result %d", r);
  CHECK(catch_call(1, 77, 2, 2, 0x81, NULL, 0, NULL) == 0, "event write failed");
  CHECK(catch_call(1, 78, 2, 2, 0x81, NULL, 0, NULL) == 0, "event write failed");
  CHECK(catch_call(1, 79, 2, 2, 0x81, NULL, 0, NULL) == 0, "event write failed");

  r = catch_read(store);
  CHECK(r == CATCH_STORE, "catchPkt read %d bytes", r);
  for (int i = 0; i < 3; i++) {
    const uint8_t* e = store + i * CATCH_ENTRY;
    uint16_t len, ev0, ev1;

    memcpy(&len, e + 64, 2);
    memcpy(&ev0, e + 72 + 8, 2);
    memcpy(&ev1, e + 84 + 8, 2);
    pattern(frame, sizeof(frame), (uint32_t)i);
    CHECK(e[66] == 1 && e[67] == i, "entry %d: used %u num %u", i, e[66], e[67]);
    CHECK(len == 60 + i * 20, "entry %d: length %u", i, len);
    CHECK(memcmp(e, frame, 60) == 0, "entry %d: frame bytes differ", i);
    CHECK(e[68] == 2 && e[69] == 0, "entry %d: slot %u", i, e[68]);
    CHECK(e[83] == 1 && ev0 == 10 + i, "entry %d: time stamp 0 used %u event %u", i, e[83], ev0);
    CHECK(get32(e + 72) > 1000000000u, "entry %d: %u seconds is no wall-clock time", i,
          get32(e + 72));
    CHECK(get32(e + 76) < 1000000000u, "entry %d: %u ns", i, get32(e + 76));
    if (i == 1)
      CHECK(e[95] == 1 && ev1 == 77, "entry 1: second stamp used %u event %u", e[95], ev1);
    else
      CHECK(e[95] == 0, "entry %d: second stamp filled", i);
  }
  CHECK(memcmp(store + 3 * CATCH_ENTRY, zeros, CATCH_ENTRY) == 0, "entry 3 not empty");
  r = catch_read(store);
  CHECK(r == CATCH_STORE, "second catchPkt read %d bytes", r);
  for (int i = 0; i < 30; i++)
    CHECK(memcmp(store + i * CATCH_ENTRY, zeros, CATCH_ENTRY) == 0, "entry %d after the read", i);
  return 1;
}

/* A receiver process: registers as the normal channel's default receiver
 * with room for a few thousand messages, reports that it is ready, then
 * counts the packet messages of each length until a second passes without
 * one and reports the counts of lengths 162, 164 and 166 and of others. */
struct counts {
  uint32_t n162, n164, n166, other;
};

static void counter_main(int out) {
  static uint8_t buf[MAX_MSG];
  struct counts c = {0};
  int fd = nl_open(PROTO_NORMAL), size = 16 << 20, status;

  if (fd >= 0) setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &size, sizeof(size));
  status = fd < 0 ? fd : register_pid(fd, PROTO_NORMAL, 0);
  if (write(out, &status, sizeof(status)) != sizeof(status) || status != 0) _exit(1);
  for (;;) {
    int n = nl_recv(fd, buf, sizeof(buf), 1500);

    if (n <= 0) break;
    if (n < 24 || ((struct nlmsghdr*)buf)->nlmsg_type != MSG_TYPE) continue;
    switch (get32(buf + 20)) {
      case 162:
        c.n162++;
        break;
      case 164:
        c.n164++;
        break;
      case 166:
        c.n166++;
        break;
      default:
        c.other++;
    }
  }
  if (write(out, &c, sizeof(c)) != sizeof(c)) _exit(1);
  _exit(0);
}

/* Runs debug command `cmd` with a counting receiver as default receiver. */
static int counted_command(uint8_t cmd, struct counts* c) {
  int p[2], status = -1, r;
  pid_t kid;
  uint8_t payload[4] = {cmd};

  if (pipe(p)) return 0;
  kid = fork();
  if (kid == 0) {
    close(p[0]);
    counter_main(p[1]);
  }
  close(p[1]);
  r = read(p[0], &status, sizeof(status)) == sizeof(status) && status == 0;
  if (r) r = ctrl_ack(s26, MID_DEBUG, payload, 4) == 0;
  if (read(p[0], c, sizeof(*c)) != sizeof(*c)) r = 0;
  close(p[0]);
  waitpid(kid, NULL, 0);
  register_pid(s26, PROTO_NORMAL, 0);
  return r;
}

static int debug_cmd(uint8_t cmd) {
  uint8_t payload[4] = {cmd};

  return ctrl_ack(s26, MID_DEBUG, payload, 4);
}

static int sc_selftest_commands(void) {
  uint32_t rec[22];
  struct counts c;

  config(rec, 1);
  rec[0] = 0;  /* chip header at 0 */
  rec[1] = 50; /* Ethernet header 50 bytes in */
  rec[7] = 1;  /* the messages arrive on interface 1 */
  rec[15] = 29;
  CHECK(ctrl_ack(s26, MID_OFFSET, rec, 88) == 0, "message 5 not acknowledged");
  for (uint8_t cmd = 4; cmd <= 6; cmd++) {
    CHECK(counted_command(cmd, &c), "command %u: receiver or acknowledgement failed", cmd);
    CHECK(c.n162 == 1 && c.n164 + c.n166 + c.other == 0, "command %u delivered %u/%u/%u/%u", cmd,
          c.n162, c.n164, c.n166, c.other);
  }
  CHECK(counted_command(7, &c), "command 7: receiver or acknowledgement failed");
  CHECK(c.n162 + c.n164 + c.n166 + c.other == 0, "command 7 with variant 0 delivered %u",
        c.n162 + c.n164 + c.n166 + c.other);
  CHECK(debug_cmd(1) == 0, "command 1 not acknowledged");
  CHECK(counted_command(7, &c), "command 7: receiver or acknowledgement failed");
  CHECK(c.n166 == 1000 && c.n162 + c.n164 + c.other == 0, "command 7 (A) delivered %u/%u/%u/%u",
        c.n162, c.n164, c.n166, c.other);
  CHECK(debug_cmd(1) == 0, "command 1 not acknowledged");
  CHECK(counted_command(7, &c), "command 7: receiver or acknowledgement failed");
  CHECK(c.n162 == 1000 && c.n164 + c.n166 + c.other == 0, "command 7 (B) delivered %u/%u/%u/%u",
        c.n162, c.n164, c.n166, c.other);
  CHECK(counted_command(8, &c), "command 8: receiver or acknowledgement failed");
  CHECK(c.n164 == 1000 && c.n162 + c.n166 + c.other == 0, "command 8 delivered %u/%u/%u/%u", c.n162,
        c.n164, c.n166, c.other);
  for (int i = 0; i < 3; i++) debug_cmd(1); /* the variant back to 0 */
  config(rec, 0);
  CHECK(ctrl_ack(s26, MID_OFFSET, rec, 88) == 0, "message 5 not acknowledged");
  return 1;
}

/* Whether the kernel log holds `text`. */
static int klog_has(const char* text) {
  static char log[1 << 20];
  int n = klogctl(3 /* SYSLOG_ACTION_READ_ALL */, log, sizeof(log) - 1);

  if (n < 0) return 0;
  log[n] = '\0';
  return strstr(log, text) != NULL;
}

static int sc_debug_printouts(void) {
  CHECK(catch_arm(4, 100) == 100, "catchPkt write failed");
  CHECK(debug_cmd(19) == 0, "command 19 not acknowledged");
  CHECK(klog_has("**bypass_catch_info  g_ulPktAllSlotIsOn[0x00000004] slot[2]****"),
        "no capture header line in the kernel log");
  CHECK(klog_has("usTotalCnt[4] usCount[4]"), "no control block line in the kernel log");
  /* The last printout line has no newline of its own: the kernel holds it
   * until the next message, which command 20 provides. */
  CHECK(debug_cmd(20) == 0, "command 20 not acknowledged");
  CHECK(klog_has("ii=29,len=0,slot=0,num=0,used=0"), "no line for entry 29 in the kernel log");
  CHECK(klog_has("********ivo lb table***********"), "no ivo table line in the kernel log");
  CHECK(klog_has("********deteption lb table***********"), "no deteption line in the log");
  CHECK(catch_arm(0, 100) == 100, "catchPkt write failed");
  return 1;
}

static int noproto(int argc, char** argv) {
  const char* label = argc > 2 ? argv[2] : "noproto";

  for (int i = 3; i < argc; i++) {
    int proto = atoi(argv[i]);
    int fd = socket(AF_NETLINK, SOCK_RAW, proto);
    int e = errno;

    if (fd >= 0) {
      close(fd);
      printf("VANE-FAIL %s-%d: socket opened\n", label, proto);
      failed++;
    } else if (e != EPROTONOSUPPORT) {
      printf("VANE-FAIL %s-%d: errno %d, expected EPROTONOSUPPORT\n", label, proto, e);
      failed++;
    } else {
      printf("VANE-PASS %s-%d\n", label, proto);
    }
  }
  return failed ? 1 : 0;
}

int main(int argc, char** argv) {
  setvbuf(stdout, NULL, _IOLBF, 0);
  if (argc > 1 && !strcmp(argv[1], "noproto")) return noproto(argc, argv);

  me = (uint32_t)getpid();
  run("no-receiver-77", sc_no_receiver);
  run("register-both-channels", sc_register_both_channels);
  if (s26 < 0 || s27 < 0) return 1;
  run("type17-error-ack", sc_type17_error_ack);
  run("msg16-acknowledged", sc_msg16_acknowledged);
  run("handler-msg3", sc_handler_msg3);
  run("default-receiver-bytes", sc_default_receiver_bytes);
  run("length-limits", sc_length_limits);
  run("queue-full-eagain", sc_queue_full_eagain);
  run("socket-holds-module", sc_socket_holds_module);
  run("icmp-fast-channel", sc_icmp_fast_channel);
  run("ecm-to-vcpu-worker", sc_ecm_to_vcpu_worker);
  run("debug-buffer", sc_debug_buffer);
  run("steering-and-timng", sc_steering_and_timng);
  run("fragment-dumps", sc_fragment_dumps);
  run("cascade-vp-steering-timng-ageing", sc_cascade);
  run("concurrency-smoke", sc_concurrency_smoke);
  run("capture-through-drvsim", sc_capture_through_drvsim);
  run("selftest-commands-4-to-8", sc_selftest_commands);
  run("debug-printouts-19-20", sc_debug_printouts);

  /* The kernel holds a reference on drv_vane for every open socket of its
   * protocols; close them so the module can be unloaded. */
  close(s26);
  close(s27);
  printf("vane-scenarios: %d passed, %d failed\n", passed, failed);
  return failed ? 1 : 0;
}
