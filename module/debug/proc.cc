// /proc/bypassDebug: the directory, its files and their handlers.
//
// Context: creation and removal run at start-up and shut-down (process
// context); the handlers run in the reading or writing process's context,
// concurrently with the packet path. Reads hand out raw native-order images.
#include "drv_vane/proc.h"

#include "base/atomic.h"
#include "debug/debug_internal.h"
#include "drv_vane/capture.h"
#include "drv_vane/debug.h"
#include "drv_vane/dispatch.h"
#include "drv_vane/frag.h"
#include "drv_vane/steering.h"
#include "kport/errno.h"
#include "kport/mem.h"
#include "kport/printk.h"
#include "kport/procfs.h"
#include "kport/uaccess.h"

struct proc_dir_entry* bypass_proc_dir;

const struct kport_proc_ops g_bypass_proc_counts_fop = {bypass_proc_readCounts,
                                                        bypass_proc_writeCounts};
const struct kport_proc_ops g_bypass_proc_debug_fop = {bypass_proc_read_debug,
                                                       bypass_proc_write_debugLevel};
const struct kport_proc_ops g_bypass_proc_catchPkt_fop = {bypass_proc_read_catchPkt,
                                                          bypass_proc_write_catchPkt};

namespace vane {
namespace {

constexpr char kCopyFromUserFailed[] = "\r\nErr: bypass copy from user failed.\r\n";

struct ProcFile {
  const char* name;
  u16 mode;
  const kport_proc_ops* ops;
  const char* failure;  // alert line when the file cannot be created
};

// In order of creation.
constexpr ProcFile kFiles[] = {
    {"counts", 0666, &g_bypass_proc_counts_fop,
     "\r\nErr: create subdir in /proc/bypassDebug/counts failed."},
    {"hashInfoIpv4", 0444, &g_bypass_proc_hashInfoIpv4_fop,
     "\r\nErr: create subdir in /proc/bypassDebug/hashinfo failed."},
    {"hashInfoIpv6", 0444, &g_bypass_proc_hashInfoIpv6_fop,
     "\r\nErr: create subdir in /proc/bypassDebug/hashinfo failed."},
    {"debug", 0666, &g_bypass_proc_debug_fop,
     "\r\nErr: create subdir in /proc/bypassDebug/feature failed."},
    {"catchPkt", 0666, &g_bypass_proc_catchPkt_fop,
     "\r\nErr: create subdir in /proc/bypassDebug/feature failed."},
    {"ivo", 0666, &g_bypass_ivo_stat_fop,
     "\r\nErr: create subdir in /proc/bypassDebug/ivo failed."},
};
constexpr u32 kFileCount = sizeof(kFiles) / sizeof(kFiles[0]);

void remove_files(u32 created) {
  while (created > 0) kport_remove_proc_entry(kFiles[--created].name, bypass_proc_dir);
}

}  // namespace
}  // namespace vane

extern "C" int bypass_proc_init(void) {
  using namespace vane;
  bypass_proc_dir = kport_proc_mkdir(BYPASS_PROC_DIR, nullptr);
  if (bypass_proc_dir == nullptr) {
    kport_printk(KPORT_LOGLEVEL_ALERT, "\r\nErr: create dir /proc/bypassDebug failed.");
    return 1;
  }
  for (u32 i = 0; i < kFileCount; ++i) {
    if (kport_proc_create(kFiles[i].name, kFiles[i].mode, bypass_proc_dir, kFiles[i].ops) ==
        nullptr) {
      kport_printk(KPORT_LOGLEVEL_ALERT, "%s", kFiles[i].failure);
      remove_files(i);
      kport_remove_proc_entry(BYPASS_PROC_DIR, nullptr);
      bypass_proc_dir = nullptr;
      return 1;
    }
  }
  return 0;
}

