// Decoder of the steering statistics image (/proc/bypassDebug/ivo).
#include "drv_vane/steering.h"
#include "image.h"
#include "vane/decode.h"

using vane::decode_detail::CheckFixed;
using vane::decode_detail::Load;

static_assert(VANE_IVO_SIZE == sizeof(BYPASS_IVO_DEBUG_INFO_S));
static_assert(VANE_STEERING_CAUSEIDS == BYPASS_LB_CAUSEID_MAX);

namespace {

vane_steering_table Table(const BYPASS_LB_TABLE_S& t) {
  vane_steering_table o{};
  o.enable = t.ulEnable;
  o.table_type = t.ulTableType;
  o.vcpu = t.ulVcpuId;
  o.cause_id_count = t.ulCauseIdNum;
  std::memcpy(o.cause_ids, t.ausCauseId, sizeof o.cause_ids);
  o.cause_id_min = t.usCauseIdMin;
  o.cause_id_max = t.usCauseIdMax;
  return o;
}

}  // namespace

// A count above 20 is what a table holds after a message 11 with such a
// count (only enable and vCPU are taken over), so it is decoded as it is.
extern "C" int vane_decode_ivo(const uint8_t* img, size_t len, vane_ivo_stats* out) {
  if (int rc = CheckFixed(img, len, out, VANE_IVO_SIZE); rc != 0) {
    return rc;
  }
  const auto s = Load<BYPASS_IVO_DEBUG_INFO_S>(img, 0);
  out->ivo = Table(s.stIvoTable);
  out->deteption = Table(s.stDeteptionTable);
  out->ivo_hits = s.ulIvoHitCnt;
  out->deteption_hits = s.ulDeteptionHitCnt;
  std::memcpy(out->ivo_slot_hits, s.aulIvoCauseIdHitCnt, sizeof out->ivo_slot_hits);
  std::memcpy(out->deteption_slot_hits, s.aulDeteptionCauseIdHitCnt,
              sizeof out->deteption_slot_hits);
  out->ivo_range_hits = s.ulIvoRangeHitCnt;
  out->deteption_range_hits = s.ulDeteptionRangeHitCnt;
  return 0;
}
