/* procfs entries.
 *
 * A file is served by a kport_proc_ops table of read and write handlers with
 * the kernel's proc signatures. `ubuf` is a user-space address: handlers move
 * data only with kport_copy_from_user/kport_copy_to_user or
 * kport_simple_read_from_buffer. Handlers run in the reading or writing
 * process's context and may sleep on Linux (but the module's never do).
 * Process context only for creation and removal; removal waits for handlers
 * that are running. */
#ifndef KPORT_PROCFS_H
#define KPORT_PROCFS_H

#include "kport/compiler.h"
#include "kport/types.h"

struct file;
struct proc_dir_entry;

typedef ssize_t (*kport_proc_read_t)(struct file* file, char* ubuf, size_t count,
                                     kport_loff_t* pos);
typedef ssize_t (*kport_proc_write_t)(struct file* file, const char* ubuf, size_t count,
                                      kport_loff_t* pos);

struct kport_proc_ops {
  kport_proc_read_t read;   /* NULL: reads fail with -EIO */
  kport_proc_write_t write; /* NULL: writes fail with -EIO */
};

KPORT_EXTERN_C_BEGIN

/* proc_mkdir(); parent NULL is the procfs root. NULL on failure (also when
 * the name exists). */
struct proc_dir_entry* kport_proc_mkdir(const char* name, struct proc_dir_entry* parent);
/* proc_create(); `ops` must outlive the entry. NULL on failure. */
struct proc_dir_entry* kport_proc_create(const char* name, u16 mode, struct proc_dir_entry* parent,
                                         const struct kport_proc_ops* ops);
/* remove_proc_entry(): removes a file or an empty directory by name. */
void kport_remove_proc_entry(const char* name, struct proc_dir_entry* parent);

/* simple_read_from_buffer(): copies the part of `from` (of `available`
 * bytes) at *ppos, at most `count` bytes, to the user buffer and advances
 * *ppos. 0 at or past the end, -EINVAL for a negative position, -EFAULT when
 * nothing could be copied. */
ssize_t kport_simple_read_from_buffer(char* to, size_t count, kport_loff_t* ppos, const void* from,
                                      size_t available);

KPORT_EXTERN_C_END

#endif /* KPORT_PROCFS_H */
