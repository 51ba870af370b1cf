// Workers: what vaned delivers, on both channels and in batches, and the
// registration again once vaned is back; from bare sockets, the exact
// registrations, a refused one, datagrams of several messages, malformed
// ones, and the overrun notice.
#include <gtest/gtest.h>

#include <cerrno>
#include <future>
#include <memory>
#include <tuple>
#include <vector>

#include "host_support.h"
#include "support/packet_builder.h"
#include "vane/vane.h"

namespace vane::test {
namespace {

struct Got {
  uint32_t type;
  Bytes data;
  int channel;
  bool operator==(const Got&) const = default;
};

struct Sinks {
  std::vector<Got> packets;
  std::vector<std::pair<int, uint64_t>> losses;
};

void OnPacket(void* arg, const vane_packet* p) {
  static_cast<Sinks*>(arg)->packets.push_back(
      {p->type, Bytes(p->data, p->data + p->len), p->channel});
}

void OnLoss(void* arg, int channel, uint64_t lost) {
  static_cast<Sinks*>(arg)->losses.emplace_back(channel, lost);
}

const uint8_t kVcpus[2] = {3, 5};

class WorkerTest : public ::testing::Test {
 protected:
  void TearDown() override { vane_worker_close(w_); }

  vane_worker_opts Opts(const std::string& run_dir, int fast, size_t n_vcpus = 0) {
    vane_worker_opts o{};
    o.ep = UnixEndpoint(run_dir);
    o.open_normal = 1;
    o.open_fast = fast;
    o.default_receiver = 1;
    o.vcpus = kVcpus;
    o.n_vcpus = n_vcpus;
    o.batch = 2;
    o.reregister_ms = 600000;  // only the rounds the test asks for
    o.on_loss = OnLoss;
    o.on_loss_arg = &sinks_;
    return o;
  }
  // Polls until n packets have arrived (a hang guard bounds it).
  void PollFor(size_t n) {
    for (int i = 0; i < 500 && sinks_.packets.size() < n; ++i) {
      ASSERT_GE(vane_worker_poll(w_, 20, OnPacket, &sinks_), 0);
    }
    ASSERT_EQ(sinks_.packets.size(), n);
  }
  vane_worker_stats Stats() const {
    vane_worker_stats s;
    vane_worker_stats_get(w_, &s);
    return s;
  }

  vane_worker* w_ = nullptr;
  Sinks sinks_;
};

TEST_F(WorkerTest, ReceivesWhatVanedDeliversOnBothChannels) {
  InProcessDaemon d;
  const vane_worker_opts o = Opts(d.run_dir(), /*fast=*/1);
  ASSERT_EQ(vane_worker_open(&o, &w_), 0);
  // ICMP echo behind a zero prefix word takes the fast channel.
  const Bytes echo = PacketBuilder()
                         .prefix(0, 0, 21)
                         .ethernet(Mac("00:00:00:00:00:01"), Mac("00:00:00:00:00:02"))
                         .ipv4({.src = Ipv4Addr("10.0.0.1"), .dst = Ipv4Addr("10.0.0.2")})
                         .icmp(8, 0, 1)
                         .payload(8)
                         .build();
  ASSERT_GT(d.Deliver(1, echo), 0);
  PollFor(1);
  std::vector<Got> want = {{1, echo, 27}};
  // More datagrams than a batch, of sizes whose padding differs.
  for (uint32_t i = 1; i <= 5; ++i) {
    want.push_back({i, DefaultPacket(i, 60 + i * 97), 26});
    ASSERT_GT(d.Deliver(i, want.back().data), 0);
  }
  PollFor(6);
  EXPECT_EQ(sinks_.packets, want);
  EXPECT_EQ(Stats().packets, 6u);
  EXPECT_EQ(Stats().bytes, 5 * 60 + 15 * 97 + echo.size());
  EXPECT_EQ(Stats().malformed, 0u);
  EXPECT_EQ(Stats().registrations, 1u);
}

TEST_F(WorkerTest, RegistersAgainOnceVanedIsBack) {
  TempDir dir;
  const std::string run = dir / "run";
  auto d = std::make_unique<InProcessDaemon>(run);
  const vane_worker_opts o = Opts(run, /*fast=*/0);
  ASSERT_EQ(vane_worker_open(&o, &w_), 0);
  d.reset();
  // The periodic round is far away; an explicit one finds nobody.
  EXPECT_EQ(vane_worker_register(w_), -ECONNREFUSED);
  EXPECT_EQ(Stats().registration_failures, 1u);
  d = std::make_unique<InProcessDaemon>(run);
  for (int i = 0; i < 500 && Stats().registrations < 2; ++i) {
    ASSERT_GE(vane_worker_poll(w_, 20, OnPacket, &sinks_), 0);
  }
  EXPECT_EQ(Stats().registrations, 2u);
  EXPECT_TRUE(sinks_.packets.empty()) << "acknowledgements are not packets";
  ASSERT_GT(d->Deliver(4, DefaultPacket(4)), 0);
  PollFor(1);
  EXPECT_EQ(sinks_.packets[0].data, DefaultPacket(4));
}

// The daemon's two sockets with nothing behind them.
class BareWorkerTest : public WorkerTest {
 protected:
  // Opens the worker on a thread of its own and acknowledges each of its
  // registrations with `error`; what each channel's socket received.
  int Open(const vane_worker_opts& o, int error = 0) {
    auto rc = std::async(std::launch::async, [&] { return vane_worker_open(&o, &w_); });
    for (int ch = 0; ch < 1 + o.open_fast; ++ch) {
      for (const Bytes& m : Messages(socks_[ch].Receive(&addr_[ch]))) {
        regs_.emplace_back(26 + ch, Le32(&m[16]), Le32(&m[24]), Le32(&m[28]));
        socks_[ch].SendTo(addr_[ch], AckOf(m, error));
      }
    }
    return rc.get();
  }
  void Send(const Bytes& b, int channel = 26) {
    socks_[channel - 26].SendTo(addr_[channel - 26], b);
  }

