// TIMNG as messages 14 and 15 set it and multi-core packets meet it: the
// master board steers the named cause IDs to their node's vCPU, the limit of
// two messages, short messages, messages racing each other and the packets,
// and the fragment scan that walks UDP fragments of a scanned cause ID
// through the fragment table to the default receiver.
#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "support/env.h"
#include "support/frames.h"
#include "support/module_env.h"

namespace vane::test {
namespace {

Bytes Msg(uint32_t cause, uint32_t node, uint32_t master, uint32_t scan, size_t len = 16) {
  const uint32_t words[4] = {cause, node, master, scan};
  return RecordBytes(words, len);
}

struct Pkt {
  bool mf = false;
  uint16_t off = 0;
  bool tcp = false;
  bool v6 = false;
  size_t cut = 0;  // bytes left, when set
};
// A multi-core packet of `cause`: IPv4 UDP (or TCP, or an IPv6 fragment)
// from 10.0.0.1 to 10.0.0.2.
Bytes Mc(uint16_t cause, const Pkt& p = {}) {
  PacketBuilder b;
  b.prefix(1, 0, 21)
      .bytes(CauseHead(cause))
      .ethernet(Mac("00:00:00:00:00:02"), Mac("00:11:22:33:44:55"));
  if (p.v6) {
    b.ipv6({.src = Ipv6Addr("1501::1"), .dst = Ipv6Addr("1501::2")})
        .ipv6_fragment({.more = true, .id = 5});
  } else {
    b.ipv4({.src = Ipv4Addr("10.0.0.1"),
            .dst = Ipv4Addr("10.0.0.2"),
            .id = 77,
            .mf = p.mf,
            .frag_offset = p.off});
  }
  Bytes out = (p.tcp ? b.tcp(1000, 2000) : b.udp(1000, 2000)).payload(40).build();
  if (p.cut != 0) out.resize(p.cut);
  return out;
}

class TimngTest : public ModuleTest {
 protected:
  void SetUp() override {
    ModuleTest::SetUp();
    def_.emplace();
    ASSERT_EQ(def_->Register(kNormal, 0), 0);
    ASSERT_EQ(def_->Configure(CascadeConfig()), 0);
    SetDebugLevel(5);
  }
  void TearDown() override {
    def_.reset();
    ModuleTest::TearDown();
  }
  int Send(uint32_t id, const Bytes& payload) { return def_->Control(id, payload).value_or(1); }
  // Delivers the packet; true when the default receiver got it.
  bool ToDefault(const Bytes& pkt) {
    EXPECT_GT(env().Deliver(1, pkt), 0);
    return def_->Pending() == 1 && def_->Next().has_value();
  }
  std::optional<Worker> def_;
};

TEST_F(TimngTest, TheMasterSteersNamedCauseIdsAndAnEmptySlotNamesCauseIdZero) {
  Worker w7;
  ASSERT_EQ(w7.Register(kNormal, 7), 0);
  ASSERT_EQ(Send(14, Msg(100, 0x107, 1, 0)), 0);
  EXPECT_EQ(DebugText(),
            "\r\n NETLINK_MID_TIMNG.\r TIMNG Init: causeid=100, nodeId=263, isMaster=1");
  SetDebugLevel(4);
  EXPECT_GT(env().Deliver(1, Mc(100)), 0);
  EXPECT_TRUE(w7.Next().has_value());  // the node's low byte
  EXPECT_TRUE(ToDefault(Mc(0)));       // the empty second slot names 0
  EXPECT_TRUE(ToDefault(Mc(101)));
  EXPECT_EQ(Occurrences(DebugText(), "\r\nPass timng packet, vcpuId =7"), 1u);
  EXPECT_EQ(Occurrences(DebugText(), "\r\nPass timng packet, vcpuId =0"), 1u);
  // A later message of a board that is not the master: no opinion at all.
  ASSERT_EQ(Send(14, Msg(200, 7, 0, 0)), 0);
  SetDebugLevel(4);
  EXPECT_TRUE(ToDefault(Mc(100)));
  EXPECT_TRUE(ToDefault(Mc(0)));
  EXPECT_EQ(Occurrences(DebugText(), "Pass timng"), 0u);
  EXPECT_EQ(w7.Pending(), 0u);
}

// Short messages are refused without using a slot; message 15 uses one up
// with no entry; the third message taken is refused.
TEST_F(TimngTest, TwoMessagesAreTakenAndShortOnesAreNot) {
  Worker w9;
  ASSERT_EQ(w9.Register(kNormal, 9), 0);
  SetDebugLevel(1);
  EXPECT_EQ(Send(14, Msg(100, 7, 1, 0, 15)), -22);
  EXPECT_EQ(Send(15, Msg(0, 0, 1, 0, 8)), -22);
  EXPECT_EQ(DebugText(), "\r\n NETLINK_MID_TIMNG.\r\n NETLINK_MID_TIMNG.");
  SetDebugLevel(5);
  ASSERT_EQ(Send(15, Msg(55, 66, 1, 1, 40)), 0);  // longer is fine
  ASSERT_EQ(Send(14, Msg(300, 9, 1, 0)), 0);
  ASSERT_EQ(Send(14, Msg(400, 4, 0, 0)), 0);
  EXPECT_EQ(DebugText(),
            "\r\n NETLINK_MID_TIMNG.\r TIMNG Master: causeid=0, nodeId=0, isMaster=1"
            "\r\n NETLINK_MID_TIMNG.\r TIMNG Init: causeid=300, nodeId=9, isMaster=1"
            "\r\n NETLINK_MID_TIMNG.\rTIMNG Init fail: kernel info num exceeds limit.");
  // The refused message changed neither the entries nor the master flag.
  EXPECT_GT(env().Deliver(1, Mc(300)), 0);
  EXPECT_EQ(w9.Pending(), 1u);
  EXPECT_TRUE(ToDefault(Mc(400)));
  EXPECT_TRUE(ToDefault(Mc(55)));
}

// Eight workers send at once while packets of their cause IDs flow: exactly
// two messages are taken, and no packet ever reaches a worker that is not
// its cause ID's node (an entry is never seen half written).
TEST_F(TimngTest, ConcurrentMessagesTakeTwoSlotsAndEntriesAppearWhole) {
  std::vector<std::unique_ptr<Worker>> workers;
  for (uint32_t s = 1; s <= 8; ++s) {
    workers.push_back(std::make_unique<Worker>());
    ASSERT_EQ(workers.back()->Register(kNormal, s + 10), 0);
  }
  SetDebugLevel(1);  // the packets' trace would fill the text
  std::atomic<bool> done{false};
  std::thread packets([&done] {
    for (int round = 0; round < 100 && !done; ++round) {
      for (uint16_t cause = 1; cause <= 8; ++cause) env().Deliver(1, Mc(cause));
    }
  });
  std::vector<std::thread> senders;
  for (uint32_t s = 1; s <= 8; ++s) {
    senders.emplace_back(
        [&workers, s] { EXPECT_EQ(workers[s - 1]->Control(14, Msg(s, s + 10, 1, 0)), 0); });
  }
  for (auto& th : senders) th.join();
  done = true;
  packets.join();
  EXPECT_EQ(Occurrences(DebugText(), "exceeds limit"), 6u);
  while (def_->Next()) {
  }
  size_t steered = 0;
  for (uint32_t s = 1; s <= 8; ++s) {
    while (auto d = workers[s - 1]->Next()) {
      EXPECT_EQ(d->data, Mc(static_cast<uint16_t>(s))) << "worker of vCPU " << s + 10;
    }
    EXPECT_GT(env().Deliver(1, Mc(static_cast<uint16_t>(s))), 0);
    steered += workers[s - 1]->Pending();
  }
  EXPECT_EQ(steered, 2u);
}

TEST_F(TimngTest, UdpFragmentsOfAScannedCauseIdWalkThroughTheTable) {
  ASSERT_EQ(Send(14, Msg(100, 9, 0, 1)), 0);
  SetDebugLevel(5);
  EXPECT_TRUE(ToDefault(Mc(100, {.mf = true})));
  EXPECT_EQ(Ipv4FragmentRecords(), 1);
  EXPECT_TRUE(ToDefault(Mc(100, {.mf = true, .off = 10})));
  EXPECT_EQ(Ipv4FragmentRecords(), 1);
  EXPECT_TRUE(ToDefault(Mc(100, {.off = 20})));
  EXPECT_EQ(Ipv4FragmentRecords(), 0);
  EXPECT_EQ(Occurrences(DebugText(), "\r\nPass timng scan packet."), 3u);
  EXPECT_EQ(Occurrences(DebugText(), "handle pkt"), 0u);
  // A middle fragment without its first: the failed step is traced, and it
  // is still a scan packet.
  SetDebugLevel(5);
  EXPECT_TRUE(ToDefault(Mc(100, {.mf = true, .off = 10})));
  EXPECT_EQ(Occurrences(DebugText(), "\r\nhandle pkt(ret[100])."), 1u);
  EXPECT_EQ(Occurrences(DebugText(), "\r\nPass timng scan packet."), 1u);
}

TEST_F(TimngTest, OtherPacketsAreNotScanPackets) {
  ASSERT_EQ(Send(14, Msg(100, 9, 0, 1)), 0);
  SetDebugLevel(5);
  const Bytes others[] = {
      Mc(100),                                              // not fragmented
      Mc(100, {.mf = true, .tcp = true}),                   // TCP
      Mc(101, {.mf = true}),                                // not named
      Mc(100, {.v6 = true}),                                // IPv6
      Mc(100, {.mf = true, .cut = 12 + 24 + 14 + 20 + 2}),  // cut inside the UDP header
  };
  for (const Bytes& pkt : others) EXPECT_TRUE(ToDefault(pkt));
  EXPECT_EQ(Occurrences(DebugText(), "Pass timng scan packet"), 0u);
  EXPECT_EQ(Ipv4FragmentRecords(), 0);
}

}  // namespace
}  // namespace vane::test
