// Decoder of the capture store and builder/decoder of the arming block
// (/proc/bypassDebug/catchPkt).
#include <algorithm>

#include "drv_vane/capture.h"
#include "image.h"
#include "vane/decode.h"

using vane::decode_detail::CheckFixed;
using vane::decode_detail::Load;

static_assert(VANE_CAPTURE_STORE_SIZE == BYPASS_CATCH_STORE_LEN);
static_assert(VANE_CAPTURE_ENTRIES == BYPASS_CATCH_PKT_NUM);
static_assert(VANE_CAPTURE_DATA == BYPASS_CATCH_DATA_LEN);
static_assert(VANE_CAPTURE_CTRL_SIZE == sizeof(BYPASS_PKT_RECORD_CTRL_S));
static_assert(VANE_CAPTURE_ARM_SIZE == BYPASS_CATCH_CTRL_WRITE_LEN);
static_assert(VANE_CAPTURE_F_ALL ==
              (BYPASS_CATCH_FLT_SRCMOD | BYPASS_CATCH_FLT_SRCPORT | BYPASS_CATCH_FLT_LEN |
               BYPASS_CATCH_FLT_UDF1 | BYPASS_CATCH_FLT_UDF2 | BYPASS_CATCH_FLT_SMAC |
               BYPASS_CATCH_FLT_DMAC | BYPASS_CATCH_FLT_SIP | BYPASS_CATCH_FLT_DIP |
               BYPASS_CATCH_FLT_SIP6 | BYPASS_CATCH_FLT_DIP6 | BYPASS_CATCH_FLT_ETHTYPE));

namespace {

constexpr size_t kMaskAndSlot = 8;

bool IsFlag(uint8_t v) { return v <= 1; }

}  // namespace

// Free entries are skipped, not ended on: a read clears the store, but
// entries that a capture was still writing stay, so taken entries need not
// be at the front.
extern "C" int vane_decode_capture_store(const uint8_t* img, size_t len, vane_capture_store* out) {
  if (int rc = CheckFixed(img, len, out, VANE_CAPTURE_STORE_SIZE); rc != 0) {
    return rc;
  }
  out->count = 0;
  for (uint32_t i = 0; i < VANE_CAPTURE_ENTRIES; ++i) {
    const auto e = Load<BYPASS_CATCH_PKT_S>(img, i * sizeof(BYPASS_CATCH_PKT_S));
    if (!IsFlag(e.ucUsed) || !IsFlag(e.astTime[0].ucUsed) || !IsFlag(e.astTime[1].ucUsed) ||
        e.ucNum > BYPASS_CATCH_MARK_NUM) {
      return -EBADMSG;
    }
    if (e.ucUsed == 0) {
      continue;
    }
    vane_capture_entry& o = out->entries[out->count++];
    o = vane_capture_entry{};
    o.index = static_cast<uint8_t>(i);
    o.num = e.ucNum;
    o.slot = e.usSlot;
    o.len = e.usLen;
    o.data_len = std::min<uint16_t>(e.usLen, VANE_CAPTURE_DATA);
    std::memcpy(o.data, e.aucData, o.data_len);
    for (size_t t = 0; t < BYPASS_CATCH_TIME_NUM; ++t) {
      o.times[t] = vane_capture_time{e.astTime[t].ulSec, e.astTime[t].ulNsec, e.astTime[t].usEvent,
                                     e.astTime[t].ucUsed};
    }
  }
  return 0;
}

extern "C" int vane_build_capture_arm(const vane_capture_arm* a,
                                      uint8_t out[VANE_CAPTURE_ARM_SIZE]) {
  if (a == nullptr || out == nullptr || a->total > VANE_CAPTURE_MAX_TOTAL ||
      (a->filters & ~VANE_CAPTURE_F_ALL) != 0) {
    return -EINVAL;
  }
  BYPASS_PKT_RECORD_CTRL_S c{};
  c.usTotalCnt = a->total;
  c.usCount = a->total;
  c.usSrcMod = a->src_mod;
  c.usSrcPort = a->src_port;
  c.usUdfOffset1 = a->udf1_offset;
  c.usUdfVaule1 = a->udf1_value;
  c.usUdfOffset2 = a->udf2_offset;
  c.usUdfVaule2 = a->udf2_value;
  c.usDataLength = a->length;
  c.usEthType = a->ethertype;
  std::memcpy(c.ucSrcMac, a->smac, sizeof c.ucSrcMac);
  std::memcpy(c.ucDstMac, a->dmac, sizeof c.ucDstMac);
  c.ulSrcIp = a->sip;
  c.ulDstIp = a->dip;
  std::memcpy(c.ip6_stSrcAddr, a->sip6, sizeof c.ip6_stSrcAddr);
  std::memcpy(c.ip6_stDstAddr, a->dip6, sizeof c.ip6_stDstAddr);
  c.ulVauleBmp = a->filters;
  c.ucCatchIsOn = a->total > 0 ? 1 : 0;
  std::memcpy(out, &a->slot_mask, 4);
  std::memcpy(out + 4, &a->slot, 4);
  std::memcpy(out + kMaskAndSlot, &c, sizeof c);
  return VANE_CAPTURE_ARM_SIZE;
}

extern "C" int vane_decode_capture_arm(const uint8_t* img, size_t len, vane_capture_arm* out) {
  if (out == nullptr || (img == nullptr && len != 0)) {
    return -EINVAL;
  }
  if (len != VANE_CAPTURE_ARM_SIZE && len != VANE_CAPTURE_CTRL_SIZE) {
    return -EMSGSIZE;
  }
  *out = vane_capture_arm{};
  size_t at = 0;
  if (len == VANE_CAPTURE_ARM_SIZE) {
    out->slot_mask = Load<uint32_t>(img, 0);
    out->slot = Load<uint32_t>(img, 4);
    at = kMaskAndSlot;
  }
  const auto c = Load<BYPASS_PKT_RECORD_CTRL_S>(img, at);
  out->total = c.usTotalCnt;
  out->remaining = c.usCount;
  out->filters = c.ulVauleBmp;
  out->src_mod = c.usSrcMod;
  out->src_port = c.usSrcPort;
  out->udf1_offset = c.usUdfOffset1;
  out->udf1_value = c.usUdfVaule1;
  out->udf2_offset = c.usUdfOffset2;
  out->udf2_value = c.usUdfVaule2;
  out->length = c.usDataLength;
  out->ethertype = c.usEthType;
  std::memcpy(out->smac, c.ucSrcMac, sizeof out->smac);
  std::memcpy(out->dmac, c.ucDstMac, sizeof out->dmac);
  out->sip = c.ulSrcIp;
  out->dip = c.ulDstIp;
  std::memcpy(out->sip6, c.ip6_stSrcAddr, sizeof out->sip6);
  std::memcpy(out->dip6, c.ip6_stDstAddr, sizeof out->dip6);
  out->on = c.ucCatchIsOn;
  return 0;
}
