/* /proc/bypassDebug: raw native-order images of the module's diagnostic
 * state. Handlers have the kernel's proc signatures and run in the reader's
 * or writer's process context. */
#ifndef DRV_VANE_PROC_H
#define DRV_VANE_PROC_H

#include "kport/compiler.h"
#include "kport/procfs.h"
#include "kport/types.h"

#define BYPASS_PROC_DIR "bypassDebug"

KPORT_EXTERN_C_BEGIN

extern struct proc_dir_entry* bypass_proc_dir;
extern const struct kport_proc_ops g_bypass_proc_counts_fop;
extern const struct kport_proc_ops g_bypass_proc_debug_fop;
extern const struct kport_proc_ops g_bypass_proc_catchPkt_fop;

/* Creates the directory and its files: 0, or 1 after removing whatever was
 * created. Start-up only. */
int bypass_proc_init(void);
/* Removes the files and the directory; 0. */
int bypass_proc_exit(void);

/* counts: the 3840-byte counter table; any write clears every counter. */
ssize_t bypass_proc_readCounts(struct file* file, char* ubuf, size_t count, kport_loff_t* pos);
ssize_t bypass_proc_writeCounts(struct file* file, const char* ubuf, size_t count,
                                kport_loff_t* pos);
/* debug: the 32,768-byte text area. A write clears it and sets
 * g_ulDebugLevel from its first 4 native-order bytes. A write of fewer than 4
 * bytes is refused with -EINVAL and changes nothing; a copy fault answers -1
 * after the clear, with the level unchanged. */
ssize_t bypass_proc_read_debug(struct file* file, char* ubuf, size_t count, kport_loff_t* pos);
ssize_t bypass_proc_write_debugLevel(struct file* file, const char* ubuf, size_t count,
                                     kport_loff_t* pos);

/* catchPkt: the 2880-byte capture store, emptied by the read (a second read
 * at a later position sees zeros); 0 without a store, -ENOMEM when no copy
 * buffer can be had (the store is then left as it is). Entries that a
 * capture is still writing are not shown and stay for the next read. A
 * write loads the slot mask (bytes 0-3), this module's slot (4-7) and the
 * 92-byte control block (8-99); fewer than 100 bytes is refused with
 * -EINVAL and changes nothing, a copy fault answers -1 and changes nothing. */
ssize_t bypass_proc_read_catchPkt(struct file* file, char* ubuf, size_t count, kport_loff_t* pos);
ssize_t bypass_proc_write_catchPkt(struct file* file, const char* ubuf, size_t count,
                                   kport_loff_t* pos);

KPORT_EXTERN_C_END

#endif /* DRV_VANE_PROC_H */
