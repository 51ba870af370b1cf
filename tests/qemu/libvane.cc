// libvane over netlink against the real module, inside the qemu guest: what
// only the kernel's transport shows. A worker registers with its process id
// and receives what the driver stand-in hands in; acknowledgements are the
// kernel's own; and a receive queue that overflows reports the loss through
// ENOBUFS, which the worker must count exactly. The SDK's other functions
// and its decoders are tested against vaned in user space.
#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "vane/vane.h"

namespace {

std::string g_why;
int g_failed = 0;

// Records why a check failed; false, so that `return Fail(...)` ends it.
bool Fail(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
bool Fail(const char* fmt, ...) {
  char buf[256];
  va_list ap;
  va_start(ap, fmt);
  std::vsnprintf(buf, sizeof(buf), fmt, ap);
  va_end(ap);
  g_why = buf;
  return false;
}

#define CHECK(cond, ...)                   \
  do {                                     \
    if (!(cond)) return Fail(__VA_ARGS__); \
  } while (0)

void Run(const char* name, bool (*fn)()) {
  g_why.clear();
  if (fn()) {
    std::printf("VANE-PASS %s\n", name);
  } else {
    ++g_failed;
    std::printf("VANE-FAIL %s: %s\n", name, g_why.c_str());
  }
  std::fflush(stdout);
}

std::string ReadText(const char* path) {
  char buf[256];
  const int fd = open(path, O_RDONLY);
  if (fd < 0) return "";
  const ssize_t n = read(fd, buf, sizeof(buf) - 1);
  close(fd);
  return std::string(buf, n > 0 ? static_cast<size_t>(n) : 0);
}

// One netlink_send_msg call through the driver stand-in: its result, or
// -100000 when the stand-in itself failed.
int Deliver(uint32_t type, const std::vector<uint8_t>& data) {
  std::vector<uint8_t> call(8 + data.size());
  const uint32_t head[2] = {0, type};
  std::memcpy(call.data(), head, sizeof(head));
  std::memcpy(call.data() + 8, data.data(), data.size());
  const int fd = open("/proc/vane_drvsim/send", O_WRONLY);
  if (fd < 0) return -100000;
  const ssize_t n = write(fd, call.data(), call.size());
  close(fd);
  if (n != static_cast<ssize_t>(call.size())) return -100000;
  return std::atoi(ReadText("/proc/vane_drvsim/result").c_str());
}

// A packet the default receiver gets: prefix word 0 set (no ICMP
// diversion), then `len` bytes of pattern.
std::vector<uint8_t> Packet(size_t len, uint8_t seed) {
  std::vector<uint8_t> p(12 + len);
  p[0] = 1;
  for (size_t i = 12; i < p.size(); ++i) p[i] = static_cast<uint8_t>(i * 7 + seed);
  return p;
}

vane_endpoint Netlink() {
  vane_endpoint ep{};
  ep.transport = VANE_TRANSPORT_NETLINK;
  return ep;
}

struct Received {
  std::vector<std::vector<uint8_t>> packets;
  std::vector<uint32_t> types;
};

void Collect(void* arg, const vane_packet* pkt) {
  auto* r = static_cast<Received*>(arg);
  r->packets.emplace_back(pkt->data, pkt->data + pkt->len);
  r->types.push_back(pkt->type);
}

// Polls until `want` packets came or nothing arrives for half a second.
void Drain(vane_worker* w, Received* r, size_t want) {
  while (r->packets.size() < want) {
    if (vane_worker_poll(w, 500, Collect, r) <= 0) break;
  }
}

vane_worker* OpenWorker(unsigned rcvbuf) {
  vane_worker_opts o{};
  o.ep = Netlink();
  o.open_normal = 1;
  o.open_fast = 1;
  o.default_receiver = 1;
  o.rcvbuf = rcvbuf;
  vane_worker* w = nullptr;
  return vane_worker_open(&o, &w) == 0 ? w : nullptr;
}

vane_ctl* g_ctl;

// A worker registers as the default receiver and gets what the driver hands
// in, whole and in order.
bool WorkerReceives() {
  vane_worker* w = OpenWorker(0);
  CHECK(w != nullptr, "vane_worker_open failed");
  const std::vector<uint8_t> a = Packet(200, 1);
  const std::vector<uint8_t> b = Packet(61, 2);
  int rc;
  CHECK((rc = Deliver(3, a)) > 0, "delivery: %d", rc);
  CHECK((rc = Deliver(4, b)) > 0, "delivery: %d", rc);
  Received r;
  Drain(w, &r, 2);
  vane_worker_close(w);
  CHECK(r.packets.size() == 2, "received %zu of 2 packets", r.packets.size());
  CHECK(r.types[0] == 3 && r.types[1] == 4, "types %u and %u", r.types[0], r.types[1]);
  CHECK(r.packets[0] == a && r.packets[1] == b, "the data differs from what was sent");
  return true;
}

// The kernel's acknowledgements: 0 for a message the module took (the
// stand-in's handler saw it), the module's error for one it refused.
bool Acknowledgements() {
  const std::string before = ReadText("/proc/vane_drvsim/handler");
  unsigned calls0 = 0;
  CHECK(std::sscanf(before.c_str(), "calls=%u", &calls0) == 1, "handler reads \"%s\"",
        before.c_str());
  const uint8_t payload[3] = {0xAB, 0xCD, 0xEF};
  int rc;
  CHECK((rc = vane_ctl_handler_msg(g_ctl, 3, payload, 3)) == 0, "handler_msg: %d", rc);
  const std::string after = ReadText("/proc/vane_drvsim/handler");
  unsigned calls1 = 0;
  unsigned len = 0;
  CHECK(std::sscanf(after.c_str(), "calls=%u len=%u", &calls1, &len) == 2 && calls1 == calls0 + 1 &&
            len == 3 && after.find("abcdef") != std::string::npos,
        "handler saw: %s", after.c_str());
  const uint32_t four = 0;
  CHECK((rc = vane_ctl_send(g_ctl, VANE_CHANNEL_NORMAL, 10, &four, sizeof(four))) == -22,
        "a 4-byte LB message: %d, not -22", rc);
  return true;
}

// A worker whose receive queue overflows learns exactly how many messages
// the module could not queue for it. It lives in a child process, since a
// worker socket's port id is its process id.
bool LossOnAFullQueue() {
  int ready[2];
  int go[2];
  int result[2];
  CHECK(pipe(ready) == 0 && pipe(go) == 0 && pipe(result) == 0, "pipe");
  const pid_t child = fork();
  CHECK(child >= 0, "fork");
  if (child == 0) {
    vane_worker* w = OpenWorker(4096);
    char byte = w != nullptr ? 1 : 0;
    if (write(ready[1], &byte, 1) != 1 || read(go[0], &byte, 1) != 1 || w == nullptr) _exit(1);
    Received r;
    Drain(w, &r, 1000);
    vane_worker_stats s;
    vane_worker_stats_get(w, &s);
    const uint64_t out[3] = {s.packets, s.lost, s.loss_events};
    if (write(result[1], out, sizeof(out)) != sizeof(out)) _exit(1);
    vane_worker_close(w);
    _exit(0);
  }
  char byte = 0;
  CHECK(read(ready[0], &byte, 1) == 1 && byte == 1, "the child's worker did not open");
  const std::vector<uint8_t> pkt = Packet(900, 3);
  unsigned sent = 0;
  unsigned refused = 0;
  for (int i = 0; i < 200; i++) {
    const int rc = Deliver(1, pkt);
    if (rc > 0) {
      sent++;
    } else if (rc == -EAGAIN) {
      refused++;
    } else {
      kill(child, SIGKILL);
      waitpid(child, nullptr, 0);
      return Fail("delivery: %d", rc);
    }
  }
  CHECK(write(go[1], &byte, 1) == 1, "pipe");
  uint64_t got[3] = {0, 0, 0};
  const bool reported = read(result[0], got, sizeof(got)) == sizeof(got);
  waitpid(child, nullptr, 0);
  CHECK(reported, "no result from the child");
  CHECK(refused > 0, "the queue never filled (%u sent)", sent);
  CHECK(got[0] == sent, "the worker received %llu of %u queued", (unsigned long long)got[0], sent);
  CHECK(got[1] == refused && got[2] >= 1, "lost %llu (events %llu), the module refused %u",
        (unsigned long long)got[1], (unsigned long long)got[2], refused);
  std::printf("vane-libvane: loss: %u queued, %u refused, counted %llu lost\n", sent, refused,
              (unsigned long long)got[1]);
  return true;
}

}  // namespace

int main() {
  std::setvbuf(stdout, nullptr, _IOLBF, 0);
  vane_endpoint ep = Netlink();
  if (vane_ctl_open(&ep, &g_ctl) != 0) {
    std::printf("VANE-FAIL libvane-open: no control handle\n");
    return 1;
  }
  Run("libvane-worker-receives", WorkerReceives);
  Run("libvane-acknowledgements", Acknowledgements);
  Run("libvane-loss-on-a-full-queue", LossOnAFullQueue);
  vane_ctl_close(g_ctl);
  return g_failed == 0 ? 0 : 1;
}
