// Bucket and match callbacks of the fragment tables.
//
// Context: pure functions of the record and of their own table's seed and
// bucket count, which never change after creation; any context.
#include "drv_vane/frag.h"
#include "frag/frag_internal.h"

namespace vane {
namespace {

constexpr u32 rol32(u32 v, unsigned shift) { return (v << shift) | (v >> (32 - shift)); }

// The final mix of the three-word jhash; c is the result.
u32 final_mix(u32 a, u32 b, u32 c) {
  c ^= b;
  c -= rol32(b, 14);
  a ^= c;
  a -= rol32(c, 11);
  b ^= a;
  b -= rol32(a, 25);
  c ^= b;
  c -= rol32(b, 16);
  a ^= c;
  a -= rol32(c, 4);
  b ^= a;
  b -= rol32(a, 14);
  c ^= b;
  c -= rol32(b, 24);
  return c;
}

u32 byte_sum(const u8* bytes) {
  u32 sum = 0;
  for (u32 i = 0; i < 16; ++i) sum += bytes[i];
  return sum;
}

bool bytes_equal(const u8* a, const u8* b) {
  for (u32 i = 0; i < 16; ++i) {
    if (a[i] != b[i]) return false;
  }
  return true;
}

}  // namespace

u32 frag_mix(u32 seed, u32 a, u32 b, u32 c) {
  // The jhash initial value for three words: 0xdeadbeef plus 12.
  const u32 init = seed + 0xDEADBEFBu;
  return final_mix(a + init, b + init, c + init);
}

}  // namespace vane

extern "C" u64 bypass_ipv4frag_hashkey(const void* pKey) {
  // Always the IPv4 table's seed and size, whichever table asks.
  const HASH_TABLE_S* table = g_bypass_ipV4FragHash;
  if (pKey == nullptr || table == nullptr || table->ulBucketNum == 0) return ~0ull;
  const auto* rec = static_cast<const BYPASS_IPV4_FRAG_INFO_S*>(pKey);
  u32 c = vane::frag_mix(static_cast<u32>(table->ulSeed), static_cast<u32>(rec->usId) << 16,
                         rec->ulSrcIp, rec->ulDstIp);
  return c % table->ulBucketNum;
}

extern "C" u64 bypass_ipv6frag_hashkey(const void* pKey) {
  const HASH_TABLE_S* table = g_bypass_ipV6FragHash;
  if (pKey == nullptr || table == nullptr || table->ulBucketNum == 0) return ~0ull;
  const auto* rec = static_cast<const BYPASS_IPV6_FRAG_INFO_S*>(pKey);
  u32 c = vane::frag_mix(static_cast<u32>(table->ulSeed), rec->ulId, vane::byte_sum(rec->aucAddr1),
                         vane::byte_sum(rec->aucAddr2));
  return c % table->ulBucketNum;
}

extern "C" u32 bypass_ipv4frag_hashmatch(const void* pData, const void* pKey) {
  if (pData == nullptr || pKey == nullptr) return 0;
  const auto* a = static_cast<const BYPASS_IPV4_FRAG_INFO_S*>(pData);
  const auto* b = static_cast<const BYPASS_IPV4_FRAG_INFO_S*>(pKey);
  return a->ulDstIp == b->ulDstIp && a->usId == b->usId && a->ulSrcIp == b->ulSrcIp ? 1 : 0;
}

extern "C" u32 bypass_ipv6frag_hashmatch(const void* pData, const void* pKey) {
  if (pData == nullptr || pKey == nullptr) return 0;
  const auto* a = static_cast<const BYPASS_IPV6_FRAG_INFO_S*>(pData);
  const auto* b = static_cast<const BYPASS_IPV6_FRAG_INFO_S*>(pKey);
  return a->ulId == b->ulId && vane::bytes_equal(a->aucAddr2, b->aucAddr2) &&
                 vane::bytes_equal(a->aucAddr1, b->aucAddr1)
             ? 1
             : 0;
}
