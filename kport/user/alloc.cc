// Module memory: kmalloc/kzalloc/kfree on the C heap, so AddressSanitizer
// sees every overrun and leak, with fault injection and live accounting.
#include <atomic>
#include <cstdlib>
#include <cstring>

#include "internal.h"
#include "kport/mem.h"

namespace kport::user {
namespace {

std::atomic<size_t> g_live{0};

}  // namespace

namespace internal {

void CountAlloc() { g_live.fetch_add(1, std::memory_order_relaxed); }
void CountFree() { g_live.fetch_sub(1, std::memory_order_relaxed); }

}  // namespace internal

size_t LiveAllocations() { return g_live.load(std::memory_order_relaxed); }

}  // namespace kport::user

namespace {

// The slab allocator's "allocated but not initialised" poison. Code that
// forgets to initialise kmalloc memory sees this rather than lucky zeros.
constexpr int kUninitPoison = 0x5a;

}  // namespace

using kport::user::internal::CountAlloc;
using kport::user::internal::CountFree;
using kport::user::internal::ShouldFail;

extern "C" {

void* kport_kmalloc_atomic(size_t size) {
  if (ShouldFail(kport::user::fault::Site::kAlloc)) return nullptr;
  void* p = std::malloc(size);
  if (p == nullptr) return nullptr;
  std::memset(p, kUninitPoison, size);
  CountAlloc();
  return p;
}

void* kport_kzalloc_atomic(size_t size) {
  if (ShouldFail(kport::user::fault::Site::kAlloc)) return nullptr;
  void* p = std::calloc(1, size);
  if (p == nullptr) return nullptr;
  CountAlloc();
  return p;
}

void kport_kfree(const void* ptr) {
  if (ptr == nullptr) return;
  std::free(const_cast<void*>(ptr));
  CountFree();
}

}  // extern "C"
