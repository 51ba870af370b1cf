/* The sysfs device model: a class, a device in it, and device attributes.
 *
 * An attribute is a kport_device_attr that lives as long as its file; the
 * backend keeps its own attribute record in `impl`. `show` fills a page of
 * KPORT_PAGE_SIZE bytes and returns the number of characters; `store`
 * receives the written text (not terminated) and returns the bytes consumed.
 * Process context only. */
#ifndef KPORT_SYSFS_H
#define KPORT_SYSFS_H

#include "kport/compiler.h"
#include "kport/types.h"

#define KPORT_PAGE_SIZE 4096
#define KPORT_DEVATTR_IMPL_SIZE 64

struct kport_class;
struct device;
struct kport_device_attr;

typedef ssize_t (*kport_attr_show_t)(struct device* dev, struct kport_device_attr* attr,
                                     char* page);
typedef ssize_t (*kport_attr_store_t)(struct device* dev, struct kport_device_attr* attr,
                                      const char* buf, size_t count);

struct kport_device_attr {
  const char* name;
  u16 mode;
  kport_attr_show_t show;
  kport_attr_store_t store;
  unsigned char impl[KPORT_DEVATTR_IMPL_SIZE] KPORT_ALIGNED(8);
};

KPORT_EXTERN_C_BEGIN

/* class_create(THIS_MODULE, name); NULL on failure (also when it exists). */
struct kport_class* kport_class_create(const char* name);
void kport_class_destroy(struct kport_class* cls);
/* device_create(cls, NULL, devt, NULL, name); NULL on failure. */
struct device* kport_device_create(struct kport_class* cls, u32 devt, const char* name);
void kport_device_destroy(struct kport_class* cls, u32 devt);
/* device_create_file(); 0 or a negative error. */
int kport_device_create_file(struct device* dev, struct kport_device_attr* attr);
void kport_device_remove_file(struct device* dev, struct kport_device_attr* attr);

KPORT_EXTERN_C_END

#endif /* KPORT_SYSFS_H */
