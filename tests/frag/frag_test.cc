// The fragment tables' pure pieces and the entry points as other modules
// call them: the bucket functions' worked values, and arguments the packet
// path never passes (no record, IPv6, mismatched sizes).
#include <gtest/gtest.h>

#include <cstring>

#include "drv_vane/frag.h"
#include "frag/frag_internal.h"
#include "support/module_env.h"

namespace vane::test {
namespace {

TEST(FragHash, WorkedValuesWithSeedZero) {
  EXPECT_EQ(frag_mix(0, 0x1234u << 16, 0xC0A80001u, 0xC0A80002u), 0xACD8EA43u);
  EXPECT_EQ(frag_mix(0, 1, 231, 232), 0xBFA7095Au);
  ASSERT_EQ(bypass_ipfrag_initHash(), 0u);
  g_bypass_ipV4FragHash->ulSeed = 0;
  g_bypass_ipV6FragHash->ulSeed = 0;
  BYPASS_IPV4_FRAG_INFO_S v4{0xC0A80001u, 0xC0A80002u, 0x1234, 0, 9, 0, 0};
  EXPECT_EQ(bypass_ipv4frag_hashkey(&v4), 3u);
  BYPASS_IPV6_FRAG_INFO_S v6{};
  const u8 a1[16] = {0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1};
  const u8 a2[16] = {0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 2};
  std::memcpy(v6.aucAddr1, a1, 16);
  std::memcpy(v6.aucAddr2, a2, 16);
  v6.ulId = 1;
  EXPECT_EQ(bypass_ipv6frag_hashkey(&v6), 26u);
  EXPECT_EQ(bypass_ipv6frag_hashmatch(&v6, &v6), 1u);
  BYPASS_IPV6_FRAG_INFO_S other = v6;
  other.aucAddr1[15] = 3;  // same byte sums as a swap would give, different key
  EXPECT_EQ(bypass_ipv6frag_hashmatch(&v6, &other), 0u);
  EXPECT_EQ(bypass_ipv4frag_hashkey(nullptr), ~0ull);
  EXPECT_EQ(bypass_ipv4frag_hashmatch(&v4, nullptr), 0u);
  bypass_ipfrag_exitHash();
  EXPECT_EQ(bypass_ipv4frag_hashkey(&v4), ~0ull);  // no table, no bucket
}

using FragCallsTest = ModuleTest;

TEST_F(FragCallsTest, OnlyIpv4IsEnteredAndArgumentsAreChecked) {
  BYPASS_PKT_INFO_S v6{};
  v6.usProtocolType = 0x86DD;
  u8 vcpu = 0;
  EXPECT_EQ(bypass_ipfrag_addInHash(&v6), 100u);
  EXPECT_EQ(bypass_ipfrag_findVcpuInHash(&v6, &vcpu), 100u);
  EXPECT_EQ(bypass_ipfrag_delInHash(&v6, 0x86DD, &vcpu), 1u);
  EXPECT_EQ(bypass_ipfrag_addInHash(nullptr), 100u);
  EXPECT_EQ(bypass_ipfrag_findVcpuInHash(&v6, nullptr), 100u);
  EXPECT_EQ(bypass_ipfrag_delInHash(nullptr, 0x0800, &vcpu), 100u);
  EXPECT_EQ(g_bypass_ipV4FragHash->ulElemCnt + g_bypass_ipV6FragHash->ulElemCnt, 0u);
  EXPECT_EQ(g_bypassTimeInitedV4, 0u);  // a refused record arms nothing

  BYPASS_IPV4_FRAG_INFO_S rec{};
  EXPECT_EQ(bypass_ipfrag_addInHashPub(nullptr, g_bypass_ipV4FragHash, &rec, 40), 100u);
  EXPECT_EQ(bypass_ipfrag_addInHashPub(nullptr, nullptr, &rec, 16), 100u);
  EXPECT_EQ(bypass_ipfrag_addInHashPub(&rec, nullptr, nullptr, 0), 0u);  // already present
}

}  // namespace
}  // namespace vane::test
