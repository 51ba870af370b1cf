// Packet delivery as the switch driver and the workers see it: the message
// a worker receives, byte by byte; the choice of channel and receiver; and
// every way a delivery can fail.
#include <gtest/gtest.h>

#include <vector>

#include "support/env.h"
#include "support/frames.h"
#include "support/module_env.h"
#include "support/packet_builder.h"

namespace vane::test {
namespace {

class DeliveryTest : public ModuleTest {
 protected:
  static int Send(uint32_t type, const Bytes& buf) { return env().Deliver(type, buf); }
  static int Send(uint32_t type, size_t len) {
    Bytes buf(len);
    for (size_t i = 0; i < len; ++i) buf[i] = static_cast<uint8_t>(i * 7 + 1);
    return env().Deliver(type, buf);
  }
};

uint32_t Align4(uint32_t v) { return (v + 3) & ~3u; }

TEST_F(DeliveryTest, DefaultReceiversGetTheWholeBufferLaidOutByteByByte) {
  Worker w;
  ASSERT_EQ(w.Register(kNormal, 0), 0);
  ASSERT_EQ(w.Register(kFast, 0), 0);
  for (bool fast : {false, true}) {
    for (uint32_t len : {1u, 2u, 3u, 4u, 5u, 12u, 13u, 99u, 10000u}) {
      SCOPED_TRACE(testing::Message() << (fast ? "fast " : "normal ") << len);
      Bytes buf(len);
      for (uint32_t i = 0; i < len; ++i) buf[i] = static_cast<uint8_t>(0xA0 ^ i);
      buf[0] = 1;  // not eligible for the ICMP diversion
      const uint32_t expected_len = 16 + Align4(len + 8);
      EXPECT_EQ(env().Deliver(7, buf, fast), static_cast<int>(expected_len));
      EXPECT_EQ(w.Pending(fast ? kNormal : kFast), 0u);
      auto d = w.Next(fast ? kFast : kNormal);
      ASSERT_TRUE(d.has_value());
      EXPECT_EQ(d->nlmsg_len, expected_len);
      EXPECT_EQ(d->raw.size(), expected_len);
      EXPECT_EQ(d->nlmsg_type, 18);
      EXPECT_EQ(d->nlmsg_flags, 0);
      EXPECT_EQ(d->nlmsg_seq, 0u);
      EXPECT_EQ(d->nlmsg_pid, w.pid());
      EXPECT_EQ(d->type, 7u);
      EXPECT_EQ(d->len, len);
      EXPECT_EQ(d->data, buf);
      for (uint32_t i = 24 + len; i < expected_len; ++i) EXPECT_EQ(d->raw[i], 0) << "pad " << i;
    }
  }
}

TEST_F(DeliveryTest, ArgumentsOutsideTheirRangesAreRefused) {
  Worker w;
  ASSERT_EQ(w.Register(kNormal, 0), 0);
  EXPECT_EQ(Send(1, 0), -22);
  EXPECT_EQ(Send(1, 10001), -22);
  EXPECT_EQ(Send(0, 20), -22);
  EXPECT_EQ(Send(16, 20), -22);
  EXPECT_EQ(env().Deliver(1, Bytes(10001, 1), /*fast=*/true), -22);
  EXPECT_EQ(w.Pending(kNormal), 0u);
  // The limits themselves pass.
  EXPECT_GT(Send(15, 10000), 0);
  EXPECT_GT(Send(1, 1), 0);
}

TEST_F(DeliveryTest, AClosedOrFullReceiverFailsTheDelivery) {
  {
    Worker gone;
    ASSERT_EQ(gone.Register(kNormal, 0), 0);
  }
  EXPECT_EQ(Send(1, 30), -111);  // registered, but its socket is closed

  // A receiver that does not read: deliveries fail with -11 once its queue
  // is full, nothing waits, and what was queued arrives whole.
  Worker w;
  ASSERT_EQ(w.Register(kNormal, 0), 0);
  int queued = 0;
  int r = 0;
  while ((r = Send(1, 100)) > 0 && queued < 100000) ++queued;
  EXPECT_EQ(r, -11);
  EXPECT_GT(queued, 1);
  EXPECT_EQ(w.Pending(kNormal), static_cast<size_t>(queued));
  while (w.Next(kNormal)) {
  }
  EXPECT_GT(Send(1, 30), 0);
  EXPECT_EQ(w.Pending(kNormal), 1u);
}

TEST_F(DeliveryTest, AFailedAllocationFailsTheDeliveryAlone) {
  VANE_REQUIRE(Power::kFaultInjection);
  Worker w;
  ASSERT_EQ(w.Register(kNormal, 0), 0);
  env().FailNth(FaultSite::kAlloc, 1);
  EXPECT_EQ(Send(1, 30), -12);
  EXPECT_EQ(w.Pending(kNormal), 0u);
  EXPECT_GT(Send(1, 30), 0);
}

Bytes IcmpEcho(uint32_t word0, uint8_t icmp_type, std::vector<uint16_t> tags = {}) {
  PacketBuilder b;
  b.prefix(word0, 0, 0).ethernet(Mac("00:11:22:33:44:55"), Mac("00:11:22:33:44:66"));
  for (uint16_t tpid : tags) b.vlan(10, tpid);
  return b.ipv4({.src = Ipv4Addr("10.0.0.1"), .dst = Ipv4Addr("10.0.0.2")})
      .icmp(icmp_type, 0)
      .payload(8)
      .build();
}

TEST_F(DeliveryTest, IcmpEchoTakesTheFastChannel) {
  Worker w;
  ASSERT_EQ(w.Register(kNormal, 0), 0);
  // Without a fast default receiver the echo fails there and is not sent on
  // the normal channel instead.
  EXPECT_EQ(Send(1, IcmpEcho(0, 8)), -77);
  EXPECT_EQ(w.Pending(kNormal), 0u);

  ASSERT_EQ(w.Register(kFast, 0), 0);
  EXPECT_GT(Send(1, IcmpEcho(0, 8)), 0);
  EXPECT_GT(Send(1, IcmpEcho(0, 0, {0x9100, 0x8100})), 0);
  EXPECT_EQ(w.Pending(kFast), 2u);
  EXPECT_EQ(w.Pending(kNormal), 0u);

  // Other types, prefix words, ICMP types and tags stay on the normal one.
  EXPECT_GT(Send(2, IcmpEcho(0, 8)), 0);
  EXPECT_GT(Send(1, IcmpEcho(1, 8)), 0);
  EXPECT_GT(Send(1, IcmpEcho(0, 3)), 0);
  EXPECT_GT(Send(1, IcmpEcho(0, 8, {0x88A8})), 0);
  EXPECT_EQ(w.Pending(kNormal), 4u);
  EXPECT_EQ(w.Pending(kFast), 2u);

  // The fast entry point skips the ICMP test and goes to the fast receiver.
  EXPECT_GT(env().Deliver(3, Bytes(30, 1), /*fast=*/true), 0);
  EXPECT_EQ(w.Next(kFast)->type, 1u);
  EXPECT_EQ(w.Next(kFast)->type, 1u);
  EXPECT_EQ(w.Next(kFast)->type, 3u);
  while (w.Next(kNormal)) {
  }

  // Every prefix of a double-tagged echo, each in a buffer of exactly that
  // size: only one that reaches the ICMP type byte is diverted, and the
  // test never reads past the buffer.
  const Bytes full = IcmpEcho(0, 8, {0x8100, 0x8100});
  const size_t type_byte = 12 + 12 + 8 + 2 + 20;
  for (size_t len = 1; len <= full.size(); ++len) {
    EXPECT_GT(Send(1, Bytes(full.begin(), full.begin() + static_cast<long>(len))), 0);
    EXPECT_EQ(w.Pending(kFast), len > type_byte ? 1u : 0u) << "length " << len;
    EXPECT_EQ(w.Pending(kNormal), len > type_byte ? 0u : 1u) << "length " << len;
    while (w.Next(kFast) || w.Next(kNormal)) {
    }
  }
}

TEST_F(DeliveryTest, DispatchSwitchSelectsBetweenVcpuAndDefaultReceiver) {
  Worker def;
  Worker vcpu5;
  ASSERT_EQ(def.Register(kNormal, 0), 0);
  ASSERT_EQ(vcpu5.Register(kNormal, 5), 0);
  BYPASS_PKT_OFFSET_S cfg = TestRanges();
  const Bytes ecm = EcmFrame(3, 5, {.word0 = 1});

  // Dispatch off (load-time state): the default receiver gets it.
  EXPECT_GT(Send(1, ecm), 0);
  EXPECT_EQ(def.Pending(), 1u);
  ASSERT_EQ(def.Configure(cfg), 0);
  EXPECT_GT(Send(1, ecm), 0);
  auto d = vcpu5.Next();
  ASSERT_TRUE(d.has_value());
  EXPECT_EQ(d->nlmsg_pid, vcpu5.pid());
  EXPECT_EQ(d->data, ecm);
  EXPECT_EQ(def.Pending(), 1u);

  // A vCPU without a receiver: -77, and no fallback.
  Bytes to6 = ecm;
  to6[12 + 21] = 6;
  EXPECT_EQ(Send(1, to6), -77);

  cfg.ulIsSupportMulticore = 0;
  ASSERT_EQ(def.Configure(cfg), 0);
  EXPECT_GT(Send(1, ecm), 0);
  EXPECT_EQ(def.Pending(), 2u);
  EXPECT_EQ(vcpu5.Pending(), 0u);
}

}  // namespace
}  // namespace vane::test
