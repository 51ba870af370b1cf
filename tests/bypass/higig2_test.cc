#include "drv_vane/higig2.h"

#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <cstring>
#include <numeric>

namespace {

using Header = std::array<u8, BYPASS_HIGIG2_HDR_LEN>;

Header Ascending() {
  Header h;
  std::iota(h.begin(), h.end(), 0x10);  // every byte distinct and nonzero
  return h;
}

TEST(HiGig2FieldTest, KnownFieldsReadAndWriteTheirByteOnly) {
  struct Case {
    s32 field;
    size_t byte;
  };
  for (const Case c : {Case{6, 4}, Case{9, 5}, Case{10, 3}, Case{14, 2}}) {
    SCOPED_TRACE(c.field);
    Header h = Ascending();
    EXPECT_EQ(bypass_higig2_field_get(h.data(), c.field), h[c.byte]);
    bypass_higig2_field_set(h.data(), c.field, 0xC3);
    Header want = Ascending();
    want[c.byte] = 0xC3;
    EXPECT_EQ(h, want);
  }
}

TEST(HiGig2FieldTest, LowBitsOfByte14KeepTheRestOfTheByte) {
  Header h{};
  h[14] = 0xFD;
  EXPECT_EQ(bypass_higig2_field_get(h.data(), BYPASS_HG_FIELD_BYTE14_LOW3), 5u);
  bypass_higig2_field_set(h.data(), BYPASS_HG_FIELD_BYTE14_LOW3, 0x0A);
  EXPECT_EQ(h[14], 0xFA);
}

TEST(HiGig2FieldTest, UnknownIdsReadZeroAndWriteNothing) {
  for (s32 field : {-1, 0, 5, 8, 11, 12, 13, 15, 0x7FFFFFFF}) {
    SCOPED_TRACE(field);
    Header h = Ascending();
    EXPECT_EQ(bypass_higig2_field_get(h.data(), field), 0u);
    bypass_higig2_field_set(h.data(), field, 0xEE);
    EXPECT_EQ(h, Ascending());
  }
}

TEST(HiGig2FieldTest, MissingHeader) {
  for (s32 field : {0, 6, 7, 8, 14, 15}) EXPECT_EQ(bypass_higig2_field_get(nullptr, field), 100u);
  bypass_higig2_field_set(nullptr, BYPASS_HG_FIELD_PKT_TYPE, 1);  // must not crash
}

TEST(HiGig2SwapTest, ReversesInPlaceAndRejectsEmpty) {
  Header h;
  std::iota(h.begin(), h.end(), 0);
  EXPECT_EQ(bypass_swapHgHdrOrder(h.data(), h.size()), 0u);
  for (size_t i = 0; i < h.size(); ++i) EXPECT_EQ(h[i], 15 - i);

  std::array<u8, 3> odd{0x0A, 0x0B, 0x0C};
  EXPECT_EQ(bypass_swapHgHdrOrder(odd.data(), odd.size()), 0u);
  EXPECT_EQ(odd, (std::array<u8, 3>{0x0C, 0x0B, 0x0A}));

  u8 one = 0x42;
  EXPECT_EQ(bypass_swapHgHdrOrder(&one, 1), 0u);
  EXPECT_EQ(one, 0x42);
  EXPECT_EQ(bypass_swapHgHdrOrder(&one, 0), 100u);
  EXPECT_EQ(bypass_swapHgHdrOrder(nullptr, 16), 100u);
}

TEST(HiGig2DecodeTest, FillsOnlyTheTwoByteFields) {
  Header h{};
  h[2] = 0x81;
  h[3] = 0x07;
  BYPASS_HG_DECODE_S d;
  std::memset(&d, 0x5A, sizeof(d));
  EXPECT_EQ(bypass_higDecode(h.data(), &d), 0u);
  EXPECT_EQ(d.usHgByte2, 129);
  EXPECT_EQ(d.usHgByte3, 7);
  for (u8 b : d.aucCaller) EXPECT_EQ(b, 0x5A);

  EXPECT_EQ(bypass_higDecode(nullptr, &d), 100u);
  EXPECT_EQ(bypass_higDecode(h.data(), nullptr), 100u);
}

}  // namespace
