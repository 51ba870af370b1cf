// Decoders of the fragment table dumps (/proc/bypassDebug/hashInfoIpv4 and
// hashInfoIpv6).
#include "drv_vane/frag.h"
#include "image.h"
#include "vane/decode.h"

using vane::decode_detail::CheckFixed;
using vane::decode_detail::Load;

static_assert(VANE_FRAG4_SIZE == BYPASS_FRAG_DUMP_V4_SIZE);
static_assert(VANE_FRAG6_SIZE == BYPASS_FRAG_DUMP_V6_SIZE);
static_assert(VANE_FRAG_MAX == BYPASS_FRAG_MAX_RECORDS);

namespace {

constexpr size_t kHeader = 4;

// The count is the table's element count, which the table keeps at or
// below its limit: a larger one means the image is not a dump.
int Count(const uint8_t* img, uint32_t* count) {
  *count = Load<uint16_t>(img, 0);
  return *count <= VANE_FRAG_MAX ? 0 : -EBADMSG;
}

}  // namespace

extern "C" int vane_decode_frag4(const uint8_t* img, size_t len, vane_frag4_dump* out) {
  if (int rc = CheckFixed(img, len, out, VANE_FRAG4_SIZE); rc != 0) {
    return rc;
  }
  if (int rc = Count(img, &out->count); rc != 0) {
    return rc;
  }
  for (uint32_t i = 0; i < out->count; ++i) {
    const auto r =
        Load<BYPASS_IPV4_FRAG_INFO_S>(img, kHeader + i * sizeof(BYPASS_IPV4_FRAG_INFO_S));
    out->records[i] = vane_frag4_record{r.ulSrcIp, r.ulDstIp, r.usId, r.ucVcpuId, r.ucAge};
  }
  return 0;
}

extern "C" int vane_decode_frag6(const uint8_t* img, size_t len, vane_frag6_dump* out) {
  if (int rc = CheckFixed(img, len, out, VANE_FRAG6_SIZE); rc != 0) {
    return rc;
  }
  if (int rc = Count(img, &out->count); rc != 0) {
    return rc;
  }
  for (uint32_t i = 0; i < out->count; ++i) {
    const auto r =
        Load<BYPASS_IPV6_FRAG_INFO_S>(img, kHeader + i * sizeof(BYPASS_IPV6_FRAG_INFO_S));
    vane_frag6_record& o = out->records[i];
    std::memcpy(o.addr1, r.aucAddr1, sizeof o.addr1);
    std::memcpy(o.addr2, r.aucAddr2, sizeof o.addr2);
    o.id = r.ulId;
    o.age = r.ucAge;
  }
  return 0;
}
