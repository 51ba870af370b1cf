// A sequence count: lets lock-free readers on the packet path see a small
// record whole while a serialised writer rewrites it field by field.
//
// The writer makes the count odd with an acquire read-modify-write (its
// field stores cannot move above it), stores the fields with release stores
// and makes the count even again with a release store. A reader loads the
// count with acquire, loads the fields with acquire (a later load cannot
// move above them) and loads the count again: if any field load saw a store
// of a writer that began later, the second load sees that writer's odd
// count, and the reader retries. No standalone fence is needed, which keeps
// the pattern visible to ThreadSanitizer.
//
// Writers must exclude each other, and in the kernel must not be
// interrupted on their processor by a reader (take their lock with bottom
// halves off), or that reader would spin on an odd count forever.
#ifndef VANE_BASE_SEQCOUNT_H
#define VANE_BASE_SEQCOUNT_H

#include "base/atomic.h"
#include "kport/lock.h"
#include "kport/types.h"

namespace vane {

class SeqCount {
 public:
  constexpr SeqCount() = default;

  // Load-time state. Only while no reader or writer runs.
  void reset() { store_relaxed(&seq_, 0u); }

  u32 read_begin() const {
    u32 s = load_acquire(&seq_);
    while ((s & 1u) != 0) {
      kport_cpu_relax();
      s = load_acquire(&seq_);
    }
    return s;
  }
  // True when the fields read since read_begin(s) may be a mixture.
  bool read_retry(u32 s) const { return load_relaxed(&seq_) != s; }

  void write_begin() { (void)__atomic_fetch_add(&seq_, 1u, __ATOMIC_ACQ_REL); }
  void write_end() { store_release(&seq_, load_relaxed(&seq_) + 1u); }

 private:
  u32 seq_ = 0;
};

// Field access inside a sequence count's sections.
template <typename T>
inline T seq_load(const T* field) {
  return load_acquire(field);
}
template <typename T, typename U>
inline void seq_store(T* field, U value) {
  store_release(field, value);
}

}  // namespace vane

#endif  // VANE_BASE_SEQCOUNT_H
