// /proc/bypassDebug/hashInfoIpv4 and hashInfoIpv6: raw images of the
// fragment tables, the record count then the records bucket by bucket.
//
// Context: the reader's process context. The image is filled under the
// table's read lock. The image buffer is shared by every reader of the file,
// so filling it is serialised by a spin lock of the dumps' own, always taken
// before a table's lock and never the other way round. Shut-down frees the
// buffers after the files are gone.
#include "base/atomic.h"
#include "drv_vane/frag.h"
#include "frag/frag_internal.h"
#include "kport/bndsafe.h"
#include "kport/cxx/guard.h"
#include "kport/errno.h"
#include "kport/mem.h"
#include "kport/printk.h"
#include "kport/procfs.h"

constinit u8* g_pBypassIpv4TotalInfo = nullptr;
constinit u8* g_pBypassIpv6TotalInfo = nullptr;

const struct kport_proc_ops g_bypass_proc_hashInfoIpv4_fop = {bypass_proc_readHashInfoIpv4,
                                                              nullptr};
const struct kport_proc_ops g_bypass_proc_hashInfoIpv6_fop = {bypass_proc_readHashInfoIpv6,
                                                              nullptr};

namespace vane {
namespace {

struct DumpFile {
  u8** buffer;
  HASH_TABLE_S** table;
  u32 size;
  u32 record;
  const char* alloc_failure;
};

constinit kport_spinlock_t g_dump_lock = {};

void fill(u8* buf, const DumpFile& f, HASH_TABLE_S* table) {
  kport::ReadGuard guard(&table->stLock);
  u16 count = static_cast<u16>(table->ulElemCnt);
  memcpy_s(buf, f.size, &count, sizeof(count));
  u32 copied = 0;
  for (u64 i = 0; i < table->ulBucketNum && copied < BYPASS_FRAG_MAX_RECORDS; ++i) {
    for (LIST_NODE_S* node = table->astBucket[i].pstHead;
         node != nullptr && copied < BYPASS_FRAG_MAX_RECORDS; node = node->pstNext) {
      memcpy_s(buf + 4 + copied * f.record, f.record, node->pData, f.record);
      ++copied;
    }
  }
}

ssize_t read_dump(const DumpFile& f, char* ubuf, size_t count, kport_loff_t* pos) {
  HASH_TABLE_S* table = load_acquire(f.table);
  if (table == nullptr) return 0;
  // Copying to user memory may fault and sleep, which no spin lock allows:
  // each read takes a private copy of the shared image and hands that out.
  auto* copy = static_cast<u8*>(kport_kmalloc_atomic(f.size));
  if (copy == nullptr) return -KPORT_ENOMEM;
  bool have_image;
  {
    kport::SpinGuardBh guard(&g_dump_lock);
    if (*f.buffer == nullptr) *f.buffer = static_cast<u8*>(kport_kzalloc_atomic(f.size));
    have_image = *f.buffer != nullptr;
    if (have_image) {
      fill(*f.buffer, f, table);
      memcpy_s(copy, f.size, *f.buffer, f.size);
    }
  }
  if (!have_image) {
    kport_kfree(copy);
    kport_printk(KPORT_LOGLEVEL_ALERT, "%s", f.alloc_failure);
    return 0;
  }
  ssize_t n = kport_simple_read_from_buffer(ubuf, count, pos, copy, f.size);
  kport_kfree(copy);
  return n;
}

constexpr DumpFile kV4 = {&g_pBypassIpv4TotalInfo, &g_bypass_ipV4FragHash, BYPASS_FRAG_DUMP_V4_SIZE,
                          sizeof(BYPASS_IPV4_FRAG_INFO_S),
                          "\r\n***bypass_proc_readHashInfoIpv4  ***\r\n"};
constexpr DumpFile kV6 = {&g_pBypassIpv6TotalInfo, &g_bypass_ipV6FragHash, BYPASS_FRAG_DUMP_V6_SIZE,
                          sizeof(BYPASS_IPV6_FRAG_INFO_S),
                          "\r\n***bypass_proc_readHashInfoIpv6  1***\r\n"};

}  // namespace

void frag_dump_init() { kport_spin_lock_init(&g_dump_lock); }

void frag_dump_release() {
  kport_spin_lock_destroy(&g_dump_lock);
  kport_kfree(g_pBypassIpv4TotalInfo);
  kport_kfree(g_pBypassIpv6TotalInfo);
  g_pBypassIpv4TotalInfo = nullptr;
  g_pBypassIpv6TotalInfo = nullptr;
}

}  // namespace vane

extern "C" ssize_t bypass_proc_readHashInfoIpv4(struct file* file, char* ubuf, size_t count,
                                                kport_loff_t* pos) {
  (void)file;
  return vane::read_dump(vane::kV4, ubuf, count, pos);
}

extern "C" ssize_t bypass_proc_readHashInfoIpv6(struct file* file, char* ubuf, size_t count,
                                                kport_loff_t* pos) {
  (void)file;
  return vane::read_dump(vane::kV6, ubuf, count, pos);
}
