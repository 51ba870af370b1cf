// Field access to the chip's 16-byte HiGig2 header by numeric field id.
//
// Only a handful of fields are known to this module; other kernel code reads
// and writes them by id, so the id-to-byte mapping is the whole contract. No
// header validation is done: callers hand us a header they already located.
#include "drv_vane/higig2.h"

#include "drv_vane/status.h"

namespace vane {
namespace {

// Where a field lives: one header byte and the bits of it that belong to the
// field. A zero mask marks an unknown id, which reads 0 and writes nothing.
struct HgField {
  u8 byte;
  u8 mask;
};

constexpr HgField hg_field(s32 id) {
  switch (id) {
    case BYPASS_HG_FIELD_BYTE4:
      return {4, 0xFF};
    case BYPASS_HG_FIELD_BYTE14_LOW3:
      return {14, 0x07};
    case BYPASS_HG_FIELD_BYTE5:
      return {5, 0xFF};
    case BYPASS_HG_FIELD_BYTE3:
      return {3, 0xFF};
    case BYPASS_HG_FIELD_PKT_TYPE:
      return {2, 0xFF};
    default:
      return {0, 0};
  }
}

static_assert(hg_field(BYPASS_HG_FIELD_PKT_TYPE).byte == 2, "packet type is stamped in byte 2");
static_assert(hg_field(8).mask == 0 && hg_field(-1).mask == 0 && hg_field(15).mask == 0,
              "ids without a field must stay inert");

}  // namespace
}  // namespace vane

extern "C" {

u64 bypass_higig2_field_get(u8* pucHdr, s32 iField) {
  if (pucHdr == nullptr) return BYPASS_ERR_PARA;
  const vane::HgField f = vane::hg_field(iField);
  if (f.mask == 0) return 0;
  return pucHdr[f.byte] & f.mask;
}

void bypass_higig2_field_set(u8* pucHdr, s32 iField, u8 ucValue) {
  if (pucHdr == nullptr) return;
  const vane::HgField f = vane::hg_field(iField);
  if (f.mask == 0) return;
  // Bits outside the field's mask belong to neighbouring fields of the same
  // byte and must survive the write.
  pucHdr[f.byte] = static_cast<u8>((pucHdr[f.byte] & ~f.mask) | (ucValue & f.mask));
}

u64 bypass_swapHgHdrOrder(u8* pucBuf, u64 ulLen) {
  if (pucBuf == nullptr || ulLen == 0) return BYPASS_ERR_PARA;
  for (u64 i = 0, j = ulLen - 1; i < j; ++i, --j) {
    const u8 tmp = pucBuf[i];
    pucBuf[i] = pucBuf[j];
    pucBuf[j] = tmp;
  }
  return BYPASS_OK;
}

u64 bypass_higDecode(u8* pucHdr, BYPASS_HG_DECODE_S* pstDecode) {
  if (pucHdr == nullptr || pstDecode == nullptr) return BYPASS_ERR_PARA;
  pstDecode->usHgByte2 = pucHdr[2];
  pstDecode->usHgByte3 = pucHdr[3];
  return BYPASS_OK;
}

}  // extern "C"
