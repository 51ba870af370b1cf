// The packet capture store and the recording of capture events.
//
// The store is a raw 2880-byte image that user space reads, but it is
// written from the packet path on any processor while a reader may be
// emptying it, and the operators' tools take an entry with ucUsed 1 as a
// complete record. So each of the 30 entries has a state word beside the
// store, and only the holder of an entry touches its bytes:
//
//   free --(capture claims by CAS)--> held --(release store)--> published
//   published --(event or reader claims by CAS)--> held --> published / free
//
// The word also carries the entry's capture number and slot and which time
// stamps are filled, so finding the entry of a later event reads no store
// bytes. A capture publishes its entry only when frame, length and first
// time stamp are written; the read-and-clear takes only published entries,
// so an entry that a capture is still writing stays for the next read and
// nothing published after the copy is lost. Nothing here waits: an event
// that finds its entry held by someone else is dropped, since the holder may
// be a reader that this packet path interrupted on the same processor.
//
// Context: recording runs on the packet path; create/destroy at start-up and
// shut-down; take/peek in process context.
#include "drv_vane/capture.h"

#include "base/atomic.h"
#include "debug/debug_internal.h"
#include "kport/errno.h"
#include "kport/mem.h"
#include "kport/time.h"

u8* g_pstCatchPktData;

namespace vane {
namespace {

// State word: phase in bits 0-1, time stamps filled in bits 2-3, capture
// number in bits 8-13, slot in bits 16-31.
constexpr u32 kFree = 0;
constexpr u32 kHeld = 1;
constexpr u32 kPublished = 2;
constexpr u32 kPhaseMask = 3;
constexpr u32 kStampShift = 2;
constexpr u32 kKeyMask = 0xFFFF3F00u;

constinit u32 g_entry_state[BYPASS_CATCH_PKT_NUM] = {};

constexpr u32 phase(u32 s) { return s & kPhaseMask; }
constexpr u32 key(u8 num, u16 slot) {
  return (static_cast<u32>(num & BYPASS_CATCH_MARK_NUM) << 8) | (static_cast<u32>(slot) << 16);
}
constexpr u32 stamp_bit(u32 t) { return 1u << (kStampShift + t); }

BYPASS_CATCH_PKT_S* entry_at(u8* store, u32 i) {
  return reinterpret_cast<BYPASS_CATCH_PKT_S*>(store + i * BYPASS_CATCH_PKT_LEN);
}

void stamp(BYPASS_CATCH_PKT_S* e, u32 t, u16 event, u8 num, u16 slot) {
  kport_timespec64 now{};
  kport_ktime_get_real_ts64(&now);
  BYPASS_CATCH_TIME_S* ts = &e->astTime[t];
  ts->ulSec = static_cast<u32>(now.tv_sec);
  ts->ulNsec = static_cast<u32>(now.tv_nsec);
  ts->usEvent = event;
  ts->ucUsed = 1;
  e->ucUsed = 1;
  e->ucNum = num;
  e->usSlot = slot;
}

void record_capture(u8* store, const u8* frame, u32 len, u16 event, u8 num, u16 slot) {
  for (u32 i = 0; i < BYPASS_CATCH_PKT_NUM; ++i) {
    u32 expected = kFree;
    // A weak CAS may fail spuriously: try again while the entry is free.
    while (phase(expected) == kFree) {
      if (cas_acq_rel(&g_entry_state[i], &expected, kHeld | key(num, slot))) {
        BYPASS_CATCH_PKT_S* e = entry_at(store, i);
        stamp(e, 0, event, num, slot);
        e->usLen = static_cast<u16>(len);
        u32 n = len < BYPASS_CATCH_DATA_LEN ? len : BYPASS_CATCH_DATA_LEN;
        __builtin_memcpy(e->aucData, frame, n);
        store_release(&g_entry_state[i], kPublished | stamp_bit(0) | key(num, slot));
        return;
      }
    }
  }
}

// First entry that is taken (held or published) by capture num on slot.
int find_taken(u8 num, u16 slot, u32* state) {
  const u32 k = key(num, slot);
  for (u32 i = 0; i < BYPASS_CATCH_PKT_NUM; ++i) {
    u32 s = load_acquire(&g_entry_state[i]);
    if (phase(s) != kFree && (s & kKeyMask) == k) {
      *state = s;
      return static_cast<int>(i);
    }
  }
  return -1;
}

int free_stamp(u32 s) {
  for (u32 t = 0; t < BYPASS_CATCH_TIME_NUM; ++t) {
    if ((s & stamp_bit(t)) == 0) return static_cast<int>(t);
  }
  return -1;
}

void record_later_event(u8* store, u16 event, u8 num, u16 slot) {
  u32 s = 0;
  int i = find_taken(num, slot, &s);
  if (i < 0) return;
  while (phase(s) == kPublished && (s & kKeyMask) == key(num, slot)) {
    int t = free_stamp(s);
    if (t < 0) return;
    if (cas_acq_rel(&g_entry_state[i], &s, (s & ~kPhaseMask) | kHeld)) {
      stamp(entry_at(store, static_cast<u32>(i)), static_cast<u32>(t), event, num, slot);
      store_release(&g_entry_state[i], (s & ~kPhaseMask) | kPublished | stamp_bit(t));
      return;
    }
  }
}

// Claims a published entry for a reader; false when it is free or held.
bool hold_published(u32 i, u32* state) {
  u32 s = load_acquire(&g_entry_state[i]);
  while (phase(s) == kPublished) {
    if (cas_acq_rel(&g_entry_state[i], &s, (s & ~kPhaseMask) | kHeld)) {
      *state = s;
      return true;
    }
  }
  return false;
}

}  // namespace

int capture_store_create() {
  for (u32& s : g_entry_state) store_relaxed(&s, kFree);
  auto* store = static_cast<u8*>(kport_kzalloc_atomic(BYPASS_CATCH_STORE_LEN));
  if (store == nullptr) return -KPORT_ENOMEM;
  store_release(&g_pstCatchPktData, store);
  return 0;
}

void capture_store_destroy() { kport_kfree(exchange_acq_rel(&g_pstCatchPktData, nullptr)); }

bool capture_store_take(u8* out) {
  u8* store = load_acquire(&g_pstCatchPktData);
  if (store == nullptr) return false;
  __builtin_memset(out, 0, BYPASS_CATCH_STORE_LEN);
  for (u32 i = 0; i < BYPASS_CATCH_PKT_NUM; ++i) {
    u32 s = 0;
    if (!hold_published(i, &s)) continue;
    u8* e = store + i * BYPASS_CATCH_PKT_LEN;
    __builtin_memcpy(out + i * BYPASS_CATCH_PKT_LEN, e, BYPASS_CATCH_PKT_LEN);
    __builtin_memset(e, 0, BYPASS_CATCH_PKT_LEN);
    store_release(&g_entry_state[i], kFree);
  }
  return true;
}

bool capture_store_peek(u32 index, BYPASS_CATCH_PKT_S* out) {
  __builtin_memset(out, 0, sizeof(*out));
  u8* store = load_acquire(&g_pstCatchPktData);
  if (store == nullptr || index >= BYPASS_CATCH_PKT_NUM) return false;
  u32 s = 0;
  if (hold_published(index, &s)) {
    __builtin_memcpy(out, entry_at(store, index), sizeof(*out));
    store_release(&g_entry_state[index], s);
  }
  return true;
}

}  // namespace vane

