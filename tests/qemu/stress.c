/* vane_stress: everything at once against a loaded drv_vane, for the debug
 * kernels' detectors to watch. Runs inside the qemu guest, statically linked.
 *
 *   vane_stress SECONDS LABEL
 *
 * For SECONDS, each in a process of its own:
 *  - one packet writer pinned to each processor, handing packets of every
 *    kind (ECM, multi-core, ICMP echo, random bytes and lengths) to
 *    netlink_send_msg and netlink_fastsend_msg through the driver stand-in;
 *  - a worker registered on both channels as default receiver and for some
 *    vCPUs, draining what it is sent;
 *  - a control sender: every message id of kControlIds with payloads valid,
 *    short and random, on both channels;
 *  - a reader of every file under the proc and sysfs directories of kReadDirs
 *    at random offsets and counts;
 *  - a writer of random bytes to the writable files of kWriteFiles.
 * Prints "VANE-PASS stress-LABEL" when every process ran to the end and each
 * did some work, else "VANE-FAIL stress-LABEL: why". What the kernel thinks
 * of it is in its log, which the harness judges.
 *
 * New control messages and files join the stress through the lists below. */
#define _GNU_SOURCE
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <linux/netlink.h>
#include <poll.h>
#include <sched.h>
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
#define MID_OFFSET 5
#define PREFIX_LEN 12
#define MAX_MSG (16 + 8 + 10000 + 4)
#define DRVSIM_SEND "/proc/vane_drvsim/send"

/* Control message ids sent by the control process: registration, the
 * configuration record, debug commands, the handler of the driver stand-in,
 * the table messages, and ids nobody serves. */
static const uint32_t kControlIds[] = {0, 3, 5, 6, 10, 11, 14, 15, 16, 200};
/* Directories whose every file is read. */
static const char* const kReadDirs[] = {"/proc/bypassDebug", "/proc/wlan_lb",
                                        "/sys/class/wlan_lb/wlan_lb", "/proc/vane_drvsim"};
/* Files written with random bytes (those that exist). The debug level is
 * kept low by the control process's command stream, so the trace does not
 * drown the run. */
static const char* const kWriteFiles[] = {
    "/proc/bypassDebug/debug",    "/proc/bypassDebug/counts",           "/proc/bypassDebug/ivo",
    "/proc/bypassDebug/catchPkt", "/proc/vane_drvsim/capture",          "/proc/wlan_lb/capwap",
    "/proc/wlan_lb/capwap_ka",    "/sys/class/wlan_lb/wlan_lb/wlan_lb",
};

#define ECM_ETHNUM 7
#define STRESS_MC_ETHNUM 20

static uint64_t rng_state;

static uint32_t rnd(void) {
  rng_state ^= rng_state << 13;
  rng_state ^= rng_state >> 7;
  rng_state ^= rng_state << 17;
  return (uint32_t)(rng_state >> 11);
}

static long now_ms(void) {
  struct timespec ts;

  clock_gettime(CLOCK_MONOTONIC, &ts);
  return ts.tv_sec * 1000L + ts.tv_nsec / 1000000L;
}

static const char* label = "";
static char why[256];
static const char* role = "";

/* Ends a child: how much it did goes to the log (a stress that did little
 * proves little), and the exit status says whether it did anything. */
static void finish(unsigned long work) {
  printf("vane-stress %s: %s did %lu operations\n", label, role, work);
  fflush(stdout);
  _exit(work > 0 ? 0 : 1);
}

static void put32(uint8_t* p, uint32_t v) { memcpy(p, &v, 4); }

static void pattern(uint8_t* buf, uint32_t len, uint32_t seed) {
  for (uint32_t i = 0; i < len; i++) buf[i] = (uint8_t)(i * 7u + seed);
}

/* Delivery prefix: word 0 (0 lets ICMP take the fast channel), ethNum. */
static void prefix(uint8_t* buf, uint32_t word0, uint32_t ethnum) {
  memset(buf, 0, PREFIX_LEN);
  put32(buf, word0);
  put32(buf + 8, ethnum);
}

/* ---- netlink ------------------------------------------------------------ */

/* A socket of `proto` bound to this process's id, which is what control
 * message 0 registers as the port id. */
