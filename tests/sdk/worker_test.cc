// Workers over the unix transport: registration and its acknowledgements,
// re-registration after the daemon comes back, batched receipt, malformed
// datagrams, and the overrun notice.
#include <gtest/gtest.h>

#include <cerrno>
#include <vector>

#include "fake_daemon.h"
#include "vane/vane.h"

namespace vane::test {
namespace {

struct Got {
  uint32_t type;
  Bytes data;
  int channel;
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

// Registrations seen by the daemon: (socket channel, selector, vCPU).
std::vector<std::tuple<int, uint32_t, uint32_t>> Registrations(const std::vector<Datagram>& ds) {
  std::vector<std::tuple<int, uint32_t, uint32_t>> out;
  for (const Datagram& d : ds) {
    for (size_t off = 0; off + 32 <= d.bytes.size(); off += (Le32(&d.bytes[off]) + 3) & ~3u) {
      if (Le32(&d.bytes[off]) < 16) break;
      if (Le32(&d.bytes[off + 16]) == 0) {
        out.emplace_back(d.channel, Le32(&d.bytes[off + 24]), Le32(&d.bytes[off + 28]));
      }
    }
  }
  return out;
}

class WorkerTest : public ::testing::Test {
 protected:
  void Open(int fast, unsigned batch = 0) {
    const uint8_t vcpus[2] = {3, 5};
    vane_worker_opts o{};
    o.ep.transport = VANE_TRANSPORT_UNIX;
    o.ep.run_dir = daemon_.dir().c_str();
    o.ep.timeout_ms = 5000;
    o.open_normal = 1;
    o.open_fast = fast;
    o.default_receiver = 1;
    o.vcpus = vcpus;
    o.n_vcpus = 2;
    o.batch = batch;
    o.reregister_ms = 600000;  // only what the test triggers
    o.on_loss = OnLoss;
    o.on_loss_arg = &sinks_;
    ASSERT_EQ(vane_worker_open(&o, &w_), 0);
    // The worker's address on a channel is the one that registered there.
    for (const Datagram& d : daemon_.Received()) {
      addr_[d.channel == 27] = {d.from, d.from_len};
    }
  }
  void TearDown() override { vane_worker_close(w_); }

