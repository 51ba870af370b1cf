/* The WLAN tables on a real kernel: configured by control message 10 over
 * a real netlink socket, decided on packets handed in through the driver
 * stand-in, and read back through /proc/wlan_lb and the sysfs attribute.
 * One line per check, as in vane_scenarios.
 *
 *   vane_wlan            the scenarios, on a freshly loaded module
 *   vane_wlan race SECS  a writer churning every table while a packet
 *                        writer on each processor looks up and a reader
 *                        walks the views, for SECS seconds; the debug
 *                        kernels report any race or bad access it causes */
#include "guest.h"

#include <sched.h>

#define MID_WLAN_LB 10
#define ATTR "/sys/class/wlan_lb/wlan_lb/wlan_lb"
#define VIEW_CAPWAP "/proc/wlan_lb/capwap"
#define VIEW_CAPWAP_KA "/proc/wlan_lb/capwap_ka"

enum { C_CAPWAP = 300, C_KA = 301, C_MAC = 302, C_PORT = 303 };
enum { T_CAPWAP = 4, T_KA = 5, T_MAC = 6, T_PORT = 7 };
#define SIP 0x0a010101u
#define DIP 0x0a010102u
#define COA_PORT 3799

static int s26 = -1;
static uint8_t pkt[2048];
static uint8_t rx[MAX_MSG];
static int race_secs;

/* ---- LB messages ---------------------------------------------------------- */

static int lb(int fd, uint32_t set_type, uint32_t head, const void* body, uint32_t blen) {
  uint8_t m[8 + 1300];

  put32(m, set_type);
  put32(m + 4, head);
  if (blen) memcpy(m + 8, body, blen);
  return ctrl_ack(fd, MID_WLAN_LB, m, 8 + blen);
}

static int capwap(int fd, uint32_t sip, uint32_t dip, uint16_t sport, uint16_t dport, uint32_t vcpu,
                  uint8_t op) {
  uint8_t b[24] = {0};

  put32(b, sip);
  put32(b + 4, dip);
  memcpy(b + 8, &sport, 2);
  memcpy(b + 10, &dport, 2);
  put32(b + 16, vcpu);
  b[20] = op;
  return lb(fd, 0, 0, b, sizeof(b));
}

static const uint32_t session[4] = {0x01020304, 0x05060708, 0x090a0b0c, 0x0d0e0f10};

static int keepalive(int fd, uint32_t vcpu, uint8_t op) {
  uint8_t b[24] = {0};

  memcpy(b, session, 16);
  put32(b + 16, vcpu);
  b[20] = op;
  return lb(fd, 1, 0, b, sizeof(b));
}

static int nac(int fd, const uint32_t* ids, uint16_t count) {
  uint8_t b[68] = {0};

  memcpy(b, &count, 2);
  memcpy(b + 4, ids, 4u * (count < 16 ? count : 16));
  return lb(fd, 2, 3, b, sizeof(b));
}

static int portal(int fd, uint16_t port, uint32_t vcpu) {
  uint8_t b[12] = {0};

  memcpy(b, &port, 2);
  put32(b + 4, vcpu);
  return lb(fd, 3, 0, b, sizeof(b));
}

static int socket_port(int fd, uint16_t port, uint8_t tcp, uint8_t src, uint32_t vcpu,
                       uint16_t op) {
  uint8_t b[16] = {0};

  memcpy(b, &op, 2);
  memcpy(b + 4, &port, 2);
  b[6] = tcp;
  b[7] = src;
  put32(b + 8, vcpu);
  return lb(fd, 4, 0, b, sizeof(b));
}

static int cause_ids(int fd) {
  const uint32_t recs[12] = {C_CAPWAP, T_CAPWAP, 1, C_KA,   T_KA,   2,
                             C_MAC,    T_MAC,    3, C_PORT, T_PORT, 4};

  return lb(fd, 6, 4, recs, sizeof(recs));
}

/* ---- packets -------------------------------------------------------------- */

/* A multi-core IPv4 packet of the cause ID from 10.1.1.1 to 10.1.1.2 (source
 * MAC 00:00:5e:00:01:02): UDP with the ports and payload when off is 0, else
 * a later fragment; more sets the more-fragments flag. */
