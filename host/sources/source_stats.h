// SourceStats kept by a source while its Run thread feeds packets and any
// other thread reads them: each counter is a relaxed atomic, so a reader may
// see counters of slightly different moments, never a torn value.
#ifndef VANE_HOST_SOURCES_SOURCE_STATS_H
#define VANE_HOST_SOURCES_SOURCE_STATS_H

#include <atomic>
#include <cstdint>

#include "host/source.h"

namespace vane::host {

class AtomicSourceStats {
 public:
  void Read() { Add(read_, 1); }
  void Skipped() { Add(skipped_, 1); }
  void Loop() { Add(loops_, 1); }
  // Counts the outcome of one PacketOut::Deliver call of `len` bytes.
  void Delivery(int result, uint32_t len) {
    if (result < 0) {
      Add(refused_, 1);
      return;
    }
    Add(delivered_, 1);
    Add(bytes_, len);
  }

  SourceStats Snapshot() const {
    SourceStats s;
    s.read = read_.load(std::memory_order_relaxed);
    s.delivered = delivered_.load(std::memory_order_relaxed);
    s.refused = refused_.load(std::memory_order_relaxed);
    s.skipped = skipped_.load(std::memory_order_relaxed);
    s.bytes = bytes_.load(std::memory_order_relaxed);
    s.loops = loops_.load(std::memory_order_relaxed);
    return s;
  }

 private:
  // Only the Run thread writes: a load and a store avoid a locked add.
  static void Add(std::atomic<uint64_t>& c, uint64_t n) {
    c.store(c.load(std::memory_order_relaxed) + n, std::memory_order_relaxed);
  }

  std::atomic<uint64_t> read_{0};
  std::atomic<uint64_t> delivered_{0};
  std::atomic<uint64_t> refused_{0};
  std::atomic<uint64_t> skipped_{0};
  std::atomic<uint64_t> bytes_{0};
  std::atomic<uint64_t> loops_{0};
};

}  // namespace vane::host

#endif  // VANE_HOST_SOURCES_SOURCE_STATS_H