  void Send(const Bytes& b, int channel = 26) {
    daemon_.SendTo(channel, addr_[channel == 27].first, addr_[channel == 27].second, b);
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

  FakeDaemon daemon_;
  vane_worker* w_ = nullptr;
  Sinks sinks_;
  std::pair<sockaddr_un, socklen_t> addr_[2] = {};
};

TEST_F(WorkerTest, RegistersEverySlotOnEachChannelItsOwnSocket) {
  Open(/*fast=*/1);
  using R = std::tuple<int, uint32_t, uint32_t>;
  EXPECT_EQ(Registrations(daemon_.Received()),
            (std::vector<R>{
                {26, 26, 0}, {26, 26, 3}, {26, 26, 5}, {27, 27, 0}, {27, 27, 3}, {27, 27, 5}}));
  EXPECT_EQ(Stats().registrations, 1u);
  EXPECT_EQ(Stats().registration_failures, 0u);
  EXPECT_GE(vane_worker_fd(w_, 27), 0);
  EXPECT_EQ(vane_worker_fd(w_, 28), -1);
}

TEST_F(WorkerTest, RefusedRegistrationFailsTheOpen) {
  daemon_.set_ack_error(-EPERM);
  const uint8_t vcpu = 1;
  vane_worker_opts o{};
  o.ep.transport = VANE_TRANSPORT_UNIX;
  o.ep.run_dir = daemon_.dir().c_str();
  o.open_normal = 1;
  o.vcpus = &vcpu;
  o.n_vcpus = 1;
  EXPECT_EQ(vane_worker_open(&o, &w_), -EPERM);
  EXPECT_EQ(w_, nullptr);
  const uint8_t bad = 64;
  o.vcpus = &bad;
  EXPECT_EQ(vane_worker_open(&o, &w_), -EINVAL);
  o.n_vcpus = 0;  // no slot at all
  EXPECT_EQ(vane_worker_open(&o, &w_), -EINVAL);
}

TEST_F(WorkerTest, RegistersAgainOnceTheDaemonIsBack) {
  Open(/*fast=*/0);
  daemon_.Stop();
  // The periodic round is far away; an explicit one finds nobody.
  EXPECT_EQ(vane_worker_register(w_), -ECONNREFUSED);
  EXPECT_EQ(Stats().registration_failures, 1u);
  daemon_.ClearReceived();
  daemon_.Start();
  for (int i = 0; i < 500 && Stats().registrations < 2; ++i) {
    ASSERT_GE(vane_worker_poll(w_, 20, OnPacket, &sinks_), 0);
  }
  EXPECT_EQ(Stats().registrations, 2u);
  using R = std::tuple<int, uint32_t, uint32_t>;
  EXPECT_EQ(Registrations(daemon_.Received()),
            (std::vector<R>{{26, 26, 0}, {26, 26, 3}, {26, 26, 5}}));
  EXPECT_TRUE(sinks_.packets.empty());  // acknowledgements are not packets
}

TEST_F(WorkerTest, ReceivesSeveralMessagesPerDatagramAndPerBatch) {
  Open(/*fast=*/1, /*batch=*/2);
  Bytes three;
  for (uint8_t i = 1; i <= 3; ++i) {
    const Bytes m = PacketMsg(i, Bytes(i * 3 + 1, i));  // lengths 4, 7, 10: padding varies
    three.insert(three.end(), m.begin(), m.end());
  }
  Send(three);
  for (uint8_t i = 4; i <= 8; ++i) Send(PacketMsg(i, Bytes(256, i)));
  Send(PacketMsg(1, Bytes(60, 0xEE)), 27);
  PollFor(9);
  size_t normal = 0;
  for (const Got& g : sinks_.packets) {
    if (g.channel == 27) {
      EXPECT_EQ(g.data, Bytes(60, 0xEE));
      continue;
    }
    ++normal;
    EXPECT_EQ(g.type, normal);
    EXPECT_EQ(g.data, Bytes(normal <= 3 ? normal * 3 + 1 : 256, static_cast<uint8_t>(normal)));
  }
  EXPECT_EQ(normal, 8u);
  EXPECT_EQ(Stats().packets, 9u);
  EXPECT_EQ(Stats().malformed, 0u);
  EXPECT_EQ(Stats().bytes, 4u + 7 + 10 + 5 * 256 + 60);
}

TEST_F(WorkerTest, MalformedDatagramsAreCountedAndSkipped) {
  Open(/*fast=*/0);
  Bytes bad_len = PacketMsg(1, Bytes(8, 1));
  bad_len[0] = 8;  // shorter than a header
  Bytes past_end = PacketMsg(1, Bytes(8, 1));
  past_end[0] = 200;  // longer than the datagram
  Bytes data_past_msg = PacketMsg(1, Bytes(8, 1));
  data_past_msg[20] = 9;  // data length beyond the message
  Bytes good_then_trailing = PacketMsg(2, Bytes(4, 2));
  good_then_trailing.insert(good_then_trailing.end(), {1, 2, 3, 4, 5});
  Send(Bytes(10, 0));
  Send(Bytes{});
  Send(bad_len);
  Send(past_end);
  Send(data_past_msg);
  Send(good_then_trailing);
  Send(NlMsg(0x7F03, 0, 0, Bytes(16, 0)));  // not something a worker is sent
  Send(PacketMsg(3, Bytes(4, 3)));
  PollFor(2);
  EXPECT_EQ(sinks_.packets[0].type, 2u);
  EXPECT_EQ(sinks_.packets[1].type, 3u);
  EXPECT_EQ(Stats().malformed, 7u);
}

TEST_F(WorkerTest, OverrunNoticeCountsTheLoss) {
  Open(/*fast=*/0);
  Send(NlMsg(4, 0, 0, ByteWriter().u32(7).u32(26).b));
  Send(PacketMsg(1, Bytes(4, 1)));
  PollFor(1);
  EXPECT_EQ(Stats().lost, 7u);
  EXPECT_EQ(Stats().loss_events, 1u);
  ASSERT_EQ(sinks_.losses.size(), 1u);
  EXPECT_EQ(sinks_.losses[0], (std::pair<int, uint64_t>{26, 7}));
}

}  // namespace
}  // namespace vane::test