extern "C" int bypass_proc_exit(void) {
  if (bypass_proc_dir == nullptr) return 0;
  vane::remove_files(vane::kFileCount);
  kport_remove_proc_entry(BYPASS_PROC_DIR, nullptr);
  bypass_proc_dir = nullptr;
  return 0;
}

extern "C" ssize_t bypass_proc_readCounts(struct file* file, char* ubuf, size_t count,
                                          kport_loff_t* pos) {
  (void)file;
  // The sums go to a buffer of the reader's own: the copy to user space may
  // fault and sleep, and the exported image may be refreshed by another
  // reader meanwhile.
  auto* snap = static_cast<u32*>(kport_kmalloc_atomic(sizeof(g_bypassPktCounts)));
  if (snap == nullptr) return -KPORT_ENOMEM;
  vane::counters_snapshot(snap);
  ssize_t n = kport_simple_read_from_buffer(ubuf, count, pos, snap, sizeof(g_bypassPktCounts));
  kport_kfree(snap);
  return n;
}

extern "C" ssize_t bypass_proc_writeCounts(struct file* file, const char* ubuf, size_t count,
                                           kport_loff_t* pos) {
  (void)file;
  (void)ubuf;
  (void)pos;
  vane::counters_clear();
  return static_cast<ssize_t>(count);
}

extern "C" ssize_t bypass_proc_read_debug(struct file* file, char* ubuf, size_t count,
                                          kport_loff_t* pos) {
  (void)file;
  const char* buf = vane::load_acquire(&g_pstDebug);
  if (buf == nullptr) return 0;
  return kport_simple_read_from_buffer(ubuf, count, pos, buf, BYPASS_DEBUG_BUF_TEXT);
}

extern "C" ssize_t bypass_proc_write_debugLevel(struct file* file, const char* ubuf, size_t count,
                                                kport_loff_t* pos) {
  (void)file;
  (void)pos;
  if (vane::load_acquire(&g_pstDebug) == nullptr) return 0;
  u32 level = 0;
  if (count < sizeof(level)) return -KPORT_EINVAL;
  // The text is cleared before the copy, as operators expect a write to
  // empty the buffer even when the new level cannot be read.
  vane::debug_buffer_clear();
  if (kport_copy_from_user(&level, ubuf, sizeof(level)) != 0) {
    kport_printk(KPORT_LOGLEVEL_ALERT, "%s", vane::kCopyFromUserFailed);
    return -1;
  }
  vane::store_release(&g_ulDebugLevel, level);
  return static_cast<ssize_t>(count);
}

extern "C" ssize_t bypass_proc_read_catchPkt(struct file* file, char* ubuf, size_t count,
                                             kport_loff_t* pos) {
  (void)file;
  // The entries are moved out before the copy to user space, which may
  // fault and sleep; whatever that copy does, the store has been emptied.
  auto* snap = static_cast<u8*>(kport_kmalloc_atomic(BYPASS_CATCH_STORE_LEN));
  if (snap == nullptr) return -KPORT_ENOMEM;
  ssize_t n = 0;
  if (vane::capture_store_take(snap)) {
    n = kport_simple_read_from_buffer(ubuf, count, pos, snap, BYPASS_CATCH_STORE_LEN);
  }
  kport_kfree(snap);
  return n;
}

extern "C" ssize_t bypass_proc_write_catchPkt(struct file* file, const char* ubuf, size_t count,
                                              kport_loff_t* pos) {
  (void)file;
  (void)pos;
  u8 block[BYPASS_CATCH_CTRL_WRITE_LEN];
  // A partial block would arm capture with whatever the rest happened to be.
  if (count < sizeof(block)) return -KPORT_EINVAL;
  if (kport_copy_from_user(block, ubuf, sizeof(block)) != 0) {
    kport_printk(KPORT_LOGLEVEL_ALERT, "%s", vane::kCopyFromUserFailed);
    return -1;
  }
  vane::capture_ctrl_load(block);
  return static_cast<ssize_t>(count);
}