  TempDir dir_;
  DgramSocket socks_[2] = {DgramSocket(dir_ / "nl26.sock"), DgramSocket(dir_ / "nl27.sock")};
  DgramSocket::Addr addr_[2];
  // (socket, message id, selector, vCPU) of each registration received.
  std::vector<std::tuple<int, uint32_t, uint32_t, uint32_t>> regs_;
};

TEST_F(BareWorkerTest, RegistersEverySlotOnEachChannelItsOwnSocket) {
  ASSERT_EQ(Open(Opts(dir_.path(), /*fast=*/1, 2)), 0);
  using R = std::tuple<int, uint32_t, uint32_t, uint32_t>;
  EXPECT_EQ(regs_, (std::vector<R>{{26, 0, 26, 0},
                                   {26, 0, 26, 3},
                                   {26, 0, 26, 5},
                                   {27, 0, 27, 0},
                                   {27, 0, 27, 3},
                                   {27, 0, 27, 5}}));
  EXPECT_EQ(Stats().registrations, 1u);
  EXPECT_EQ(Stats().registration_failures, 0u);
  EXPECT_GE(vane_worker_fd(w_, 27), 0);
  EXPECT_EQ(vane_worker_fd(w_, 28), -1);
}

TEST_F(BareWorkerTest, ARefusedRegistrationOrBadSlotsFailTheOpen) {
  vane_worker_opts o = Opts(dir_.path(), /*fast=*/0, 1);
  EXPECT_EQ(Open(o, -EPERM), -EPERM);
  EXPECT_EQ(w_, nullptr);
  const uint8_t bad = 64;
  o.vcpus = &bad;
  EXPECT_EQ(vane_worker_open(&o, &w_), -EINVAL);
  o.n_vcpus = 0;
  o.default_receiver = 0;  // no slot at all
  EXPECT_EQ(vane_worker_open(&o, &w_), -EINVAL);
  EXPECT_FALSE(socks_[0].Ready());
}

TEST_F(BareWorkerTest, DatagramsAreTakenApartAndWhatIsMalformedCounted) {
  ASSERT_EQ(Open(Opts(dir_.path(), /*fast=*/0)), 0);
  Bytes three;
  for (uint8_t i = 1; i <= 3; ++i) {
    const Bytes m = PacketMsg(i, Bytes(i * 3 + 1, i));  // lengths 4, 7, 10: padding varies
    three.insert(three.end(), m.begin(), m.end());
  }
  Send(three);
  Bytes bad_len = PacketMsg(9, Bytes(8, 9));
  bad_len[0] = 8;  // shorter than a header
  Bytes past_end = PacketMsg(9, Bytes(8, 9));
  past_end[0] = 200;  // longer than the datagram
  Bytes data_past_msg = PacketMsg(9, Bytes(8, 9));
  data_past_msg[20] = 9;  // data length beyond the message
  Bytes good_then_trailing = PacketMsg(4, Bytes(4, 4));
  good_then_trailing.insert(good_then_trailing.end(), {1, 2, 3, 4, 5});
  for (const Bytes& b : {Bytes(10, 0), Bytes{}, bad_len, past_end, data_past_msg,
                         good_then_trailing, NlMsg(0x7F03, 0, 0, Bytes(16, 0))}) {
    Send(b);
  }
  Send(NlMsg(4, 0, 0, ByteWriter().u32(7).u32(26).b));  // the overrun notice
  Send(PacketMsg(5, Bytes(4, 5)));
  PollFor(5);
  std::vector<uint32_t> types;
  for (const Got& g : sinks_.packets) types.push_back(g.type);
  EXPECT_EQ(types, (std::vector<uint32_t>{1, 2, 3, 4, 5}));
  EXPECT_EQ(sinks_.packets[2].data, Bytes(10, 3));
  EXPECT_EQ(Stats().malformed, 7u);
  EXPECT_EQ(Stats().lost, 7u);
  EXPECT_EQ(Stats().loss_events, 1u);
  EXPECT_EQ(sinks_.losses, (std::vector<std::pair<int, uint64_t>>{{26, 7}}));
}

}  // namespace
}  // namespace vane::test