static uint32_t ipv4(uint8_t* buf, uint16_t cause, uint16_t sport, uint16_t dport,
                     const uint8_t* payload, uint32_t plen, int more, uint16_t off, uint16_t id) {
  static const uint8_t eth[14] = {0x00, 0x11, 0x22, 0x33, 0x44, 0x55, 0x00,
                                  0x00, 0x5e, 0x00, 0x01, 0x02, 0x08, 0x00};
  uint32_t n = mc_head(buf, cause);
  uint8_t* p = buf + n;
  uint32_t l4 = off ? plen : 8 + plen;
  uint16_t frag = (uint16_t)((more ? 0x2000 : 0) | off);

  memcpy(p, eth, 14);
  memset(p + 14, 0, 20 + l4);
  p[14] = 0x45;
  p[16] = (uint8_t)((20 + l4) >> 8);
  p[17] = (uint8_t)(20 + l4);
  p[18] = (uint8_t)(id >> 8);
  p[19] = (uint8_t)id;
  p[20] = (uint8_t)(frag >> 8);
  p[21] = (uint8_t)frag;
  p[22] = 64;
  p[23] = 17;
  memcpy(p + 26, "\x0a\x01\x01\x01\x0a\x01\x01\x02", 8);
  if (!off) {
    p[34] = (uint8_t)(sport >> 8);
    p[35] = (uint8_t)sport;
    p[36] = (uint8_t)(dport >> 8);
    p[37] = (uint8_t)dport;
    p[38] = (uint8_t)(l4 >> 8);
    p[39] = (uint8_t)l4;
  }
  if (plen) memcpy(p + 34 + (off ? 0 : 8), payload, plen);
  return n + 14 + 20 + l4;
}

static uint32_t udp(uint8_t* buf, uint16_t cause, uint16_t sport, uint16_t dport) {
  static const uint8_t zero[20];

  return ipv4(buf, cause, sport, dport, zero, sizeof(zero), 0, 0, 1);
}

/* A CAPWAP data keep-alive carrying `session`. */
static uint32_t keepalive_pkt(uint8_t* buf) {
  uint8_t ka[30] = {0x00, 0x10, 0x00, 0x08, 0, 0, 0, 0, 0, 22, 0, 35, 0, 16};

  for (int i = 0; i < 16; i++) ka[14 + i] = (uint8_t)(i + 1);
  return ipv4(buf, C_KA, 5247, 5247, ka, sizeof(ka), 0, 0, 2);
}

static unsigned wlan_counter(unsigned vcpu, unsigned type) { return 192 + 12 * vcpu + type; }

/* Sends the packet; fails unless each listed vCPU's counter and WLAN
 * counter of `type` rose by one (vcpus ends with 0). */
static int to_vcpus(const char* what, uint32_t len, unsigned type, const unsigned* vcpus) {
  uint32_t before[2][8], after[2][8];
  int n = 0, r;

  for (; vcpus[n]; n++) {
    CHECK(read_counter(vcpus[n], &before[0][n]) &&
              read_counter(wlan_counter(vcpus[n], type), &before[1][n]),
          "%s: cannot read counters", what);
  }
  r = drvsim(0, 1, pkt, len);
  CHECK(r > 0, "%s: netlink_send_msg answered %d", what, r);
  for (int i = 0; i < n; i++) {
    CHECK(read_counter(vcpus[i], &after[0][i]) &&
              read_counter(wlan_counter(vcpus[i], type), &after[1][i]),
          "%s: cannot read counters", what);
    CHECK(after[0][i] - before[0][i] == 1 && after[1][i] - before[1][i] == 1,
          "%s: vCPU %u counted %u and %u times", what, vcpus[i], after[0][i] - before[0][i],
          after[1][i] - before[1][i]);
  }
  /* What the first receiver got: the packet-type stamp in the byte before
   * the Ethernet header (data starts at 24, behind the delivery prefix). */
  r = nl_recv(s26, rx, sizeof(rx), 1000);
  CHECK(r >= (int)(24 + PREFIX_LEN + MC_HEAD), "%s: nothing delivered (%d)", what, r);
  CHECK(rx[24 + PREFIX_LEN + MC_HEAD - 1] == type, "%s: stamped %u, not %u", what,
        rx[24 + PREFIX_LEN + MC_HEAD - 1], type);
  nl_drain(s26);
  return 1;
}