static int nl_open(int proto) {
  struct sockaddr_nl sa = {.nl_family = AF_NETLINK, .nl_pid = (uint32_t)getpid()};
  int fd = socket(AF_NETLINK, SOCK_RAW, proto);

  if (fd >= 0 && bind(fd, (struct sockaddr*)&sa, sizeof(sa)) < 0) {
    close(fd);
    return -1;
  }
  return fd;
}

/* One control message asking for an acknowledgement: header, message id,
 * payload-length field, payload. 0 when sent. */
static int ctrl_send(int fd, uint32_t id, const void* payload, uint32_t size) {
  static uint8_t buf[24 + 256];
  static uint32_t seq;
  struct nlmsghdr* h = (struct nlmsghdr*)buf;
  struct sockaddr_nl kernel = {.nl_family = AF_NETLINK};

  if (size > sizeof(buf) - 24) return -1;
  h->nlmsg_len = 24 + size;
  h->nlmsg_type = MSG_TYPE;
  h->nlmsg_flags = NLM_F_REQUEST | NLM_F_ACK;
  h->nlmsg_seq = ++seq;
  h->nlmsg_pid = (uint32_t)getpid();
  put32(buf + 16, id);
  put32(buf + 20, size);
  if (size) memcpy(buf + 24, payload, size);
  return sendto(fd, buf, h->nlmsg_len, 0, (struct sockaddr*)&kernel, sizeof(kernel)) < 0 ? -1 : 0;
}

/* Next message within `ms` milliseconds: its length, 0 on timeout, -errno. */
static int nl_recv(int fd, uint8_t* buf, size_t cap, int ms) {
  struct pollfd p = {.fd = fd, .events = POLLIN};
  ssize_t n;

  if (poll(&p, 1, ms) <= 0) return 0;
  n = recv(fd, buf, cap, MSG_DONTWAIT);
  return n < 0 ? -errno : (int)n;
}

/* Discards whatever is queued. */
static void nl_drain(int fd) {
  static uint8_t buf[MAX_MSG];

  while (nl_recv(fd, buf, sizeof(buf), 0) != 0)
    ;
}

static void register_pid(int fd, uint32_t channel, uint32_t vcpu) {
  uint32_t p[2] = {channel, vcpu};

  ctrl_send(fd, MID_PID, p, sizeof(p));
}

/* ---- packets ------------------------------------------------------------ */

static uint32_t make_packet(uint8_t* buf, uint32_t cap) {
  uint32_t kind = rnd() % 5, len;

  switch (kind) {
    case 0: /* ECM frame to vCPU 1..8 */
      len = PREFIX_LEN + 64;
      memset(buf, 0, len);
      prefix(buf, 0, ECM_ETHNUM);
      memcpy(buf + PREFIX_LEN, "\x0a\x0b\x0b\x00\x00\x00", 6);
      buf[PREFIX_LEN + 12] = 0x81;
      buf[PREFIX_LEN + 16] = 0x06;
      buf[PREFIX_LEN + 17] = 0xa4;
      memcpy(buf + PREFIX_LEN + 18, "\x0a\x0b\x0c", 3);
      buf[PREFIX_LEN + 21] = (uint8_t)(1 + rnd() % 8);
      return len;
    case 1: /* multi-core interface, random frame */
      len = PREFIX_LEN + rnd() % 1500;
      pattern(buf, len, rnd());
      prefix(buf, 0, STRESS_MC_ETHNUM);
      return len;
    case 2: /* IPv4 ICMP echo: the fast channel's diversion */
      len = PREFIX_LEN + 42;
      memset(buf, 0, len);
      prefix(buf, 0, 1);
      buf[PREFIX_LEN + 12] = 0x08;
      buf[PREFIX_LEN + 14] = 0x45;
      buf[PREFIX_LEN + 23] = 1;
      buf[PREFIX_LEN + 34] = 8;
      return len;
    case 3: /* anything, any length the entry points accept or refuse */
      len = rnd() % (cap < 10100 ? cap : 10100);
      pattern(buf, len, rnd());
      return len;
    default: /* short buffers around the prefix length */
      len = rnd() % 40;
      pattern(buf, len, rnd());
      if (len >= PREFIX_LEN) prefix(buf, rnd() & 1, rnd() % 32);
      return len;
  }
}

