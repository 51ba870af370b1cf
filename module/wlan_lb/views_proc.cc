// /proc/wlan_lb/capwap and /proc/wlan_lb/capwap_ka: an operator writes a key
// (an address, a keep-alive session) and reads back the matching records of
// the CAPWAP or keep-alive table as fixed-size binary images.
//
// Context: the reading or writing process. A reader allocates its image
// without sleeping before it takes its file's spin lock (interrupts masked),
// walks the table inside an RCU read-side section under that lock, and
// copies to user memory only after releasing both. The control path changes
// the tables meanwhile without these locks: RCU keeps every record it walks
// alive, and a record's process, the one field changed in place, is read
// with a single atomic load.
#include "base/atomic.h"
#include "container/hash_lb.h"
#include "kport/bndsafe.h"
#include "kport/cxx/guard.h"
#include "kport/errno.h"
#include "kport/mem.h"
#include "kport/procfs.h"
#include "kport/uaccess.h"
#include "wlan_lb/views_internal.h"
#include "wlan_lb/wlan_lb_internal.h"

extern "C" {
constinit u64 g_ulShowCapwapIP = 0;
constinit u32 g_stCapwapKAShowKey[4] = {};
constinit kport_spinlock_t g_wlan_lb_capwap_show_lock = {};
constinit kport_spinlock_t g_wlan_lb_capwap_ka_show_lock = {};
constinit const struct kport_proc_ops g_wlan_lb_capwap_fop = {
    wlan_lb_proc_read_capwap_distribute_info, wlan_lb_proc_write_capwap_distribute_info};
constinit const struct kport_proc_ops g_wlan_lb_capwap_ka_fop = {
    wlan_lb_proc_read_capwap_ka_distribute_info, wlan_lb_proc_write_capwap_ka_distribute_info};
}

namespace vane {
namespace {

constexpr ssize_t kCopyFailed = -1;

template <typename T>
void put(u8* image, size_t size, size_t offset, T value) {
  if (offset > size) return;
  (void)memcpy_s(image + offset, size - offset, &value, sizeof(value));
}

// Appends the CAPWAP records whose sip, widened, equals the selected
// address: at most ten, in bucket order. The image is zeroed, so bytes 13 to
// 15 of each record stay zero.
void fill_capwap(u8* image) {
  const u64 wanted = load_relaxed(&g_ulShowCapwapIP);
  const HASH_TABLE_S* table = load_acquire(&g_CAPWAP_LB_Table);
  if (table == nullptr) return;
  u32 taken = 0;
  lb_for_each(table, [&](const void* data) {
    const auto* rec = static_cast<const WLAN_LB_CAPWAP_NODE_S*>(data);
    if (taken >= WLAN_LB_CAPWAP_VIEW_RECORDS || static_cast<u64>(rec->sip) != wanted) return;
    const size_t base = taken * sizeof(WLAN_LB_CAPWAP_NODE_S);
    put(image, WLAN_LB_CAPWAP_VIEW_LEN, base + 0, rec->sip);
    put(image, WLAN_LB_CAPWAP_VIEW_LEN, base + 4, rec->dip);
    put(image, WLAN_LB_CAPWAP_VIEW_LEN, base + 8, rec->sport);
    put(image, WLAN_LB_CAPWAP_VIEW_LEN, base + 10, rec->dport);
    put(image, WLAN_LB_CAPWAP_VIEW_LEN, base + 12, rec->vpn);
    put(image, WLAN_LB_CAPWAP_VIEW_LEN, base + 16, load_relaxed(&rec->process));
    ++taken;
  });
}

// The keep-alive record of the selected session, if there is one (keys are
// unique, so the first match is the only one).
void fill_capwap_ka(u8* image) {
  u32 key[4];
  for (u32 i = 0; i < 4; ++i) key[i] = load_relaxed(&g_stCapwapKAShowKey[i]);
  const HASH_TABLE_S* table = load_acquire(&g_CAPWAP_KEEP_ALIVE_LB_Table);
  if (table == nullptr) return;
  bool found = false;
  lb_for_each(table, [&](const void* data) {
    const auto* rec = static_cast<const WLAN_LB_CAPWAP_KA_NODE_S*>(data);
    if (found || rec->ulSessionID[0] != key[0] || rec->ulSessionID[1] != key[1] ||
        rec->ulSessionID[2] != key[2] || rec->ulSessionID[3] != key[3]) {
      return;
    }
    for (u32 i = 0; i < 4; ++i) put(image, WLAN_LB_CAPWAP_KA_VIEW_LEN, i * 4, key[i]);
    put(image, WLAN_LB_CAPWAP_KA_VIEW_LEN, 16, load_relaxed(&rec->process));
    found = true;
  });
}

ssize_t read_image(char* ubuf, size_t count, kport_loff_t* pos, size_t size, kport_spinlock_t* lock,
                   void (*fill)(u8*)) {
  // Allocated before the lock: nothing is allocated with interrupts masked.
  u8* image = static_cast<u8*>(kport_kzalloc_atomic(size));
  if (image == nullptr) return 0;
  {
    kport::SpinGuardIrq guard(lock);
    kport::RcuReadGuard rcu;
    fill(image);
  }
  const ssize_t n = kport_simple_read_from_buffer(ubuf, count, pos, image, size);
  kport_kfree(image);
  return n;
}

}  // namespace

void views_proc_init() {
  store_relaxed(&g_ulShowType, 0);
  store_relaxed(&g_ulShowCapwapIP, 0u);
  for (u32& word : g_stCapwapKAShowKey) store_relaxed(&word, 0u);
  kport_spin_lock_init(&g_wlan_lb_capwap_show_lock);
  kport_spin_lock_init(&g_wlan_lb_capwap_ka_show_lock);
}

void views_proc_exit() {
  kport_spin_lock_destroy(&g_wlan_lb_capwap_ka_show_lock);
  kport_spin_lock_destroy(&g_wlan_lb_capwap_show_lock);
}

}  // namespace vane