/* ---- scenarios ------------------------------------------------------------ */

static int sc_setup(void) {
  uint32_t rec[22];
  static const uint32_t vcpus[] = {2, 3, 7, 12, 20, 21, 22};

  s26 = nl_open(PROTO_NORMAL);
  CHECK(s26 >= 0, "netlink socket: %s", strerror(errno));
  mc_config(rec);
  CHECK(ctrl_ack(s26, MID_OFFSET, rec, 88) == 0, "message 5 refused");
  CHECK(register_pid(s26, PROTO_NORMAL, 0) == 0, "default receiver refused");
  for (unsigned i = 0; i < sizeof(vcpus) / 4; i++)
    CHECK(register_pid(s26, PROTO_NORMAL, vcpus[i]) == 0, "vCPU %u refused", vcpus[i]);
  /* A message without its 8-byte head is refused whole. */
  CHECK(ctrl_ack(s26, MID_WLAN_LB, "\0\0\0\0", 4) == -22, "a 4-byte LB message was accepted");
  CHECK(cause_ids(s26) == 0, "cause IDs refused");
  return 1;
}

static int sc_lb_types(void) {
  static const uint32_t ids[3] = {20, 21, 22};
  static const unsigned v12[] = {12, 0}, v7[] = {7, 0}, v21[] = {21, 0}, v3[] = {3, 0},
                        v2[] = {2, 0}, coa[] = {20, 21, 22, 0};

  CHECK(capwap(s26, SIP, DIP, 5246, 5247, 12, 1) == 0, "CAPWAP entry refused");
  CHECK(keepalive(s26, 7, 1) == 0, "keep-alive entry refused");
  CHECK(nac(s26, ids, 3) == 0, "NAC list refused"); /* board type 3 too */
  CHECK(portal(s26, 8080, 3) == 0, "Portal entry refused");
  CHECK(socket_port(s26, 1812, 0, 1, 0, 1) == 0, "socket-port entry refused");

  if (!to_vcpus("CAPWAP", udp(pkt, C_CAPWAP, 5246, 5247), T_CAPWAP, v12)) return 0;
  if (!to_vcpus("keep-alive", keepalive_pkt(pkt), T_KA, v7)) return 0;
  /* 00:00:5e:00:01:02 hashes to slot 1 of three. */
  if (!to_vcpus("AAA by MAC", udp(pkt, C_MAC, 68, 67), T_MAC, v21)) return 0;
  if (!to_vcpus("Portal", udp(pkt, C_PORT, 40000, 8080), T_PORT, v3)) return 0;
  if (!to_vcpus("port range", udp(pkt, C_PORT, 1812, 55692), T_PORT, v2)) return 0;
  if (!to_vcpus("RADIUS CoA", udp(pkt, C_PORT, 40000, COA_PORT), T_PORT, coa)) return 0;
  return 1;
}

static int sc_capwap_fragments(void) {
  static const uint8_t body[24];
  static const unsigned v12[] = {12, 0}, v3[] = {3, 0};

  if (!to_vcpus("first fragment", ipv4(pkt, C_CAPWAP, 5246, 5247, body, 16, 1, 0, 0x77), T_CAPWAP,
                v12))
    return 0;
  /* A new vCPU for the flow: the datagram under way keeps its own. */
  CHECK(capwap(s26, SIP, DIP, 5246, 5247, 3, 1) == 0, "CAPWAP update refused");
  if (!to_vcpus("middle fragment", ipv4(pkt, C_CAPWAP, 0, 0, body, 24, 1, 3, 0x77), T_CAPWAP, v12))
    return 0;
  if (!to_vcpus("last fragment", ipv4(pkt, C_CAPWAP, 0, 0, body, 8, 0, 6, 0x77), T_CAPWAP, v12))
    return 0;
  return to_vcpus("next datagram", udp(pkt, C_CAPWAP, 5246, 5247), T_CAPWAP, v3);
}

