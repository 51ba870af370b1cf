// vaned's delivery rate to workers against a plain loop that sends the same
// messages to the same worker sockets with no dispatch at all, in the same
// run; and the control path's apply rate for 10,000 CAPWAP tunnels.
//
// Delivery: four worker sockets hold vCPUs 1..4 (registered through the
// channel as four processes would), CAPWAP packets of four tunnels spread
// over them by the CAPWAP table, and a thread drains the workers. The
// workers connect to the channel's socket, as a worker that wants more than
// the system's default datagram backlog does. "dropped" counts sends that
// found a worker's queue full; items/s counts every packet handed in. The
// target: vaned >= 0.9 x the plain loop, unbatched (BM_VanedDeliver against
// BM_PlainSendLoop) and batched (BM_VanedDeliverBatched against
// BM_PlainSendBatched).
//
// Control: a client sends CAPWAP add messages over the channel's socket file
// one at a time, each acknowledged, to a channel served on its own thread.
#include <benchmark/benchmark.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <optional>
#include <thread>
#include <vector>

#include "channel.h"
#include "drv_vane/config.h"
#include "drv_vane/entry.h"
#include "drv_vane/netlink.h"
#include "drv_vane/wlan_lb.h"
#include "kport/user/external.h"
#include "packet_out.h"
#include "support/frames.h"
#include "support/module_env.h"
#include "support/packet_builder.h"
#include "support/wlan_msgs.h"

namespace vane::test {
namespace {

constexpr int kWorkers = 4;
constexpr uint16_t kCapwapCause = 400;
constexpr uint32_t kDip = 0xC0A80001;
constexpr uint16_t kCapwapPort = 5246;
constexpr uid_t kOwner = 0;

uint32_t Sip(uint32_t t) { return 0x0A000001 + t; }

socklen_t Abstract(const char* what, int i, sockaddr_un* addr) {
  std::memset(addr, 0, sizeof(*addr));
  addr->sun_family = AF_UNIX;
  const int n = std::snprintf(addr->sun_path + 1, sizeof(addr->sun_path) - 1,
                              "vaned-bench-%d-%s-%d", static_cast<int>(getpid()), what, i);
  return static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + n);
}

// A whole CAPWAP datagram of tunnel `t`, as the chip hands it in.
Bytes CapwapPacket(uint32_t t, size_t payload) {
  PacketBuilder b;
  b.prefix(1, 0, 21)
      .bytes(CauseHead(kCapwapCause))
      .ethernet(Mac("00:11:22:33:44:55"), Mac("00:00:5e:00:01:02"));
  b.ipv4({.src = Sip(t), .dst = kDip, .id = 0x4242});
  b.udp(12345, kCapwapPort);
  return b.payload(payload).build();
}

// The message the module sends a worker for `data`.
Bytes PacketMessage(uint32_t portid, uint32_t type, const Bytes& data) {
  const auto padded = static_cast<uint32_t>((data.size() + 8 + 3) & ~size_t{3});
  NETLINK_PKT_MSG_S head{};
  head.stHdr = {16 + padded, NETLINK_VANE_MSG_TYPE, 0, 0, portid};
  head.ulType = type;
  head.ulDataLen = static_cast<uint32_t>(data.size());
  Bytes msg(16 + padded, 0);
  std::memcpy(msg.data(), &head, sizeof(head));
  std::memcpy(msg.data() + sizeof(head), data.data(), data.size());
  return msg;
}

class DeliveryRig {
 public:
  DeliveryRig() {
    if (vane_entry_init() != 0) std::abort();
    const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    sockaddr_un addr{};
    const socklen_t len = Abstract("channel", 0, &addr);
    if (bind(fd, reinterpret_cast<sockaddr*>(&addr), len) != 0) std::abort();
    const int bytes = host::Channel::kBufferBytes;
    setsockopt(fd, SOL_SOCKET, SO_SNDBUFFORCE, &bytes, sizeof(bytes));
    channel_ = std::make_unique<host::Channel>(fd, NETLINK_VANE_PROTO, kOwner);
    for (int i = 0; i < kWorkers; ++i) {
      workers_[i] = socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
      worker_len_[i] = Abstract("worker", i, &worker_addr_[i]);
      setsockopt(workers_[i], SOL_SOCKET, SO_RCVBUFFORCE, &bytes, sizeof(bytes));
      if (bind(workers_[i], reinterpret_cast<sockaddr*>(&worker_addr_[i]), worker_len_[i]) != 0 ||
          connect(workers_[i], reinterpret_cast<sockaddr*>(&addr), len) != 0) {
        std::abort();
      }
      // vCPU i+1 by a worker process of pid 6001+i.
      Serve(worker_addr_[i], worker_len_[i], 6001 + i,
            ControlMessage(NETLINK_MID_PID, PidPayload(NETLINK_VANE_PROTO, i + 1)));
    }
    sockaddr_un ctl{};
    const socklen_t ctl_len = Abstract("ctl", 0, &ctl);
    BYPASS_PKT_OFFSET_S cfg = CascadeConfig();
    cfg.ulMultiCoreEthNumMin = 20;
    // The channel is ready only with a default receiver; none of the
    // packets below goes to it.
    Serve(ctl, ctl_len, 6000, ControlMessage(NETLINK_MID_PID, PidPayload(NETLINK_VANE_PROTO, 0)));
    Serve(ctl, ctl_len, 6000, ControlMessage(NETLINK_MID_OFFSET, ConfigPayload(cfg)));
    Serve(ctl, ctl_len, 6000,
          ControlMessage(NETLINK_MID_WLAN_LB, BoardTypeMsg(WLAN_LB_BOARD_TYPE_LB)));
    Serve(ctl, ctl_len, 6000,
          ControlMessage(NETLINK_MID_WLAN_LB, CauseIdMsg({{kCapwapCause, 3, LB_CAPWAP}})));
    for (uint32_t t = 0; t < kWorkers; ++t) {
      Serve(ctl, ctl_len, 6000,
            ControlMessage(NETLINK_MID_WLAN_LB,
                           CapwapMsg({Sip(t), kDip, 12345, kCapwapPort, 0, t + 1})));
      packets_.push_back(CapwapPacket(t, 200));
      messages_.push_back(PacketMessage(6001 + t, 1, packets_.back()));
    }
    drainer_ = std::thread([this] { Drain(); });
  }

