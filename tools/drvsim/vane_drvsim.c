/* vane_drvsim.ko: a stand-in for the switch driver. It hands packets to
 * drv_vane through its exports, as the driver does, and registers a control
 * message handler, as the driver's companions do. Tests outside this
 * repository depend on its interface, so the first three files do not
 * change; later files are only ever added:
 *
 * /proc/vane_drvsim/send (write-only). One write(2) of N >= 8 bytes is one
 *   call; the write returns N.
 *     bytes 0-3   u32, native order: 0 calls netlink_send_msg,
 *                 1 calls netlink_fastsend_msg
 *     bytes 4-7   u32: the type argument
 *     bytes 8..   the buffer; the length argument is N - 8 (a write of
 *                 exactly 8 bytes calls with length 0 and a valid buffer)
 *   Refused without a call: fewer than 8 bytes, another selector, or more
 *   than DRVSIM_SEND_MAX bytes (-EINVAL); an unreadable user buffer
 *   (-EFAULT); no memory for the copy (-ENOMEM).
 *   The call is made with bottom halves disabled, because the real driver
 *   calls from its receive softirq.
 *
 * /proc/vane_drvsim/result (read-only): the last call's int result in
 *   decimal and "\n" ("0\n" before any call).
 *
 * /proc/vane_drvsim/handler (read-only): "calls=%u len=%u data=%s\n": how
 *   often the handler for control message id 3 ran, the payload-length
 *   field of the last message and its first min(len, 16) payload bytes in
 *   lowercase hex. The handler is registered with netlink_connect at load
 *   and removed with netlink_disconnect at unload.
 *
 * /proc/vane_drvsim/capture (read-write): the driver's side of packet
 *   capture. One write(2) of N >= 12 bytes is one call; the write returns N.
 *     bytes 0-3   u32, native order: 0 calls bypass_IsNeedCatchPkt,
 *                 1 calls bypass_TS_RecvPktEvent
 *     bytes 4-5   u16: the event value
 *     bytes 6-7   u16: the Ethernet header offset (0) or the slot (1)
 *     byte 8      the event number (1 only; 1 is the capture)
 *     byte 9      the mark (1 only)
 *     bytes 10-11 reserved
 *     bytes 12..  the packet (0) or the frame (1), N - 12 bytes; for an
 *                 event, a write of exactly 12 bytes passes no frame
 *   Refused without a call as for send: fewer than 12 bytes, another
 *   selector, more than DRVSIM_SEND_MAX bytes (-EINVAL); -EFAULT; -ENOMEM.
 *   The call is made with bottom halves disabled.
 *   A read returns "result=%u mark=0x%02x\n": the last capture call's
 *   result and the mark it wrote ("result=0 mark=0x00\n" before any).
 *
 * /proc/vane_drvsim/call (read-write): one write(2) is one call, laid out
 *   and refused as for send; a read of the same open file then returns that
 *   call's result as result does ("0\n" before any call). Each open file
 *   keeps its own result, so that callers on several processors at once
 *   each learn their own; result shows the last call through either file. */
#include <linux/atomic.h>
#include <linux/bottom_half.h>
#include <linux/delay.h>
#include <linux/kernel.h>
#include <linux/minmax.h>
#include <linux/mm.h>
#include <linux/module.h>
#include <linux/proc_fs.h>
#include <linux/slab.h>
#include <linux/spinlock.h>
#include <linux/string.h>
#include <linux/uaccess.h>

#include "drv_vane/capture.h"
#include "drv_vane/netlink.h"

#define DRVSIM_DIR "vane_drvsim"
#define DRVSIM_HEADER 8
#define DRVSIM_SEND_MAX (DRVSIM_HEADER + (1u << 20))
#define DRVSIM_MSG_ID 3
#define DRVSIM_KEEP 16
#define DRVSIM_CAPTURE_HEADER 12

static struct proc_dir_entry* drvsim_dir;
static int drvsim_result;

static DEFINE_SPINLOCK(drvsim_lock);
static unsigned int drvsim_calls;
static unsigned int drvsim_len;
static u8 drvsim_data[DRVSIM_KEEP];
static unsigned int drvsim_kept;
static atomic_t drvsim_inflight = ATOMIC_INIT(0);
static DEFINE_SPINLOCK(drvsim_capture_lock);
static u32 drvsim_capture_result;
static u8 drvsim_capture_mark;

