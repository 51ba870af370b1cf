/* procfs over the kernel's own. Every kport file shares one proc_ops whose
 * handlers find the file's kport_proc_ops in the entry's private data, so the
 * core's tables stay free of kernel types. */
#include <linux/fs.h>
#include <linux/proc_fs.h>
#include <linux/version.h>

#include "kport/procfs.h"

#if LINUX_VERSION_CODE >= KERNEL_VERSION(5, 17, 0)
#define kport_pde_data(inode) pde_data(inode)
#else
#define kport_pde_data(inode) PDE_DATA(inode)
#endif

static const struct kport_proc_ops* ops_of(struct file* file) {
  return kport_pde_data(file_inode(file));
}

static ssize_t kport_proc_read(struct file* file, char __user* ubuf, size_t count, loff_t* pos) {
  const struct kport_proc_ops* ops = ops_of(file);

  if (!ops->read) return -EIO;
  return ops->read(file, (char __force*)ubuf, count, pos);
}

static ssize_t kport_proc_write(struct file* file, const char __user* ubuf, size_t count,
                                loff_t* pos) {
  const struct kport_proc_ops* ops = ops_of(file);

  if (!ops->write) return -EIO;
  return ops->write(file, (const char __force*)ubuf, count, pos);
}

static const struct proc_ops kport_proc_fops = {
    .proc_read = kport_proc_read,
    .proc_write = kport_proc_write,
    .proc_lseek = default_llseek,
};

struct proc_dir_entry* kport_proc_mkdir(const char* name, struct proc_dir_entry* parent) {
  return proc_mkdir(name, parent);
}

struct proc_dir_entry* kport_proc_create(const char* name, u16 mode, struct proc_dir_entry* parent,
                                         const struct kport_proc_ops* ops) {
  return proc_create_data(name, mode, parent, &kport_proc_fops, (void*)ops);
}

void kport_remove_proc_entry(const char* name, struct proc_dir_entry* parent) {
  remove_proc_entry(name, parent);
}

ssize_t kport_simple_read_from_buffer(char* to, size_t count, kport_loff_t* ppos, const void* from,
                                      size_t available) {
  return simple_read_from_buffer((void __user*)to, count, ppos, from, available);
}
