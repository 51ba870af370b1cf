/* The sysfs device model over the kernel's own. A kport attribute carries
 * the kernel's struct device_attribute in its impl storage; the kernel calls
 * trampolines that step back from it to the kport attribute. */
#include <linux/build_bug.h>
#include <linux/device.h>
#include <linux/device/class.h>
#include <linux/err.h>
#include <linux/module.h>
#include <linux/stddef.h>
#include <linux/sysfs.h>
#include <linux/version.h>

#include "kport/sysfs.h"

static_assert(sizeof(struct device_attribute) <= KPORT_DEVATTR_IMPL_SIZE,
              "device_attribute fits kport_device_attr.impl");
static_assert(__alignof__(struct device_attribute) <= 8, "device_attribute alignment");
static_assert(offsetof(struct kport_device_attr, impl) % __alignof__(struct device_attribute) == 0,
              "impl is aligned for device_attribute");
static_assert(KPORT_PAGE_SIZE <= PAGE_SIZE, "a show page holds KPORT_PAGE_SIZE bytes");

static inline struct device_attribute* dev_attr_of(struct kport_device_attr* attr) {
  return (struct device_attribute*)attr->impl;
}

static inline struct kport_device_attr* kport_attr_of(struct device_attribute* da) {
  return (struct kport_device_attr*)((char*)da - offsetof(struct kport_device_attr, impl));
}

static ssize_t kport_attr_show(struct device* dev, struct device_attribute* da, char* buf) {
  struct kport_device_attr* attr = kport_attr_of(da);

  return attr->show(dev, attr, buf);
}

static ssize_t kport_attr_store(struct device* dev, struct device_attribute* da, const char* buf,
                                size_t count) {
  struct kport_device_attr* attr = kport_attr_of(da);

  return attr->store(dev, attr, buf, count);
}

struct kport_class* kport_class_create(const char* name) {
#if LINUX_VERSION_CODE >= KERNEL_VERSION(6, 4, 0)
  struct class* cls = class_create(name);
#else
  struct class* cls = class_create(THIS_MODULE, name);
#endif

  return IS_ERR(cls) ? NULL : (struct kport_class*)cls;
}

void kport_class_destroy(struct kport_class* cls) { class_destroy((struct class*)cls); }

struct device* kport_device_create(struct kport_class* cls, u32 devt, const char* name) {
  struct device* dev = device_create((struct class*)cls, NULL, devt, NULL, "%s", name);

  return IS_ERR(dev) ? NULL : dev;
}

void kport_device_destroy(struct kport_class* cls, u32 devt) {
  device_destroy((struct class*)cls, devt);
}

int kport_device_create_file(struct device* dev, struct kport_device_attr* attr) {
  struct device_attribute* da = dev_attr_of(attr);

  memset(da, 0, sizeof(*da));
  sysfs_attr_init(&da->attr);
  da->attr.name = attr->name;
  da->attr.mode = attr->mode;
  /* Only the handlers the attribute has, so that the kernel's own checks
   * (a readable attribute without show...) see the truth. */
  da->show = attr->show ? kport_attr_show : NULL;
  da->store = attr->store ? kport_attr_store : NULL;
  return device_create_file(dev, da);
}

void kport_device_remove_file(struct device* dev, struct kport_device_attr* attr) {
  device_remove_file(dev, dev_attr_of(attr));
}