static int drvsim_handler(void* payload, u32 len) {
  unsigned int keep = min_t(u32, len, DRVSIM_KEEP);

  atomic_inc(&drvsim_inflight);
  spin_lock_bh(&drvsim_lock);
  drvsim_calls++;
  drvsim_len = len;
  memcpy(drvsim_data, payload, keep);
  drvsim_kept = keep;
  spin_unlock_bh(&drvsim_lock);
  atomic_dec(&drvsim_inflight);
  return 0;
}

/* One call laid out as for send: 0 and the call's result in *result, or
 * -errno when it was refused without a call. */
static int drvsim_send_call(const char __user* ubuf, size_t count, int* result) {
  u32 head[2];
  u32 len;
  u8* buf;

  if (count < DRVSIM_HEADER || count > DRVSIM_SEND_MAX) return -EINVAL;
  if (copy_from_user(head, ubuf, sizeof(head))) return -EFAULT;
  if (head[0] > 1) return -EINVAL;

  len = count - DRVSIM_HEADER;
  buf = kvmalloc(len ? len : 1, GFP_KERNEL);
  if (!buf) return -ENOMEM;
  if (copy_from_user(buf, ubuf + DRVSIM_HEADER, len)) {
    kvfree(buf);
    return -EFAULT;
  }

  local_bh_disable();
  if (head[0] == 0)
    *result = netlink_send_msg(head[1], buf, len);
  else
    *result = netlink_fastsend_msg(head[1], buf, len);
  local_bh_enable();

  WRITE_ONCE(drvsim_result, *result);
  kvfree(buf);
  return 0;
}

static ssize_t drvsim_send_write(struct file* file, const char __user* ubuf, size_t count,
                                 loff_t* pos) {
  int result;
  int ret = drvsim_send_call(ubuf, count, &result);

  return ret ? ret : count;
}

static int drvsim_call_open(struct inode* inode, struct file* file) {
  int* result = kzalloc(sizeof(*result), GFP_KERNEL);

  if (!result) return -ENOMEM;
  file->private_data = result;
  return 0;
}

static int drvsim_call_release(struct inode* inode, struct file* file) {
  kfree(file->private_data);
  return 0;
}

static ssize_t drvsim_call_write(struct file* file, const char __user* ubuf, size_t count,
                                 loff_t* pos) {
  int ret = drvsim_send_call(ubuf, count, file->private_data);

  return ret ? ret : count;
}

static ssize_t drvsim_call_read(struct file* file, char __user* ubuf, size_t count, loff_t* pos) {
  char text[16];
  int n = scnprintf(text, sizeof(text), "%d\n", *(int*)file->private_data);

  return simple_read_from_buffer(ubuf, count, pos, text, n);
}

static ssize_t drvsim_result_read(struct file* file, char __user* ubuf, size_t count, loff_t* pos) {
  char text[16];
  int n = scnprintf(text, sizeof(text), "%d\n", READ_ONCE(drvsim_result));

  return simple_read_from_buffer(ubuf, count, pos, text, n);
}

static ssize_t drvsim_handler_read(struct file* file, char __user* ubuf, size_t count,
                                   loff_t* pos) {
  char text[64 + 2 * DRVSIM_KEEP];
  u8 data[DRVSIM_KEEP];
  unsigned int calls, len, kept;
  int n;

  spin_lock_bh(&drvsim_lock);
  calls = drvsim_calls;
  len = drvsim_len;
  kept = drvsim_kept;
  memcpy(data, drvsim_data, kept);
  spin_unlock_bh(&drvsim_lock);

  n = scnprintf(text, sizeof(text), "calls=%u len=%u data=%*phN\n", calls, len, kept, data);
  return simple_read_from_buffer(ubuf, count, pos, text, n);
}

