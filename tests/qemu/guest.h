/* What the programs that run inside the qemu guest share: reporting of
 * checks, control messages over real netlink sockets, and packets handed to
 * drv_vane through the driver stand-in (/proc/vane_drvsim). Each program is
 * one translation unit that includes this once. */
#ifndef VANE_QEMU_GUEST_H
#define VANE_QEMU_GUEST_H

#ifndef _GNU_SOURCE /* g++ defines it */
#define _GNU_SOURCE
#endif
#include <errno.h>
#include <fcntl.h>
#include <linux/netlink.h>
#include <poll.h>
#include <signal.h>
#include <stdarg.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#define PROTO_NORMAL 26
#define PROTO_FAST 27
#define MSG_TYPE 18
#define MID_PID 0
#define MID_HANDLER 3 /* vane_drvsim's handler */
#define MID_OFFSET 5
#define MID_IGNORED 16
#define PREFIX_LEN 12
#define MAX_MSG (16 + 8 + 10000 + 4)

#define DRVSIM_SEND "/proc/vane_drvsim/send"
#define DRVSIM_RESULT "/proc/vane_drvsim/result"
#define DRVSIM_HANDLER "/proc/vane_drvsim/handler"
#define PROC_COUNTS "/proc/bypassDebug/counts"

static char why[512] __attribute__((unused));
static int passed __attribute__((unused)), failed __attribute__((unused));

/* Records why a scenario failed; returns 0 so that `return failf(...)`
 * ends the scenario. */
static inline int __attribute__((format(printf, 1, 2))) failf(const char* fmt, ...) {
  va_list ap;

  va_start(ap, fmt);
  vsnprintf(why, sizeof(why), fmt, ap);
  va_end(ap);
  return 0;
}

/* Puts a context in front of the recorded reason; returns 0. */
static inline int __attribute__((format(printf, 1, 2))) because(const char* fmt, ...) {
  char ctx[128], tmp[sizeof(ctx) + sizeof(why) + 2];
  va_list ap;

  va_start(ap, fmt);
  vsnprintf(ctx, sizeof(ctx), fmt, ap);
  va_end(ap);
  snprintf(tmp, sizeof(tmp), "%s: %s", ctx, why);
  memcpy(why, tmp, sizeof(why) - 1);
  why[sizeof(why) - 1] = '\0';
  return 0;
}

#define CHECK(cond, ...)                    \
  do {                                      \
    if (!(cond)) return failf(__VA_ARGS__); \
  } while (0)

static inline void run(const char* name, int (*fn)(void)) {
  why[0] = '\0';
  if (fn()) {
    passed++;
    printf("VANE-PASS %s\n", name);
  } else {
    failed++;
    printf("VANE-FAIL %s: %s\n", name, why);
  }
  fflush(stdout);
}

static inline uint32_t align4(uint32_t n) { return (n + 3u) & ~3u; }

static inline uint32_t get32(const uint8_t* p) {
  uint32_t v;

  memcpy(&v, p, 4);
  return v;
}

static inline void put32(uint8_t* p, uint32_t v) { memcpy(p, &v, 4); }

/* ---- netlink ---------------------------------------------------------- */

/* A socket of `proto` bound to this process's id, which is what control
 * message 0 registers as the port id. */
static inline int nl_open(int proto) {
  struct sockaddr_nl sa = {.nl_family = AF_NETLINK, .nl_pid = (uint32_t)getpid()};
  int fd = socket(AF_NETLINK, SOCK_RAW, proto);

  if (fd < 0) return -errno;
  if (bind(fd, (struct sockaddr*)&sa, sizeof(sa)) < 0) {
    int e = -errno;

    close(fd);
    return e;
  }
  return fd;
}

/* One control message: header, message id, payload-length field, payload. */
static inline int ctrl_send(int fd, uint16_t type, uint16_t flags, uint32_t seq, uint32_t id,
                            uint32_t len_field, const void* payload, uint32_t size) {
  static uint8_t buf[24 + 256];
  struct nlmsghdr* h = (struct nlmsghdr*)buf;
  struct sockaddr_nl kernel = {.nl_family = AF_NETLINK};

  if (size > 256) return -EINVAL;
  memset(buf, 0, sizeof(buf));
  h->nlmsg_len = 24 + size;
  h->nlmsg_type = type;
  h->nlmsg_flags = flags;
  h->nlmsg_seq = seq;
  h->nlmsg_pid = (uint32_t)getpid();
  put32(buf + 16, id);
  put32(buf + 20, len_field);
  if (size) memcpy(buf + 24, payload, size);
  if (sendto(fd, buf, h->nlmsg_len, 0, (struct sockaddr*)&kernel, sizeof(kernel)) < 0)
    return -errno;
  return 0;
}

/* Next message within `ms` milliseconds: its length, 0 on timeout, -errno. */
static inline int nl_recv(int fd, uint8_t* buf, size_t cap, int ms) {
  struct pollfd p = {.fd = fd, .events = POLLIN};
  ssize_t n;

  if (poll(&p, 1, ms) <= 0) return 0;
  n = recv(fd, buf, cap, MSG_DONTWAIT);
  return n < 0 ? -errno : (int)n;
}

/* Discards whatever is queued. */
static inline void nl_drain(int fd) {
  static uint8_t buf[MAX_MSG];

  while (nl_recv(fd, buf, sizeof(buf), 0) != 0)
    ;
}

struct ack {
  int error;
  uint16_t flags;
  uint32_t seq, portid;
  uint16_t orig_type;
  uint32_t orig_len;
  uint32_t len;
};

/* Waits for an NLMSG_ERROR acknowledgement, passing over packets that were
 * queued before it; 1 when one came. */
