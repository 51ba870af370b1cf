// Decoder of the packet counters image (/proc/bypassDebug/counts).
#include "drv_vane/dispatch.h"
#include "image.h"
#include "vane/decode.h"

using vane::decode_detail::CheckFixed;
using vane::decode_detail::Load;

static_assert(VANE_COUNTERS_SIZE == BYPASS_PKT_COUNT_NUM * sizeof(uint32_t));
static_assert(BYPASS_PKT_COUNT_VP_BASE == VANE_VCPUS &&
              BYPASS_PKT_COUNT_ECM_BASE == 2 * VANE_VCPUS &&
              BYPASS_PKT_COUNT_WLAN_BASE == 3 * VANE_VCPUS);
static_assert(BYPASS_PKT_COUNT_WLAN_TYPES == VANE_PKT_TYPES);
static_assert(BYPASS_PKT_COUNT_WLAN_BASE + VANE_VCPUS * VANE_PKT_TYPES == BYPASS_PKT_COUNT_NUM,
              "the WLAN block ends the table");

extern "C" int vane_decode_counters(const uint8_t* img, size_t len, vane_counters* out) {
  if (int rc = CheckFixed(img, len, out, VANE_COUNTERS_SIZE); rc != 0) {
    return rc;
  }
  auto at = [img](uint32_t index) { return Load<uint32_t>(img, index * sizeof(uint32_t)); };
  for (uint32_t v = 0; v < VANE_VCPUS; ++v) {
    out->dispatched[v] = at(v);
    out->vp[v] = at(BYPASS_PKT_COUNT_VP_BASE + v);
    out->ecm[v] = at(BYPASS_PKT_COUNT_ECM_BASE + v);
    for (uint32_t t = 0; t < VANE_PKT_TYPES; ++t) {
      out->wlan[v][t] = at(BYPASS_PKT_COUNT_WLAN_BASE + BYPASS_PKT_COUNT_WLAN_TYPES * v + t);
    }
  }
  return 0;
}
