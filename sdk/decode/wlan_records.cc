// Keys and records of /proc/wlan_lb/capwap and /proc/wlan_lb/capwap_ka.
#include "drv_vane/wlan_lb.h"
#include "image.h"
#include "vane/decode.h"

using vane::decode_detail::CheckFixed;
using vane::decode_detail::Load;

static_assert(VANE_CAPWAP_VIEW_SIZE == WLAN_LB_CAPWAP_VIEW_LEN);
static_assert(VANE_CAPWAP_VIEW_RECORDS == WLAN_LB_CAPWAP_VIEW_RECORDS);
static_assert(VANE_CAPWAP_KA_VIEW_SIZE == WLAN_LB_CAPWAP_KA_VIEW_LEN);
static_assert(VANE_CAPWAP_VIEW_SIZE == VANE_CAPWAP_VIEW_RECORDS * sizeof(WLAN_LB_CAPWAP_NODE_S));
static_assert(VANE_CAPWAP_KA_VIEW_SIZE == sizeof(WLAN_LB_CAPWAP_KA_NODE_S));

// The file compares the key with the records' source address widened to 64
// bits, so the key is the address in the low half and zero above.
extern "C" void vane_build_capwap_key(uint32_t sip, uint8_t out[VANE_CAPWAP_KEY_SIZE]) {
  const uint64_t key = sip;
  std::memcpy(out, &key, sizeof key);
}

extern "C" void vane_build_capwap_ka_key(const uint32_t session[4],
                                         uint8_t out[VANE_CAPWAP_KA_KEY_SIZE]) {
  std::memcpy(out, session, VANE_CAPWAP_KA_KEY_SIZE);
}

namespace {

bool AllZero(const uint8_t* p, size_t n) {
  for (size_t i = 0; i < n; ++i) {
    if (p[i] != 0) {
      return false;
    }
  }
  return true;
}

}  // namespace

// Matching records come first and the rest of the file is zero; a zero slot
// followed by a record cannot come from the file.
extern "C" int vane_decode_capwap(const uint8_t* img, size_t len, vane_capwap_view* out) {
  if (int rc = CheckFixed(img, len, out, VANE_CAPWAP_VIEW_SIZE); rc != 0) {
    return rc;
  }
  constexpr size_t kRec = sizeof(WLAN_LB_CAPWAP_NODE_S);
  out->count = 0;
  bool ended = false;
  for (uint32_t i = 0; i < VANE_CAPWAP_VIEW_RECORDS; ++i) {
    if (AllZero(img + i * kRec, kRec)) {
      ended = true;
      continue;
    }
    const auto r = Load<WLAN_LB_CAPWAP_NODE_S>(img, i * kRec);
    if (ended || r.sip != Load<WLAN_LB_CAPWAP_NODE_S>(img, 0).sip) {
      return -EBADMSG;
    }
    out->records[out->count++] =
        vane_capwap_entry{r.sip, r.dip, r.sport, r.dport, r.vpn, r.process};
  }
  return 0;
}

extern "C" int vane_decode_capwap_ka(const uint8_t* img, size_t len, vane_capwap_ka_view* out) {
  if (int rc = CheckFixed(img, len, out, VANE_CAPWAP_KA_VIEW_SIZE); rc != 0) {
    return rc;
  }
  const auto r = Load<WLAN_LB_CAPWAP_KA_NODE_S>(img, 0);
  out->found = AllZero(img, len) ? 0 : 1;
  std::memcpy(out->session, r.ulSessionID, sizeof out->session);
  out->process = r.process;
  return 0;
}