  ~DeliveryRig() {
    stop_ = true;
    drainer_.join();
    channel_.reset();
    for (int fd : workers_) close(fd);
    vane_entry_exit();
  }

  // Runs the module's delivery for packet i % 4; true when it got through.
  bool Deliver(uint32_t i, Bytes& scratch) {
    const Bytes& pkt = packets_[i % kWorkers];
    std::memcpy(scratch.data(), pkt.data(), pkt.size());
    return out_.Deliver(1, scratch.data(), static_cast<uint32_t>(pkt.size())) > 0;
  }

  // Sends the same message vaned would have sent, straight to the worker.
  bool PlainSend(uint32_t i, Bytes& scratch) {
    const Bytes& msg = messages_[i % kWorkers];
    std::memcpy(scratch.data(), msg.data(), msg.size());
    return host::SendTo(channel_->fd(), worker_addr_[i % kWorkers], worker_len_[i % kWorkers],
                        scratch.data(), msg.size()) > 0;
  }

  // The plain loop with the same batching as vaned's: each message copied
  // into a burst, the burst sent with one sendmmsg (one call for all four
  // workers, which is cheaper still than vaned's one call per worker).
  void PlainQueue(uint32_t i) {
    const Bytes& msg = messages_[i % kWorkers];
    const size_t k = burst_len_++;
    std::memcpy(burst_buf_[k], msg.data(), msg.size());
    burst_iov_[k] = {burst_buf_[k], msg.size()};
    burst_[k] = {};
    burst_[k].msg_hdr.msg_name = &worker_addr_[i % kWorkers];
    burst_[k].msg_hdr.msg_namelen = worker_len_[i % kWorkers];
    burst_[k].msg_hdr.msg_iov = &burst_iov_[k];
    burst_[k].msg_hdr.msg_iovlen = 1;
  }
  // Sends the burst; the number of messages that did not go out.
  uint64_t PlainFlush() {
    size_t done = 0;
    while (done < burst_len_) {
      const int n = sendmmsg(channel_->fd(), burst_ + done,
                             static_cast<unsigned>(burst_len_ - done), MSG_DONTWAIT);
      if (n <= 0) break;
      done += static_cast<size_t>(n);
    }
    const uint64_t lost = burst_len_ - done;
    burst_len_ = 0;
    return lost;
  }

  uint64_t received() const { return received_.load(); }
  uint64_t BatchDrops() const {
    uint64_t n = 0;
    for (const host::ClientInfo& c : channel_->Clients()) n += c.dropped;
    return n;
  }
  // Whether every worker has received at least one packet.
  bool Spread() const {
    for (const auto& r : per_worker_) {
      if (r.load() == 0) return false;
    }
    return true;
  }

 private:
  void Serve(const sockaddr_un& from, socklen_t len, uint32_t pid, const Bytes& msg) {
    const ucred cred{static_cast<pid_t>(pid), kOwner, 0};
    channel_->HandleDatagram(from, len, cred, msg.data(), msg.size());
  }

