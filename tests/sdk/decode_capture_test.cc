// The capture store decoded as the module fills it on the driver's calls,
// armed with the library's own block. (Files that control messages fill are
// decoded in files_test.cc, read through vaned.)
#include <gtest/gtest.h>

#include <vector>

#include "support/capture_env.h"
#include "support/module_env.h"
#include "vane/decode.h"

namespace vane::test {
namespace {

using DecodeCaptureTest = ModuleTest;

TEST_F(DecodeCaptureTest, CaptureArmedByTheLibrarysBlockIsDecodedWithItsEvents) {
  vane_capture_arm arm{};
  arm.slot = 2;
  arm.slot_mask = 1u << 2;
  arm.total = 2;
  arm.filters = VANE_CAPTURE_F_UDF1;
  arm.udf1_offset = 12;
  arm.udf1_value = 0x0800;
  uint8_t block[100];
  ASSERT_EQ(vane_build_capture_arm(&arm, block), 100);
  ASSERT_EQ(env().Write("/proc/bypassDebug/catchPkt", Bytes(block, block + sizeof block)), 100);

  const Bytes big = CaptureFrame(0xAA, 100);
  const Bytes small = CaptureFrame(0xBB, 10);
  uint8_t mark1 = 0;
  uint8_t mark2 = 0;
  ASSERT_EQ(env().CatchPkt(big, 1, &mark1, 0), 1u);
  ASSERT_EQ(env().CatchPkt(small, 1, &mark2, 0), 1u);
  env().TsRecvEvent(5, big, 77, mark1, 2);

  // One read: the store empties itself on every read.
  const auto img = env().Read("/proc/bypassDebug/catchPkt", 2880).value_or(Bytes{});
  vane_capture_store s{};
  ASSERT_EQ(vane_decode_capture_store(img.data(), img.size(), &s), 0);
  ASSERT_EQ(s.count, 2u);
  const vane_capture_entry& a = s.entries[0];
  EXPECT_EQ(a.num, 0u);
  EXPECT_EQ(a.slot, 2u);
  EXPECT_EQ(a.len, big.size());
  EXPECT_EQ(Bytes(a.data, a.data + a.data_len), Bytes(big.begin(), big.begin() + 64));
  EXPECT_TRUE(a.times[0].used);
  EXPECT_EQ(a.times[0].event, 1u);
  EXPECT_TRUE(a.times[1].used);
  EXPECT_EQ(a.times[1].event, 77u);
  const vane_capture_entry& b = s.entries[1];
  EXPECT_EQ(b.num, 1u);
  EXPECT_EQ(Bytes(b.data, b.data + b.data_len), small);
  EXPECT_FALSE(b.times[1].used);
}

}  // namespace
}  // namespace vane::test
