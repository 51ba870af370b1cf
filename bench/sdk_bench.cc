// libvane's receive rate per worker on the unix transport. A stand-in for
// the daemon binds the run directory's normal socket, acknowledges the
// worker's registration, then keeps the worker's socket full with
// ready-made packet messages (256 bytes of data each) sent with sendmmsg,
// while the benchmark loop drains them with vane_worker_poll. Arguments:
// packet messages per datagram (the daemon may pack several), and the
// worker's recvmmsg batch.
#include <benchmark/benchmark.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "vane/vane.h"
#include "vane/wire.h"

namespace {

constexpr uint32_t kDataLen = 256;
constexpr uint32_t kMsgLen = 24 + kDataLen;  // already a multiple of 4
constexpr unsigned kSendBatch = 64;

void PutHeader(uint8_t* p, uint32_t len, uint16_t type, uint32_t seq) {
  const uint16_t flags = 0;
  const uint32_t pid = 0;
  std::memcpy(p, &len, 4);
  std::memcpy(p + 4, &type, 2);
  std::memcpy(p + 6, &flags, 2);
  std::memcpy(p + 8, &seq, 4);
  std::memcpy(p + 12, &pid, 4);
}

class FakeDaemon {
 public:
  explicit FakeDaemon(unsigned per_dgram) : per_dgram_(per_dgram) {
    char tmpl[] = "/tmp/vane-sdk-bench-XXXXXX";
    if (mkdtemp(tmpl) == nullptr) std::abort();
    dir_ = tmpl;
    fd_ = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_un a{};
    a.sun_family = AF_UNIX;
    std::snprintf(a.sun_path, sizeof a.sun_path, "%s/%s", dir_.c_str(), VANE_WIRE_SOCK_NORMAL);
    if (fd_ < 0 || bind(fd_, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0) std::abort();
    thread_ = std::thread([this] { Run(); });
  }
  ~FakeDaemon() {
    stop_ = true;
    thread_.join();
    close(fd_);
    std::filesystem::remove_all(dir_);
  }
  const std::string& dir() const { return dir_; }

 private:
  // Acknowledges the registration datagram and remembers who sent it.
  bool AnswerRegistration() {
    uint8_t buf[VANE_WIRE_DGRAM_MAX];
    sockaddr_un from{};
    socklen_t from_len = sizeof from;
    pollfd p{fd_, POLLIN, 0};
    while (!stop_) {
      if (poll(&p, 1, 100) <= 0) continue;
      const ssize_t n =
          recvfrom(fd_, buf, sizeof buf, 0, reinterpret_cast<sockaddr*>(&from), &from_len);
      if (n < 16) continue;
      for (ssize_t off = 0; off + 16 <= n;) {
        uint32_t len;
        uint32_t seq;
        std::memcpy(&len, buf + off, 4);
        std::memcpy(&seq, buf + off + 8, 4);
        if (len < 16) break;
        uint8_t ack[36] = {};
        PutHeader(ack, sizeof ack, 2, seq);  // error 0, then the request's header
        std::memcpy(ack + 20, buf + off, 16);
        sendto(fd_, ack, sizeof ack, 0, reinterpret_cast<sockaddr*>(&from), from_len);
        off += (len + 3) & ~3u;
      }
      return connect(fd_, reinterpret_cast<sockaddr*>(&from), from_len) == 0;
    }
    return false;
  }

  void Run() {
    if (!AnswerRegistration()) return;
    const size_t dgram_len = size_t{kMsgLen} * per_dgram_;
    std::vector<uint8_t> dgram(dgram_len);
    for (unsigned m = 0; m < per_dgram_; ++m) {
      uint8_t* p = dgram.data() + size_t{m} * kMsgLen;
      PutHeader(p, kMsgLen, 18, 0);
      const uint32_t type = 1 + m % 15;
      std::memcpy(p + 16, &type, 4);
      std::memcpy(p + 20, &kDataLen, 4);
      std::memset(p + 24, 0x5A, kDataLen);
    }
    iovec iov{dgram.data(), dgram.size()};
    mmsghdr msgs[kSendBatch] = {};
    for (mmsghdr& m : msgs) {
      m.msg_hdr.msg_iov = &iov;
      m.msg_hdr.msg_iovlen = 1;
    }
    pollfd p{fd_, POLLOUT, 0};
    while (!stop_) {
      if (sendmmsg(fd_, msgs, kSendBatch, MSG_DONTWAIT) < 0 && errno == EAGAIN) {
        poll(&p, 1, 10);  // the worker's queue is full: wait for room
      }
    }
  }

  unsigned per_dgram_;
  std::string dir_;
  int fd_ = -1;
  std::atomic<bool> stop_{false};
  std::thread thread_;
};

void Count(void* arg, const vane_packet* pkt) {
  auto* sum = static_cast<uint64_t*>(arg);
  *sum += pkt->data[pkt->len - 1];  // touch the data, as a worker would
}

void BM_WorkerReceive(benchmark::State& state) {
  FakeDaemon daemon(static_cast<unsigned>(state.range(0)));
  const uint8_t vcpu = 1;
  vane_worker_opts o{};
  o.ep.transport = VANE_TRANSPORT_UNIX;
  o.ep.run_dir = daemon.dir().c_str();
  o.open_normal = 1;
  o.vcpus = &vcpu;
  o.n_vcpus = 1;
  o.batch = static_cast<unsigned>(state.range(1));
  o.reregister_ms = 3600 * 1000;
  vane_worker* w = nullptr;
  if (vane_worker_open(&o, &w) != 0) {
    state.SkipWithError("worker open failed");
    return;
  }
  uint64_t sum = 0;
  int64_t packets = 0;
  for (auto _ : state) {  // NOLINT(clang-analyzer-deadcode.DeadStores)
    const int n = vane_worker_poll(w, 1000, Count, &sum);
    if (n < 0) {
      state.SkipWithError("poll failed");
      break;
    }
    packets += n;
  }
  benchmark::DoNotOptimize(sum);
  vane_worker_stats st{};
  vane_worker_stats_get(w, &st);
  state.counters["lost"] = static_cast<double>(st.lost);
  state.SetItemsProcessed(packets);
  state.SetBytesProcessed(packets * int64_t{kDataLen});
  vane_worker_close(w);
}

BENCHMARK(BM_WorkerReceive)
    ->ArgNames({"per_dgram", "batch"})
    ->Args({1, 64})
    ->Args({1, 16})
    ->Args({8, 64})
    ->UseRealTime();

}  // namespace