static inline int get_ack(int fd, struct ack* a) {
  static uint8_t buf[MAX_MSG];
  const struct nlmsghdr* h = (const struct nlmsghdr*)buf;
  const struct nlmsgerr* e = (const struct nlmsgerr*)(buf + 16);
  int n;

  do n = nl_recv(fd, buf, sizeof(buf), 2000);
  while (n >= 16 && h->nlmsg_type == MSG_TYPE);
  if (n < 16 + (int)sizeof(*e) || h->nlmsg_type != NLMSG_ERROR) return 0;
  a->error = e->error;
  a->flags = h->nlmsg_flags;
  a->seq = h->nlmsg_seq;
  a->portid = h->nlmsg_pid;
  a->orig_type = e->msg.nlmsg_type;
  a->orig_len = e->msg.nlmsg_len;
  a->len = (uint32_t)n;
  return 1;
}

/* Control message with NLM_F_ACK; the acknowledged error, or -1000 when no
 * acknowledgement came. */
static inline int ctrl_ack(int fd, uint32_t id, const void* payload, uint32_t size) {
  static uint32_t seq = 100;
  struct ack a;

  if (ctrl_send(fd, MSG_TYPE, NLM_F_REQUEST | NLM_F_ACK, ++seq, id, size, payload, size))
    return -1001;
  if (!get_ack(fd, &a) || a.seq != seq) return -1000;
  return a.error;
}

static inline int register_pid(int fd, uint32_t channel, uint32_t vcpu) {
  uint32_t p[2] = {channel, vcpu};

  return ctrl_ack(fd, MID_PID, p, sizeof(p));
}

/* ---- the driver stand-in ----------------------------------------------- */

static inline int read_text(const char* path, char* buf, size_t cap) {
  int fd = open(path, O_RDONLY);
  ssize_t n;

  if (fd < 0) return -errno;
  n = read(fd, buf, cap - 1);
  close(fd);
  if (n < 0) return -errno;
  buf[n] = '\0';
  return (int)n;
}

/* One call of netlink_send_msg (selector 0) or netlink_fastsend_msg (1);
 * its result, or -2000 when the stand-in itself failed. */
static inline int drvsim(uint32_t sel, uint32_t type, const uint8_t* data, uint32_t len) {
  static uint8_t buf[8 + 16384];
  char text[32];
  int fd;
  ssize_t n;

  if (len > sizeof(buf) - 8) return -2000;
  put32(buf, sel);
  put32(buf + 4, type);
  if (len) memcpy(buf + 8, data, len);
  fd = open(DRVSIM_SEND, O_WRONLY);
  if (fd < 0) return -2000;
  n = write(fd, buf, 8 + len);
  close(fd);
  if (n != (ssize_t)(8 + len)) return -2000;
  if (read_text(DRVSIM_RESULT, text, sizeof(text)) <= 0) return -2000;
  return atoi(text);
}

/* ---- packets ------------------------------------------------------------ */

/* Delivery prefix: word 0 (0 lets ICMP take the fast channel), ethNum. */
static inline void prefix(uint8_t* buf, uint32_t word0, uint32_t ethnum) {
  memset(buf, 0, PREFIX_LEN);
  put32(buf, word0);
  put32(buf + 8, ethnum);
}

static inline void pattern(uint8_t* buf, uint32_t len, uint32_t seed) {
  for (uint32_t i = 0; i < len; i++) buf[i] = (uint8_t)(i * 7u + seed);
}

/* ---- the counters and the multi-core layout ---------------------------- */

/* Counter idx of /proc/bypassDebug/counts; 1 when it could be read. */
static inline int read_counter(unsigned idx, uint32_t* out) {
  uint8_t buf[3840];
  int fd = open(PROC_COUNTS, O_RDONLY);
  ssize_t n;

  if (fd < 0) return 0;
  n = pread(fd, buf, sizeof(buf), 0);
  close(fd);
  if (n != (ssize_t)sizeof(buf)) return 0;
  *out = get32(buf + 4 * idx);
  return 1;
}

/* The multi-core layout the cascade programs share: interface MC_ETHNUM,
 * no HiGig2 header, the Ethernet header MC_HEAD bytes in, the cause ID at
 * bytes 18-19, internal VP frames with EtherType VP_TYPE. */
#define MC_ETHNUM 21
#define MC_HEAD 24
#define VP_TYPE 0x8899

static inline void mc_config(uint32_t rec[22]) {
  memset(rec, 0, 88);
  rec[1] = MC_HEAD; /* ulMacOffset */
  rec[5] = VP_TYPE; /* ulVpEthType */
  rec[7] = MC_ETHNUM;
  rec[15] = MC_ETHNUM;
  rec[8] = 7;   /* ulEcmEthNum */
  rec[9] = 100; /* no VP interface */
  rec[18] = 99;
  rec[10] = 1;  /* dispatch on */
  rec[12] = 16; /* ulVpFragInnerOffset */
  rec[16] = 14; /* ulFirstFragFlagOffset */
  rec[17] = 16; /* ulVpInnerOffset */
  rec[20] = 1;  /* ulIsNoHgHdr */
}

/* Prefix and the bytes before the Ethernet header, carrying the cause ID. */
static inline uint32_t mc_head(uint8_t* buf, uint16_t cause) {
  memset(buf, 0, PREFIX_LEN + MC_HEAD);
  prefix(buf, 1, MC_ETHNUM);
  buf[PREFIX_LEN + 18] = (uint8_t)(cause >> 5);
  buf[PREFIX_LEN + 19] = (uint8_t)(cause << 3);
  return PREFIX_LEN + MC_HEAD;
}

#endif /* VANE_QEMU_GUEST_H */