static int attr_view(const char* sel, char* out, size_t cap) {
  int fd = open(ATTR, O_WRONLY);

  if (fd < 0) return 0;
  if (write(fd, sel, strlen(sel)) != (ssize_t)strlen(sel)) {
    close(fd);
    return 0;
  }
  close(fd);
  return read_text(ATTR, out, cap) >= 0;
}

static int sc_views(void) {
  char text[4200];
  uint8_t img[200], key[16];
  uint64_t ip = SIP;
  int fd;
  ssize_t n;

  CHECK(attr_view("1", text, sizeof(text)), "cannot use " ATTR);
  CHECK(!strcmp(text, "\r\nNAC process list :20 21 22 "), "NAC view: \"%s\"", text);
  CHECK(attr_view("4", text, sizeof(text)), "cannot use " ATTR);
  CHECK(strstr(text, "300  1    4   ;") && strstr(text, "303  4    7   ;"), "cause-ID view: \"%s\"",
        text);
  CHECK(attr_view("2", text, sizeof(text)), "cannot use " ATTR);
  CHECK(
      strstr(text, "\r\n  1812(S)                      UDP                                 RANGE"),
      "socket-port view: \"%s\"", text);
  CHECK(attr_view("3", text, sizeof(text)), "cannot use " ATTR);
  CHECK(strstr(text, "WLAN LB BOARD TYPE                :3 "), "statistics view: \"%s\"", text);
  CHECK(attr_view("0", text, sizeof(text)) && attr_view("3", text, sizeof(text)) &&
            strstr(text, "WLAN LB KERNEL LB SET CAPWAP      :0 "),
        "counters not cleared: \"%s\"", text);

  /* CAPWAP records by source address. */
  fd = open(VIEW_CAPWAP, O_RDWR);
  CHECK(fd >= 0, "cannot open " VIEW_CAPWAP);
  CHECK(write(fd, &ip, 4) == -1 && errno == EINVAL, "a 4-byte key was accepted");
  CHECK(write(fd, &ip, 8) == 8, "the 8-byte key was refused");
  n = pread(fd, img, sizeof(img), 0);
  close(fd);
  CHECK(n == 200 && get32(img) == SIP && get32(img + 4) == DIP && get32(img + 16) == 3 &&
            get32(img + 20) == 0,
        "capwap view: %zd bytes, sip %08x process %u", n, get32(img), get32(img + 16));

  fd = open(VIEW_CAPWAP_KA, O_RDWR);
  CHECK(fd >= 0, "cannot open " VIEW_CAPWAP_KA);
  memcpy(key, session, 16);
  CHECK(write(fd, key, 16) == 16, "the 16-byte key was refused");
  n = pread(fd, img, sizeof(img), 0);
  close(fd);
  CHECK(n == 20 && !memcmp(img, session, 16) && get32(img + 16) == 7,
        "capwap_ka view: %zd bytes, process %u", n, get32(img + 16));
  return 1;
}

/* ---- the race ------------------------------------------------------------- */

static long now_ms(void) {
  struct timespec ts;

  clock_gettime(CLOCK_MONOTONIC, &ts);
  return ts.tv_sec * 1000L + ts.tv_nsec / 1000000L;
}

static void pin(int cpu) {
  cpu_set_t set;

  CPU_ZERO(&set);
  CPU_SET(cpu, &set);
  sched_setaffinity(0, sizeof(set), &set);
}

/* Every table changes without pause: CAPWAP and keep-alive entries added,
 * updated and deleted, socket ports replaced and deleted, the NAC list
 * reloaded (which resets the CoA entries), the Portal entry rewritten. */
static uint32_t race_writer(long end) {
  int fd = nl_open(PROTO_NORMAL);
  uint32_t bad = 0;

  if (fd < 0) return 1;
  for (uint32_t i = 0; now_ms() < end; i++) {
    uint32_t ids[16];
    uint16_t port = (uint16_t)(30000 + i % 32);

    for (int k = 0; k < 16; k++) ids[k] = 20 + (i + k) % 3;
    bad += capwap(fd, SIP + 1 + i % 64, DIP, 5246, 5247, 1 + i % 60, 1) != 0;
    bad += capwap(fd, SIP, DIP, 5246, 5247, 12 + i % 2, 1) != 0;
    bad += capwap(fd, SIP + 1 + (i + 32) % 64, DIP, 5246, 5247, 0, 2) != 0;
    bad += keepalive(fd, 7 + i % 2, i % 3 == 2 ? 2 : 1) != 0;
    bad += socket_port(fd, port, i & 1, 0, 3, 1) != 0;
    bad += socket_port(fd, (uint16_t)(port - 7), i & 1, 0, 3, 2) != 0;
    bad += nac(fd, ids, (uint16_t)(1 + i % 16)) != 0;
    bad += portal(fd, 8080, 3 + i % 2) != 0;
  }
  close(fd);
  return bad;
}