  void Drain() {
    constexpr int kBatch = 64;
    static thread_local uint8_t bufs[kBatch][2048];
    mmsghdr msgs[kBatch];
    iovec iov[kBatch];
    pollfd fds[kWorkers];
    for (int i = 0; i < kWorkers; ++i) fds[i] = {workers_[i], POLLIN, 0};
    while (!stop_) {
      if (poll(fds, kWorkers, 20) <= 0) continue;
      for (int w = 0; w < kWorkers; ++w) {
        if ((fds[w].revents & POLLIN) == 0) continue;
        for (int k = 0; k < kBatch; ++k) {
          iov[k] = {bufs[k], sizeof(bufs[k])};
          msgs[k] = {};
          msgs[k].msg_hdr.msg_iov = &iov[k];
          msgs[k].msg_hdr.msg_iovlen = 1;
        }
        const int n = recvmmsg(workers_[w], msgs, kBatch, MSG_DONTWAIT, nullptr);
        if (n > 0) {
          received_ += static_cast<uint64_t>(n);
          per_worker_[w] += static_cast<uint64_t>(n);
        }
      }
    }
  }

  host::ModulePacketOut out_;
  std::unique_ptr<host::Channel> channel_;
  int workers_[kWorkers] = {};
  sockaddr_un worker_addr_[kWorkers] = {};
  socklen_t worker_len_[kWorkers] = {};
  std::vector<Bytes> packets_;
  std::vector<Bytes> messages_;
  static constexpr size_t kBurstMax = 64;
  uint8_t burst_buf_[kBurstMax][2048] = {};
  iovec burst_iov_[kBurstMax] = {};
  mmsghdr burst_[kBurstMax] = {};
  size_t burst_len_ = 0;
  std::atomic<bool> stop_{false};
  std::atomic<uint64_t> received_{0};
  std::atomic<uint64_t> per_worker_[kWorkers] = {};
  std::thread drainer_;
};

enum Mode { kPlain, kPlainBatched, kVaned, kVanedBatched };

template <Mode kMode>
void RunDelivery(benchmark::State& state) {
  DeliveryRig rig;
  Bytes scratch(4096);
  uint64_t sent = 0;
  uint64_t dropped = 0;
  uint32_t i = 0;
  const auto burst = static_cast<uint32_t>(state.range(0));
  std::optional<host::SendBatch> batch;
  for (auto _ : state) {
    if (kMode == kPlainBatched) {
      rig.PlainQueue(i++);
      ++sent;
      if (i % burst == 0) dropped += rig.PlainFlush();
      continue;
    }
    if (kMode == kVanedBatched && i % burst == 0) batch.emplace();
    const bool ok = kMode == kPlain ? rig.PlainSend(i, scratch) : rig.Deliver(i, scratch);
    ++i;
    if (kMode == kVanedBatched && i % burst == 0) batch.reset();
    ok ? ++sent : ++dropped;
  }
  batch.reset();
  if (kMode == kPlainBatched) dropped += rig.PlainFlush();
  // Batched drops are known only at the flush.
  if (kMode == kVanedBatched) dropped = rig.BatchDrops();
  state.SetItemsProcessed(state.iterations());
  state.counters["dropped"] = static_cast<double>(dropped);
  state.counters["dropped_pct"] =
      100.0 * static_cast<double>(dropped) / static_cast<double>(state.iterations());
  // Let the drainer catch up before judging the spread (bounded: a worker
  // that got nothing must not hang the run).
  for (int wait = 0; wait < 1000 && rig.received() < sent; ++wait) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  state.counters["received"] = static_cast<double>(rig.received());
  if (state.iterations() >= 1000 && !rig.Spread())
    state.SkipWithError("packets did not reach all four workers");
}

// Interleaved, twice, so that a change of load on the machine shows as a
// disagreement between the two rounds rather than as a false ratio.
void BM_PlainSendLoop(benchmark::State& state) { RunDelivery<kPlain>(state); }
void BM_VanedDeliver(benchmark::State& state) { RunDelivery<kVaned>(state); }
// Deliveries in bursts of Arg packets, one SendBatch around each.
void BM_VanedDeliverBatched(benchmark::State& state) { RunDelivery<kVanedBatched>(state); }
// The plain loop in bursts of Arg messages, one sendmmsg each: the fair
// yardstick for the batched delivery.
void BM_PlainSendBatched(benchmark::State& state) { RunDelivery<kPlainBatched>(state); }
BENCHMARK(BM_PlainSendLoop)->Arg(1)->UseRealTime();
BENCHMARK(BM_VanedDeliver)->Arg(1)->UseRealTime();
BENCHMARK(BM_PlainSendBatched)->Arg(32)->UseRealTime();
BENCHMARK(BM_VanedDeliverBatched)->Arg(32)->UseRealTime();
BENCHMARK(BM_PlainSendLoop)->Arg(1)->UseRealTime();
BENCHMARK(BM_VanedDeliver)->Arg(1)->UseRealTime();
BENCHMARK(BM_PlainSendBatched)->Arg(32)->UseRealTime();
BENCHMARK(BM_VanedDeliverBatched)->Arg(32)->UseRealTime();

// The module's delivery into external sockets whose sink only counts, on
// 1 and 2 threads: what the endpoint lookup costs when senders share it.
std::unique_ptr<kport::user::ExternalSocket> g_sinks[kWorkers];
std::atomic<uint64_t> g_sunk{0};

void LoadSinks(const benchmark::State&) {
  vane_entry_init();
  for (uint32_t i = 0; i < kWorkers; ++i) {
    g_sinks[i] = kport::user::ExternalSocket::Open(NETLINK_VANE_PROTO, 7001 + i, 7001 + i,
                                                   [](const uint8_t*, size_t n, bool) {
                                                     g_sunk.fetch_add(1, std::memory_order_relaxed);
                                                     return static_cast<int>(n);
                                                   });
    const Bytes reg = ControlMessage(NETLINK_MID_PID, PidPayload(NETLINK_VANE_PROTO, i + 1));
    g_sinks[i]->Send(reg.data(), reg.size());
  }
}
void UnloadSinks(const benchmark::State&) {
  for (auto& s : g_sinks) s.reset();
  vane_entry_exit();
}

void BM_ExternalSocketDeliver(benchmark::State& state) {
  std::vector<uint8_t> pkt(200, 0x11);
  const auto vcpu = static_cast<uint8_t>(1 + state.thread_index() % kWorkers);
  for (auto _ : state) {
    benchmark::DoNotOptimize(
        netlink_send_msg_vcpuid(1, pkt.data(), 200, vcpu, &g_supp_netlink_kernel));
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_ExternalSocketDeliver)
    ->ThreadRange(1, 2)
    ->UseRealTime()
    ->Setup(LoadSinks)
    ->Teardown(UnloadSinks);

// The control path: 10,000 CAPWAP add messages, each acknowledged, then the
// deletes (untimed) so that every iteration adds to an empty table.
void BM_ControlApplyCapwap(benchmark::State& state) {
  constexpr uint32_t kTunnels = 10000;
  if (vane_entry_init() != 0) std::abort();
  char tmpl[] = "/tmp/vaned-bench-XXXXXX";
  const std::string dir = mkdtemp(tmpl);
  std::string err;
  auto channel = host::Channel::Open(dir + "/nl26.sock", NETLINK_VANE_PROTO, geteuid(), &err);
  if (channel == nullptr) std::abort();
  std::atomic<bool> stop{false};
  std::thread server([&] {
    pollfd p{channel->fd(), POLLIN, 0};
    while (!stop) {
      if (poll(&p, 1, 20) > 0) channel->Drain();
    }
  });
  const int client = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  sockaddr_un self{};
  self.sun_family = AF_UNIX;
  if (bind(client, reinterpret_cast<sockaddr*>(&self), sizeof(sa_family_t)) != 0) std::abort();
  sockaddr_un to{};
  to.sun_family = AF_UNIX;
  std::strncpy(to.sun_path, (dir + "/nl26.sock").c_str(), sizeof(to.sun_path) - 1);
  std::vector<Bytes> adds;
  std::vector<Bytes> dels;
  for (uint32_t t = 0; t < kTunnels; ++t) {
    adds.push_back(ControlMessage(NETLINK_MID_WLAN_LB,
                                  CapwapMsg({Sip(t), kDip, 12345, kCapwapPort, 0, 1 + t % 60}, 1)));
    dels.push_back(ControlMessage(NETLINK_MID_WLAN_LB,
                                  CapwapMsg({Sip(t), kDip, 12345, kCapwapPort, 0, 1 + t % 60}, 2)));
  }
  uint8_t ack[256];
  uint64_t failed = 0;
  auto apply = [&](const std::vector<Bytes>& msgs) {
    for (const Bytes& m : msgs) {
      sendto(client, m.data(), m.size(), 0, reinterpret_cast<sockaddr*>(&to), sizeof(to));
      const ssize_t n = recv(client, ack, sizeof(ack), 0);
      int32_t error = 0;
      if (n >= 20) std::memcpy(&error, ack + 16, sizeof(error));
      if (n < 20 || error != 0) ++failed;
    }
  };
  while (state.KeepRunning()) {
    apply(adds);
    state.PauseTiming();
    apply(dels);
    state.ResumeTiming();
  }
  state.SetItemsProcessed(state.iterations() * kTunnels);
  state.counters["failed"] = static_cast<double>(failed);
  stop = true;
  server.join();
  close(client);
  channel.reset();
  std::filesystem::remove_all(dir);
  vane_entry_exit();
}
BENCHMARK(BM_ControlApplyCapwap)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace
}  // namespace vane::test