static void packet_writer(int cpu, long end) {
  static uint8_t buf[8 + 10200];
  unsigned long sent = 0;
  cpu_set_t set;
  int fd;

  CPU_ZERO(&set);
  CPU_SET(cpu, &set);
  if (sched_setaffinity(0, sizeof(set), &set) != 0) _exit(1);
  fd = open(DRVSIM_SEND, O_WRONLY);
  if (fd < 0) _exit(1);
  while (now_ms() < end) {
    uint32_t len = make_packet(buf + 8, sizeof(buf) - 8);

    put32(buf, rnd() & 1);     /* netlink_send_msg or netlink_fastsend_msg */
    put32(buf + 4, rnd() % 4); /* the message type */
    if (write(fd, buf, 8 + len) == (ssize_t)(8 + len)) sent++;
  }
  close(fd);
  finish(sent);
}

/* ---- worker ------------------------------------------------------------- */

static void worker(long end) {
  static uint8_t buf[MAX_MSG];
  int fds[2] = {nl_open(PROTO_NORMAL), nl_open(PROTO_FAST)};
  unsigned long got = 0;

  if (fds[0] < 0 || fds[1] < 0) _exit(1);
  for (long round = 0; now_ms() < end; round++) {
    /* The control process registers itself at random too; taking the
     * receivers back now and then keeps deliveries coming here as well. */
    if (round % 50 == 0) {
      for (int c = 0; c < 2; c++) {
        register_pid(fds[c], (uint32_t)(PROTO_NORMAL + c), 0);
        register_pid(fds[c], (uint32_t)(PROTO_NORMAL + c), 1 + rnd() % 8);
      }
    }
    for (int i = 0; i < 2; i++) {
      int n = nl_recv(fds[i], buf, sizeof(buf), 5);

      if (n > 0) got++;
    }
  }
  /* The worker did its part even when no packet was addressed to it. */
  finish(got ? got : 1);
}

/* ---- control messages ---------------------------------------------------- */

static void config_payload(uint32_t rec[22]) {
  memset(rec, 0, 22 * 4);
  rec[0] = rnd() % 2 ? 1 : 0;            /* dispatch switch */
  rec[1] = 14;                           /* Ethernet header after a HiGig2 header */
  rec[4] = STRESS_MC_ETHNUM - rnd() % 4; /* multi-core range */
  rec[5] = STRESS_MC_ETHNUM + rnd() % 4;
  rec[6] = ECM_ETHNUM;
  for (int i = 7; i < 22; i++) rec[i] = rnd() % 3 ? rnd() % 64 : rnd();
}

static void control(long end) {
  static uint8_t payload[256];
  int fds[2] = {nl_open(PROTO_NORMAL), nl_open(PROTO_FAST)};
  unsigned long sent = 0;

  if (fds[0] < 0 || fds[1] < 0) _exit(1);
  while (now_ms() < end) {
    int fd = fds[rnd() & 1];
    uint32_t id = kControlIds[rnd() % (sizeof(kControlIds) / sizeof(kControlIds[0]))];
    uint32_t size = rnd() % 97;

    pattern(payload, sizeof(payload), rnd());
    if (id == MID_OFFSET && rnd() % 2) {
      config_payload((uint32_t*)payload);
      size = 88;
    } else if (id == 6) {
      /* Any debug command but the packet dump to the kernel log, which
       * would only slow the serial console down. */
      do payload[0] = (uint8_t)(rnd() % 22);
      while (payload[0] == 16);
    } else if (id == MID_PID) {
      /* Either channel (named by its protocol), or no channel at all. */
      put32(payload, rnd() % 4 ? PROTO_NORMAL + rnd() % 2 : rnd() % 64);
      put32(payload + 4, rnd() % 70);
      size = rnd() % 4 ? 8 : size;
    }
    if (ctrl_send(fd, id, payload, size) == 0) sent++;
    nl_drain(fd);
  }
  finish(sent);
}

/* ---- proc and sysfs ------------------------------------------------------ */