extern "C" u32 bypass_TS_GetNum(u8 ucEvent, u8 ucNum, u16 usSlot, u32* pulIndex, u32* pulTime) {
  using namespace vane;
  if (pulIndex == nullptr || pulTime == nullptr) return BYPASS_CATCH_NO_PLACE;
  if (ucEvent == BYPASS_CATCH_EVENT_CAPTURE) {
    for (u32 i = 0; i < BYPASS_CATCH_PKT_NUM; ++i) {
      if (phase(load_acquire(&g_entry_state[i])) == kFree) {
        *pulIndex = i;
        *pulTime = 0;
        return 0;
      }
    }
    return BYPASS_CATCH_NO_PLACE;
  }
  u32 s = 0;
  int i = find_taken(ucNum, usSlot, &s);
  if (i < 0) return BYPASS_CATCH_NO_PLACE;
  int t = free_stamp(s);
  if (t < 0) return BYPASS_CATCH_NO_PLACE;
  *pulIndex = static_cast<u32>(i);
  *pulTime = static_cast<u32>(t);
  return 0;
}

extern "C" void bypass_TS_RecvPktEvent(u8 ucEvent, u8* pucData, u32 ulLen, u16 usEvent, u8 ucMark,
                                       u16 usSlot) {
  using namespace vane;
  u8* store = load_acquire(&g_pstCatchPktData);
  if (store == nullptr) return;
  if ((ucMark & BYPASS_CATCH_MARK_ON) == 0 || (ucMark & BYPASS_CATCH_MARK_NOT) != 0) return;
  if ((load_acquire(&g_ulPktAllSlotIsOn) & (1u << (usSlot % 32))) == 0) return;
  const u8 num = ucMark & BYPASS_CATCH_MARK_NUM;
  if (ucEvent == BYPASS_CATCH_EVENT_CAPTURE) {
    // The Ethernet addresses at least, or the entry would say nothing.
    if (pucData == nullptr || ulLen < 12) return;
    record_capture(store, pucData, ulLen, usEvent, num, usSlot);
  } else {
    record_later_event(store, usEvent, num, usSlot);
  }
}
