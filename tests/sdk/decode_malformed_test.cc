// What the decoders answer for images their files never produce: a size
// off by one either way, a missing argument, and contents that are out of
// the file's range. Images are built in heap buffers of their exact length
// so that the sanitizers catch any read past the end.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "vane/decode.h"

namespace {

using Decoder = std::function<int(const uint8_t*, size_t)>;

struct Fixed {
  const char* name;
  size_t size;
  Decoder decode;
};

template <typename T>
Decoder Bind(int (*fn)(const uint8_t*, size_t, T*)) {
  return [fn](const uint8_t* img, size_t len) {
    auto out = std::make_unique<T>();
    return fn(img, len, out.get());
  };
}

std::vector<Fixed> FixedImages() {
  return {
      {"counters", 3840, Bind(vane_decode_counters)},     {"frag4", 16004, Bind(vane_decode_frag4)},
      {"frag6", 40004, Bind(vane_decode_frag6)},          {"ivo", 296, Bind(vane_decode_ivo)},
      {"capture", 2880, Bind(vane_decode_capture_store)}, {"capwap", 200, Bind(vane_decode_capwap)},
      {"capwap_ka", 20, Bind(vane_decode_capwap_ka)}};
}

TEST(DecodeMalformed, FixedImagesTakeOnlyTheirOwnSize) {
  for (const Fixed& f : FixedImages()) {
    for (size_t len : {size_t{0}, f.size - 1, f.size + 1}) {
      std::vector<uint8_t> img(len, 0);
      EXPECT_EQ(f.decode(len ? img.data() : nullptr, len), -EMSGSIZE) << f.name << " " << len;
    }
    std::vector<uint8_t> zeros(f.size, 0);
    EXPECT_EQ(f.decode(zeros.data(), zeros.size()), 0) << f.name;
    EXPECT_EQ(f.decode(nullptr, f.size), -EINVAL) << f.name;
  }
  uint8_t img[VANE_COUNTERS_SIZE] = {};
  EXPECT_EQ(vane_decode_counters(img, sizeof img, nullptr), -EINVAL);
}

TEST(DecodeMalformed, ContentsOutsideTheFilesRange) {
  // A fragment count above the table's limit.
  std::vector<uint8_t> frag(VANE_FRAG4_SIZE, 0);
  const uint16_t too_many = 1001;
  std::memcpy(frag.data(), &too_many, 2);
  auto d4 = std::make_unique<vane_frag4_dump>();
  EXPECT_EQ(vane_decode_frag4(frag.data(), frag.size(), d4.get()), -EBADMSG);

  // Capture flags other than 0/1, or a capture number above 63.
  for (size_t offset : {size_t{66}, size_t{83}, size_t{95}, size_t{67}}) {
    std::vector<uint8_t> store(VANE_CAPTURE_STORE_SIZE, 0);
    store[96 * 29 + offset] = offset == 67 ? 64 : 2;
    vane_capture_store s{};
    EXPECT_EQ(vane_decode_capture_store(store.data(), store.size(), &s), -EBADMSG) << offset;
  }

  // A CAPWAP record after a zero slot, or for another address.
  for (size_t second : {size_t{2}, size_t{1}}) {
    std::vector<uint8_t> view(VANE_CAPWAP_VIEW_SIZE, 0);
    const uint32_t sip = 0x0A000001;
    std::memcpy(view.data(), &sip, 4);
    const uint32_t other = second == 1 ? sip + 1 : sip;
    std::memcpy(view.data() + 20 * second, &other, 4);
    vane_capwap_view v{};
    EXPECT_EQ(vane_decode_capwap(view.data(), view.size(), &v), -EBADMSG) << second;
  }

  // The arming block: only its two sizes; the builder refuses what the
  // module would not run.
  vane_capture_arm a{};
  uint8_t block[VANE_CAPTURE_ARM_SIZE];
  EXPECT_EQ(vane_decode_capture_arm(block, 91, &a), -EMSGSIZE);
  a.total = 31;
  EXPECT_EQ(vane_build_capture_arm(&a, block), -EINVAL);
  a.total = 1;
  a.filters = 1u << 2;
  EXPECT_EQ(vane_build_capture_arm(&a, block), -EINVAL);
}

TEST(DecodeMalformed, ArmingBlockRoundTrips) {
  vane_capture_arm a{};
  a.slot_mask = 0x80000001;
  a.slot = 31;
  a.total = 30;
  a.filters = VANE_CAPTURE_F_ALL;
  a.udf2_offset = 20;
  a.udf2_value = 0xBEEF;
  a.sip = 0x0A000001;
  a.dip6[15] = 1;
  a.smac[5] = 0x55;
  a.ethertype = 0x86DD;
  uint8_t block[VANE_CAPTURE_ARM_SIZE];
  ASSERT_EQ(vane_build_capture_arm(&a, block), 100);
  vane_capture_arm b{};
  ASSERT_EQ(vane_decode_capture_arm(block, sizeof block, &b), 0);
  EXPECT_EQ(b.slot_mask, a.slot_mask);
  EXPECT_EQ(b.slot, a.slot);
  EXPECT_EQ(b.total, 30u);
  EXPECT_EQ(b.remaining, 30u);
  EXPECT_EQ(b.on, 1u);
  EXPECT_EQ(b.filters, a.filters);
  EXPECT_EQ(b.udf2_value, 0xBEEFu);
  EXPECT_EQ(b.sip, a.sip);
  EXPECT_EQ(b.dip6[15], 1u);
  EXPECT_EQ(b.smac[5], 0x55u);
  EXPECT_EQ(b.ethertype, 0x86DDu);
  // The 92-byte control block alone, as a printout would hold it.
  ASSERT_EQ(vane_decode_capture_arm(block + 8, VANE_CAPTURE_CTRL_SIZE, &b), 0);
  EXPECT_EQ(b.slot_mask, 0u);
  EXPECT_EQ(b.total, 30u);
}

int Stats(const std::string& t) {
  vane_wlan_stats s{};
  return vane_decode_wlan_stats(t.data(), t.size(), &s);
}

TEST(DecodeMalformed, TextViewsRefuseWhatTheViewNeverShows) {
  EXPECT_EQ(Stats(""), -EBADMSG);
  EXPECT_EQ(Stats("\r\nWLAN LB KERNEL LB SET CAPWAP      :x \r\n"), -EBADMSG);
  EXPECT_EQ(Stats(std::string(VANE_WLAN_VIEW_MAX + 1, ' ')), -EMSGSIZE);

  vane_wlan_nac n{};
  std::string nac = "\r\nNAC process list :";
  for (int i = 0; i < 17; ++i) nac += "1 ";
  EXPECT_EQ(vane_decode_wlan_nac(nac.data(), nac.size(), &n), -EBADMSG);
  EXPECT_EQ(vane_decode_wlan_nac("", 0, &n), 0);
  EXPECT_EQ(n.count, 0u);

  vane_wlan_causeids c{};
  const std::string half = "300  1    4   ;301  2";
  EXPECT_EQ(vane_decode_wlan_causeids(half.data(), half.size(), &c), -EBADMSG);
  // Cut by the page: the part before the cut is the table.
  std::string page;
  while (page.size() + 15 <= VANE_WLAN_VIEW_MAX) page += "300  1    4   ;";
  const size_t whole = page.size() / 15;
  page += std::string("301  2    5   ;").substr(0, VANE_WLAN_VIEW_MAX - page.size());
  ASSERT_EQ(page.size(), VANE_WLAN_VIEW_MAX);
  ASSERT_EQ(vane_decode_wlan_causeids(page.data(), page.size(), &c), 0);
  EXPECT_EQ(c.count, whole);
  EXPECT_EQ(c.entries[0].lb_type, 1u);
  EXPECT_EQ(c.entries[0].pkt_type, 4u);

  vane_wlan_ports p{};
  for (const std::string bad : {"\r\n  1812(X)    UDP    7", "\r\n 70000(D)    UDP    7",
                                "\r\n  1812(D)    SCTP   7", "\r\n  1812(D)    UDP    seven"}) {
    EXPECT_EQ(vane_decode_wlan_ports(bad.data(), bad.size(), &p), -EBADMSG) << bad;
  }

  EXPECT_EQ(vane_decode_debug(
                nullptr, 1, [](void*, const char*, size_t) {}, nullptr, nullptr),
            -EINVAL);
  std::vector<uint8_t> big(VANE_DEBUG_SIZE + 1, 'a');
  EXPECT_EQ(vane_decode_debug(
                big.data(), big.size(), [](void*, const char*, size_t) {}, nullptr, nullptr),
            -EMSGSIZE);
}

}  // namespace