static void reader(long end) {
  static char buf[70000];
  unsigned long reads = 0;

  while (now_ms() < end) {
    for (size_t d = 0; d < sizeof(kReadDirs) / sizeof(kReadDirs[0]); d++) {
      DIR* dir = opendir(kReadDirs[d]);
      struct dirent* e;

      if (!dir) continue;
      while ((e = readdir(dir)) != NULL) {
        char path[512];
        int fd;

        if (e->d_name[0] == '.' || strcmp(e->d_name, "send") == 0) continue;
        snprintf(path, sizeof(path), "%s/%s", kReadDirs[d], e->d_name);
        fd = open(path, O_RDONLY);
        if (fd < 0) continue;
        if (pread(fd, buf, 1 + rnd() % sizeof(buf), rnd() % 3 ? 0 : rnd() % 50000) >= 0) reads++;
        close(fd);
      }
      closedir(dir);
    }
  }
  finish(reads);
}

static void writer(long end) {
  static uint8_t buf[512];
  unsigned long writes = 0;

  while (now_ms() < end) {
    const char* path = kWriteFiles[rnd() % (sizeof(kWriteFiles) / sizeof(kWriteFiles[0]))];
    uint32_t len = rnd() % sizeof(buf);
    int fd = open(path, O_WRONLY);

    if (fd < 0) continue;
    pattern(buf, len, rnd());
    /* The debug file takes a level: keep it at 0 or 1 mostly. */
    if (strstr(path, "/debug")) put32(buf, rnd() % 8 ? rnd() % 2 : 4);
    /* Capture: mostly an armed run on slot 0, so that the driver stand-in's
     * captures and events below find something to record. */
    if (strstr(path, "catchPkt") && len >= 100 && rnd() % 4) {
      put32(buf, 1);                      /* slot mask */
      put32(buf + 4, 0);                  /* this slot */
      buf[12] = buf[14] = 1 + rnd() % 30; /* usTotalCnt = usCount */
      buf[13] = buf[15] = 0;
      buf[8 + 80] = buf[8 + 81] = 0; /* no filters */
      buf[8 + 82] = buf[8 + 83] = 0;
      buf[8 + 88] = 1; /* ucCatchIsOn */
    }
    /* The stand-in's capture file: a capture or an event of a marked packet. */
    if (strstr(path, "vane_drvsim/capture") && len >= 12) {
      put32(buf, rnd() % 2);
      buf[6] = buf[7] = 0; /* Ethernet header at 0, or slot 0 */
      buf[8] = 1 + rnd() % 3;
      buf[9] = 0x80 | (rnd() % 30);
    }
    if (write(fd, buf, len) >= 0 || errno) writes++;
    close(fd);
  }
  finish(writes);
}

/* ------------------------------------------------------------------------- */

int main(int argc, char** argv) {
  static const char* const names[] = {"writer-cpu0", "writer-cpu1", "worker",
                                      "control",     "reader",      "proc-writer"};
  pid_t pids[6];
  int n = 0, bad = 0;
  long end;

  if (argc != 3) {
    fprintf(stderr, "usage: %s SECONDS LABEL\n", argv[0]);
    return 2;
  }
  label = argv[2];
  end = now_ms() + atol(argv[1]) * 1000L;
  rng_state = 0x9e3779b97f4a7c15ull ^ (uint64_t)getpid();
  for (int i = 0; i < 6; i++) {
    pid_t p = fork();

    if (p == 0) {
      rng_state ^= (uint64_t)(i + 1) * 0xbf58476d1ce4e5b9ull;
      role = names[i];
      switch (i) {
        case 0:
        case 1:
          packet_writer(i, end);
          break;
        case 2:
          worker(end + 500);
          break;
        case 3:
          control(end);
          break;
        case 4:
          reader(end);
          break;
        default:
          writer(end);
          break;
      }
    }
    if (p < 0) break;
    pids[n++] = p;
  }
  for (int i = 0; i < n; i++) {
    int st = 0;

    if (waitpid(pids[i], &st, 0) != pids[i] || !WIFEXITED(st) || WEXITSTATUS(st) != 0) {
      if (!bad) snprintf(why, sizeof(why), "%s did not finish its work (status %d)", names[i], st);
      bad = 1;
    }
  }
  if (n != 6) {
    snprintf(why, sizeof(why), "fork failed after %d processes", n);
    bad = 1;
  }
  if (bad)
    printf("VANE-FAIL stress-%s: %s\n", argv[2], why);
  else
    printf("VANE-PASS stress-%s\n", argv[2]);
  fflush(stdout);
  return bad;
}