static uint32_t race_packets(long end) {
  uint32_t bad = 0;

  for (uint32_t i = 0; now_ms() < end; i++) {
    uint32_t len;
    int r;

    switch (i % 5) {
      case 0:
        len = udp(pkt, C_CAPWAP, 5246, 5247);
        break;
      case 1:
        len = keepalive_pkt(pkt);
        break;
      case 2:
        len = udp(pkt, C_MAC, 68, 67);
        break;
      case 3:
        len = udp(pkt, C_PORT, 40000, i & 8 ? COA_PORT : 8080);
        break;
      default:
        len = udp(pkt, C_PORT, 1812, 30000 + i % 32);
    }
    r = drvsim(0, 1, pkt, len);
    if (r == -2000) bad++;
  }
  return bad;
}

static uint32_t race_views(long end) {
  uint8_t img[200];
  char text[4200];
  uint64_t ip = SIP;
  uint32_t bad = 0;

  for (uint32_t i = 0; now_ms() < end; i++) {
    int fd = open(VIEW_CAPWAP, O_RDWR);

    if (fd < 0 || write(fd, &ip, 8) != 8 || pread(fd, img, 200, 0) != 200) bad++;
    if (fd >= 0) close(fd);
    fd = open(VIEW_CAPWAP_KA, O_RDWR);
    if (fd < 0 || write(fd, session, 16) != 16 || pread(fd, img, 20, 0) != 20) bad++;
    if (fd >= 0) close(fd);
    if (!attr_view(i % 2 ? "2" : "1", text, sizeof(text))) bad++;
  }
  return bad;
}

static int race_main(void) {
  long end = now_ms() + race_secs * 1000L;
  int ncpu = (int)sysconf(_SC_NPROCESSORS_ONLN);
  int nkids = ncpu + 2, pipes[16][2];
  pid_t kids[16];
  uint32_t bad = 0;

  if (!sc_setup()) return 0;
  if (ncpu > 14) nkids = 16;
  for (int i = 0; i < nkids; i++) {
    CHECK(pipe(pipes[i]) == 0, "pipe");
    kids[i] = fork();
    CHECK(kids[i] >= 0, "fork");
    if (kids[i] == 0) {
      uint32_t b;

      close(pipes[i][0]);
      if (i == 0) {
        b = race_writer(end);
      } else if (i == 1) {
        b = race_views(end);
      } else {
        pin(i - 2);
        b = race_packets(end);
      }
      if (write(pipes[i][1], &b, 4) != 4) _exit(1);
      _exit(0);
    }
    close(pipes[i][1]);
  }
  while (now_ms() < end + 200) nl_recv(s26, rx, sizeof(rx), 10);
  for (int i = 0; i < nkids; i++) {
    uint32_t b = 1000;
    int status;

    if (read(pipes[i][0], &b, 4) != 4) b = 1000;
    close(pipes[i][0]);
    waitpid(kids[i], &status, 0);
    bad += b;
  }
  nl_drain(s26);
  CHECK(bad == 0, "%u failed operations in the race", bad);
  return 1;
}

int main(int argc, char** argv) {
  setvbuf(stdout, NULL, _IOLBF, 0);
  if (argc > 2 && !strcmp(argv[1], "race")) {
    race_secs = atoi(argv[2]);
    run("wlan-writer-vs-lookups", race_main);
  } else {
    run("wlan-setup", sc_setup);
    run("wlan-lb-types", sc_lb_types);
    run("wlan-capwap-fragments", sc_capwap_fragments);
    run("wlan-views", sc_views);
  }
  if (s26 >= 0) close(s26);
  printf("vane-wlan: %d passed, %d failed\n", passed, failed);
  return failed ? 1 : 0;
}