extern "C" ssize_t wlan_lb_proc_read_capwap_distribute_info(struct file* file, char* ubuf,
                                                            size_t count, kport_loff_t* pos) {
  (void)file;
  return vane::read_image(ubuf, count, pos, WLAN_LB_CAPWAP_VIEW_LEN, &g_wlan_lb_capwap_show_lock,
                          vane::fill_capwap);
}

extern "C" ssize_t wlan_lb_proc_read_capwap_ka_distribute_info(struct file* file, char* ubuf,
                                                               size_t count, kport_loff_t* pos) {
  (void)file;
  return vane::read_image(ubuf, count, pos, WLAN_LB_CAPWAP_KA_VIEW_LEN,
                          &g_wlan_lb_capwap_ka_show_lock, vane::fill_capwap_ka);
}

// A write shorter than the key is refused whole: taking the key's length
// from a shorter buffer would read past what the caller wrote.
extern "C" ssize_t wlan_lb_proc_write_capwap_distribute_info(struct file* file, const char* ubuf,
                                                             size_t count, kport_loff_t* pos) {
  (void)file;
  (void)pos;
  u64 address = 0;
  if (count < sizeof(address)) return -KPORT_EINVAL;
  if (kport_copy_from_user(&address, ubuf, sizeof(address)) != 0) return vane::kCopyFailed;
  vane::store_relaxed(&g_ulShowCapwapIP, address);
  return static_cast<ssize_t>(count);
}

extern "C" ssize_t wlan_lb_proc_write_capwap_ka_distribute_info(struct file* file, const char* ubuf,
                                                                size_t count, kport_loff_t* pos) {
  (void)file;
  (void)pos;
  u32 key[4] = {};
  if (count < sizeof(key)) return -KPORT_EINVAL;
  if (kport_copy_from_user(key, ubuf, sizeof(key)) != 0) return vane::kCopyFailed;
  for (u32 i = 0; i < 4; ++i) vane::store_relaxed(&g_stCapwapKAShowKey[i], key[i]);
  return static_cast<ssize_t>(count);
}
