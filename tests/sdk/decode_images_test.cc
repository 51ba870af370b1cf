// The decoders against images the module made in-process: what was done to
// the module (packets decided, messages sent, captures made) must come back
// out of the decoded records, field for field.
#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "drv_vane/capture.h"
#include "drv_vane/debug.h"
#include "drv_vane/dispatch.h"
#include "drv_vane/frag.h"
#include "drv_vane/netlink.h"
#include "drv_vane/steering.h"
#include "drv_vane/wlan_lb.h"
#include "support/capture_env.h"
#include "support/frames.h"
#include "support/module_env.h"
#include "support/packet_builder.h"
#include "support/wlan_msgs.h"
#include "vane/decode.h"

namespace vane::test {
namespace {

using DecodeImagesTest = ModuleTest;

void Decide(Bytes frame) {
  uint32_t count = 0;
  uint8_t list[BYPASS_VCPU_LIST_MAX] = {};
  bypass_msg_getVCpuId(frame.data(), static_cast<uint32_t>(frame.size()), &count, list);
}

TEST_F(DecodeImagesTest, CountersLandInTheirKindVcpuAndType) {
  Worker ctl;
  ASSERT_EQ(ctl.Configure(CascadeConfig()), 0);
  constexpr uint16_t kCause = 300;
  constexpr uint32_t kType = 4;
  ASSERT_EQ(ctl.Control(NETLINK_MID_WLAN_LB, CauseIdMsg({{kCause, kType, LB_CAPWAP}})), 0);
  ASSERT_EQ(ctl.Control(NETLINK_MID_WLAN_LB, BoardTypeMsg(WLAN_LB_BOARD_TYPE_LB)), 0);
  ASSERT_EQ(ctl.Control(NETLINK_MID_WLAN_LB,
                        CapwapMsg({Ipv4Addr("10.1.1.1"), Ipv4Addr("10.1.1.2"), 5246, 5247, 0, 12})),
            0);
  Decide(EcmFrame(3, 3));
  Decide(EcmFrame(3, 3));
  Decide(EcmFrame(3, 63));
  Decide(PacketBuilder()
             .prefix(1, 0, 21)
             .bytes(CauseHead(kCause))
             .ethernet(Mac("00:11:22:33:44:55"), Mac("00:00:5e:00:01:02"))
             .ipv4({.src = Ipv4Addr("10.1.1.1"), .dst = Ipv4Addr("10.1.1.2")})
             .udp(5246, 5247)
             .payload(20)
             .build());

  const auto img = env().Read("/proc/bypassDebug/counts").value_or(Bytes{});
  vane_counters c{};
  ASSERT_EQ(vane_decode_counters(img.data(), img.size(), &c), 0);
  EXPECT_EQ(c.dispatched[3], 2u);
  EXPECT_EQ(c.ecm[3], 2u);
  EXPECT_EQ(c.dispatched[63], 1u);
  EXPECT_EQ(c.ecm[63], 1u);
  EXPECT_EQ(c.dispatched[12], 1u);
  EXPECT_EQ(c.wlan[12][kType], 1u);
  uint64_t sum = 0;
  for (uint32_t v = 0; v < VANE_VCPUS; ++v) {
    sum += uint64_t{c.dispatched[v]} + c.vp[v] + c.ecm[v];
    for (uint32_t t = 0; t < VANE_PKT_TYPES; ++t) sum += c.wlan[v][t];
  }
  EXPECT_EQ(sum, 8u) << "nothing else was counted";
}

TEST_F(DecodeImagesTest, DebugTextComesBackAsTheLinesWritten) {
  SetDebugLevel(1);
  bypass_debug_out(1, "\r\nfirst line %d", 1);
  bypass_debug_out(4, "\r\nnot at this level");
  bypass_debug_out(1, "\r\nsecond\r\nthird\n");
  const auto img = env().Read("/proc/bypassDebug/debug").value_or(Bytes{});
  ASSERT_EQ(img.size(), 32768u);
  decode::DebugText d;
  ASSERT_EQ(decode::Debug(img.data(), img.size(), &d), 0);
  EXPECT_EQ(d.lines, (std::vector<std::string>{"first line 1", "second", "third"}));
  EXPECT_FALSE(d.full);

  // Filled up, the module ends the text with its full line.
  SetDebugLevel(1);
  const std::string chunk(400, 'x');
  for (int i = 0; i < 100; ++i) bypass_debug_out(1, "\r\n%s", chunk.c_str());
  const auto full = env().Read("/proc/bypassDebug/debug").value_or(Bytes{});
  ASSERT_EQ(decode::Debug(full.data(), full.size(), &d), 0);
  EXPECT_TRUE(d.full);
  EXPECT_GT(d.lines.size(), 1u);
  EXPECT_EQ(d.lines.front(), chunk);
}

TEST_F(DecodeImagesTest, FragmentDumpHoldsTheFirstFragmentsKept) {
  const struct {
    uint32_t src, dst, id;
    uint8_t vcpu;
  } kFrags[] = {{0x0A000001, 0x0A000002, 0x1234, 7}, {0xC0A80101, 0xC0A80102, 0xFFFF, 63}};
  for (const auto& f : kFrags) {
    BYPASS_PKT_INFO_S p{};
    p.usProtocolType = 0x0800;
    p.ulSrcIp = f.src;
    p.ulDstIp = f.dst;
    p.ulId = f.id;
    p.ucVcpuId = f.vcpu;
    ASSERT_EQ(bypass_ipfrag_addInHash(&p), 0u);
  }
  const auto img = env().Read("/proc/bypassDebug/hashInfoIpv4").value_or(Bytes{});
  auto d = std::make_unique<vane_frag4_dump>();
  ASSERT_EQ(vane_decode_frag4(img.data(), img.size(), d.get()), 0);
  ASSERT_EQ(d->count, 2u);
  for (const auto& f : kFrags) {
    bool found = false;
    for (uint32_t i = 0; i < d->count; ++i) {
      const auto& r = d->records[i];
      if (r.sip == f.src) {
        found = true;
        EXPECT_EQ(r.dip, f.dst);
        EXPECT_EQ(r.id, f.id);
        EXPECT_EQ(r.vcpu, f.vcpu);
        EXPECT_EQ(r.age, 0u);
      }
    }
    EXPECT_TRUE(found) << f.src;
  }
  const auto img6 = env().Read("/proc/bypassDebug/hashInfoIpv6").value_or(Bytes{});
  auto d6 = std::make_unique<vane_frag6_dump>();
  ASSERT_EQ(vane_decode_frag6(img6.data(), img6.size(), d6.get()), 0);
  EXPECT_EQ(d6->count, 0u);
}

TEST_F(DecodeImagesTest, SteeringStatisticsCountListSlotsAndRange) {
  Worker w;
  BYPASS_LB_TABLE_S t{};
  t.ulEnable = 1;
  t.ulTableType = BYPASS_LB_TABLE_IVO;
  t.ulVcpuId = 5;
  t.ulCauseIdNum = 3;
  t.ausCauseId[0] = 10;
  t.ausCauseId[1] = 11;
  t.ausCauseId[2] = 12;
  t.usCauseIdMin = 100;
  t.usCauseIdMax = 200;
  ASSERT_EQ(w.Control(NETLINK_MID_IVO_LB, RecordBytes(t)), 0);
  t.ulTableType = BYPASS_LB_TABLE_DETEPTION;
  t.ulVcpuId = 9;
  t.ulCauseIdNum = 1;
  t.ausCauseId[0] = 50;
  t.usCauseIdMin = 0;
  ASSERT_EQ(w.Control(NETLINK_MID_IVO_LB, RecordBytes(t)), 0);
  for (uint16_t cause : {11, 11, 12, 150, 50, 999}) {
    uint32_t count = 0;
    uint8_t list[8] = {};
    bypass_msg_get_ivo_vcpuid(cause, &count, list);
  }
  const auto img = env().Read("/proc/bypassDebug/ivo").value_or(Bytes{});
  vane_ivo_stats s{};
  ASSERT_EQ(vane_decode_ivo(img.data(), img.size(), &s), 0);
  EXPECT_EQ(s.ivo.enable, 1u);
  EXPECT_EQ(s.ivo.vcpu, 5u);
  EXPECT_EQ(s.ivo.cause_id_count, 3u);
  EXPECT_EQ(s.ivo.cause_ids[2], 12u);
  EXPECT_EQ(s.ivo.cause_id_min, 100u);
  EXPECT_EQ(s.ivo.cause_id_max, 200u);
  EXPECT_EQ(s.deteption.vcpu, 9u);
  EXPECT_EQ(s.deteption.cause_ids[0], 50u);
  EXPECT_EQ(s.ivo_hits, 4u);
  EXPECT_EQ(s.ivo_slot_hits[0], 0u);
  EXPECT_EQ(s.ivo_slot_hits[1], 2u);
  EXPECT_EQ(s.ivo_slot_hits[2], 1u);
  EXPECT_EQ(s.ivo_range_hits, 1u);
  EXPECT_EQ(s.deteption_hits, 1u);
  EXPECT_EQ(s.deteption_slot_hits[0], 1u);
  EXPECT_EQ(s.deteption_range_hits, 0u);
}

TEST_F(DecodeImagesTest, CaptureArmedByTheBuilderIsDecodedWithItsEvents) {
  vane_capture_arm arm{};
  arm.slot = 2;
  arm.slot_mask = 1u << 2;
  arm.total = 2;
  arm.filters = VANE_CAPTURE_F_UDF1;
  arm.udf1_offset = 12;
  arm.udf1_value = 0x0800;
  uint8_t block[VANE_CAPTURE_ARM_SIZE];
  ASSERT_EQ(vane_build_capture_arm(&arm, block), static_cast<int>(VANE_CAPTURE_ARM_SIZE));
  ASSERT_EQ(env().Write("/proc/bypassDebug/catchPkt", Bytes(block, block + sizeof block)), 100);

  Bytes big = CaptureFrame(0xAA, 100);
  Bytes small = CaptureFrame(0xBB, 10);
  uint8_t mark1 = 0;
  uint8_t mark2 = 0;
  ASSERT_EQ(bypass_IsNeedCatchPkt(big.data(), static_cast<u32>(big.size()), 1, &mark1, 0), 1u);
  ASSERT_EQ(bypass_IsNeedCatchPkt(small.data(), static_cast<u32>(small.size()), 1, &mark2, 0), 1u);
  bypass_TS_RecvPktEvent(5, big.data(), static_cast<u32>(big.size()), 77, mark1, 2);

  // One read: the store empties itself on every read.
  const auto img = env().Read("/proc/bypassDebug/catchPkt", 2880).value_or(Bytes{});
  vane_capture_store s{};
  ASSERT_EQ(vane_decode_capture_store(img.data(), img.size(), &s), 0);
  ASSERT_EQ(s.count, 2u);
  const vane_capture_entry& a = s.entries[0];
  EXPECT_EQ(a.num, 0u);
  EXPECT_EQ(a.slot, 2u);
  EXPECT_EQ(a.len, big.size());
  EXPECT_EQ(a.data_len, 64u);
  EXPECT_EQ(Bytes(a.data, a.data + 64), Bytes(big.begin(), big.begin() + 64));
  EXPECT_TRUE(a.times[0].used);
  EXPECT_EQ(a.times[0].event, 1u);
  EXPECT_TRUE(a.times[1].used);
  EXPECT_EQ(a.times[1].event, 77u);
  const vane_capture_entry& b = s.entries[1];
  EXPECT_EQ(b.num, 1u);
  EXPECT_EQ(b.len, small.size());
  EXPECT_EQ(b.data_len, small.size());
  EXPECT_FALSE(b.times[1].used);
}

}  // namespace
}  // namespace vane::test