static ssize_t drvsim_capture_write(struct file* file, const char __user* ubuf, size_t count,
                                    loff_t* pos) {
  u8 head[DRVSIM_CAPTURE_HEADER];
  u32 op, len, result;
  u16 value, where;
  u8 mark = 0;
  u8* buf;

  if (count < DRVSIM_CAPTURE_HEADER || count > DRVSIM_SEND_MAX) return -EINVAL;
  if (copy_from_user(head, ubuf, sizeof(head))) return -EFAULT;
  memcpy(&op, head, sizeof(op));
  memcpy(&value, head + 4, sizeof(value));
  memcpy(&where, head + 6, sizeof(where));
  if (op > 1) return -EINVAL;

  len = count - DRVSIM_CAPTURE_HEADER;
  buf = kvmalloc(len ? len : 1, GFP_KERNEL);
  if (!buf) return -ENOMEM;
  if (copy_from_user(buf, ubuf + DRVSIM_CAPTURE_HEADER, len)) {
    kvfree(buf);
    return -EFAULT;
  }

  local_bh_disable();
  if (op == 0) {
    result = bypass_IsNeedCatchPkt(buf, len, value, &mark, where);
    spin_lock(&drvsim_capture_lock);
    drvsim_capture_result = result;
    drvsim_capture_mark = result ? mark : 0;
    spin_unlock(&drvsim_capture_lock);
  } else {
    bypass_TS_RecvPktEvent(head[8], len ? buf : NULL, len, value, head[9], where);
  }
  local_bh_enable();

  kvfree(buf);
  return count;
}

static ssize_t drvsim_capture_read(struct file* file, char __user* ubuf, size_t count,
                                   loff_t* pos) {
  char text[32];
  u32 result;
  u8 mark;
  int n;

  spin_lock_bh(&drvsim_capture_lock);
  result = drvsim_capture_result;
  mark = drvsim_capture_mark;
  spin_unlock_bh(&drvsim_capture_lock);

  n = scnprintf(text, sizeof(text), "result=%u mark=0x%02x\n", result, mark);
  return simple_read_from_buffer(ubuf, count, pos, text, n);
}

static const struct proc_ops drvsim_send_ops = {
    .proc_write = drvsim_send_write,
};

static const struct proc_ops drvsim_result_ops = {
    .proc_read = drvsim_result_read,
};

static const struct proc_ops drvsim_handler_ops = {
    .proc_read = drvsim_handler_read,
};

static const struct proc_ops drvsim_call_ops = {
    .proc_open = drvsim_call_open,
    .proc_release = drvsim_call_release,
    .proc_read = drvsim_call_read,
    .proc_write = drvsim_call_write,
};

static const struct proc_ops drvsim_capture_ops = {
    .proc_read = drvsim_capture_read,
    .proc_write = drvsim_capture_write,
};

static int __init drvsim_init(void) {
  int ret;

  drvsim_dir = proc_mkdir(DRVSIM_DIR, NULL);
  if (!drvsim_dir) return -ENOMEM;
  if (!proc_create("send", 0200, drvsim_dir, &drvsim_send_ops) ||
      !proc_create("result", 0444, drvsim_dir, &drvsim_result_ops) ||
      !proc_create("handler", 0444, drvsim_dir, &drvsim_handler_ops) ||
      !proc_create("capture", 0644, drvsim_dir, &drvsim_capture_ops) ||
      !proc_create("call", 0600, drvsim_dir, &drvsim_call_ops)) {
    remove_proc_subtree(DRVSIM_DIR, NULL);
    return -ENOMEM;
  }
  ret = netlink_connect(DRVSIM_MSG_ID, drvsim_handler);
  if (ret) {
    remove_proc_subtree(DRVSIM_DIR, NULL);
    return ret;
  }
  return 0;
}

static void __exit drvsim_exit(void) {
  netlink_disconnect(DRVSIM_MSG_ID);
  /* A control message that read the handler slot before the disconnect
   * may still be inside the handler on another processor; let it leave
   * before the code goes away. (One that has read the slot but not yet
   * entered cannot be seen from here; the harness unloads only after its
   * senders are gone.) */
  while (atomic_read(&drvsim_inflight)) msleep(1);
  remove_proc_subtree(DRVSIM_DIR, NULL);
}

module_init(drvsim_init);
module_exit(drvsim_exit);
MODULE_LICENSE("Dual BSD/GPL");
MODULE_DESCRIPTION("Switch-driver stand-in for drv_vane tests");
