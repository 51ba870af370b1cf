// The capture control values: the slot mask, this module's slot and the
// record-control block that a catchPkt write loads.
//
// The block is read on the packet path while a writer may replace it, and
// the packet path itself counts usCount down. It is therefore moved as 23
// aligned 32-bit words with atomic accesses, never with a plain copy, and the
// word that holds usTotalCnt and usCount together is the one a capture claims
// its number on: one compare-and-swap gives each of two simultaneous captures
// its own number and never lets the run go past usTotalCnt. The writer stores
// the block before the mask (release), so a packet that sees the new mask
// sees the block that came with it.
//
// Context: load in the writing process's context; snapshot and claim on the
// packet path, any context; reset before start-up.
#include "base/atomic.h"
#include "debug/debug_internal.h"
#include "drv_vane/capture.h"

u32 g_ulPktAllSlotIsOn;
u32 g_ulCurrSlotId;
BYPASS_PKT_RECORD_CTRL_S g_stPktRecordCtrlInfo;

namespace vane {
namespace {

using AliasWord = u32 __attribute__((may_alias));

constexpr u32 kCtrlWords = sizeof(BYPASS_PKT_RECORD_CTRL_S) / sizeof(u32);
constexpr u32 kCountWord = KPORT_OFFSETOF(BYPASS_PKT_RECORD_CTRL_S, usTotalCnt) / sizeof(u32);
static_assert(sizeof(BYPASS_PKT_RECORD_CTRL_S) % sizeof(u32) == 0);
static_assert(KPORT_OFFSETOF(BYPASS_PKT_RECORD_CTRL_S, usCount) ==
              KPORT_OFFSETOF(BYPASS_PKT_RECORD_CTRL_S, usTotalCnt) + 2);
static_assert(alignof(BYPASS_PKT_RECORD_CTRL_S) >= alignof(u32));

AliasWord* ctrl_words() { return reinterpret_cast<AliasWord*>(&g_stPktRecordCtrlInfo); }

struct Counts {
  u16 total;
  u16 count;
};

Counts decode(u32 word) {
  u16 halves[2];
  __builtin_memcpy(halves, &word, sizeof(word));
  return {halves[0], halves[1]};
}

u32 encode(Counts c) {
  const u16 halves[2] = {c.total, c.count};
  u32 word = 0;
  __builtin_memcpy(&word, halves, sizeof(word));
  return word;
}

bool run_open(Counts c) {
  return c.count != 0 && c.total <= BYPASS_CATCH_PKT_NUM && c.count <= c.total;
}

}  // namespace

void capture_ctrl_reset() {
  store_relaxed(&g_ulPktAllSlotIsOn, 0);
  store_relaxed(&g_ulCurrSlotId, 0);
  for (u32 i = 0; i < kCtrlWords; ++i) store_relaxed(&ctrl_words()[i], 0);
}

void capture_ctrl_load(const u8* block) {
  AliasWord* words = ctrl_words();
  for (u32 i = 0; i < kCtrlWords; ++i) {
    u32 w = 0;
    __builtin_memcpy(&w, block + 8 + i * sizeof(u32), sizeof(w));
    store_relaxed(&words[i], w);
  }
  u32 mask = 0;
  u32 slot = 0;
  __builtin_memcpy(&mask, block, sizeof(mask));
  __builtin_memcpy(&slot, block + 4, sizeof(slot));
  store_relaxed(&g_ulCurrSlotId, slot);
  store_release(&g_ulPktAllSlotIsOn, mask);
}

void capture_ctrl_snapshot(BYPASS_PKT_RECORD_CTRL_S* out) {
  auto* dst = reinterpret_cast<AliasWord*>(out);
  const AliasWord* words = ctrl_words();
  for (u32 i = 0; i < kCtrlWords; ++i) dst[i] = load_relaxed(&words[i]);
}

bool capture_claim_number(u8* num) {
  AliasWord* word = &ctrl_words()[kCountWord];
  u32 cur = load_relaxed(word);
  while (true) {
    Counts c = decode(cur);
    if (!run_open(c)) return false;
    const u8 n = static_cast<u8>(c.total - c.count);
    if (cas_acq_rel(word, &cur, encode({c.total, static_cast<u16>(c.count - 1)}))) {
      *num = n;
      return true;
    }
  }
}

}  // namespace vane
