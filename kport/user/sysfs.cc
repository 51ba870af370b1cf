// sysfs: classes, devices and device attributes under /sys/class, and the
// shows and stores tests make on them.
#include <cstdlib>
#include <cstring>
#include <string>

#include "internal.h"
#include "kport/errno.h"
#include "kport/printk.h"
#include "vfs_internal.h"

namespace kport::user {
namespace {

using internal::AttrNode;
using internal::Node;
using internal::NodeKind;

constexpr uint16_t kDirMode = 0755;
constexpr long kE2BIG = 7;

// Adds a node after the kernel's checks; nullptr when its path is taken.
template <typename T>
T* Add(T* node) {
  return internal::Adopt(node, KPORT_LOGLEVEL_ERR,
                         "sysfs: cannot create duplicate filename '%s'\n");
}

void Destroy(Node* node) {
  delete node;
  internal::CountFree();
}

// Removes a node that has no children, waiting for its handlers.
void RemoveLeaf(const std::string& path) {
  Node* node = nullptr;
  std::string child;
  if (internal::Unregister(path, &node, &child) == internal::Unlinked::kOk) Destroy(node);
}

void RemoveDevice(device* dev) {
  // Deleting a device takes its attribute files with it.
  for (Node* attr : internal::Children(dev)) RemoveLeaf(attr->path);
  RemoveLeaf(dev->path);
}

AttrNode* AttrOf(Node* node) {
  return node != nullptr && node->kind == NodeKind::kAttr ? static_cast<AttrNode*>(node) : nullptr;
}

}  // namespace

namespace vfs {

std::optional<std::string> SysfsShow(std::string_view path) {
  internal::Pinned pin(path);
  AttrNode* node = AttrOf(pin.get());
  if (node == nullptr || node->attr->show == nullptr) return std::nullopt;
  // Exactly one page, zeroed as the kernel hands it out.
  char* page = static_cast<char*>(std::calloc(1, KPORT_PAGE_SIZE));
  ssize_t n = node->attr->show(node->dev, node->attr, page);
  std::optional<std::string> text;
  if (n >= 0) {
    if (n >= KPORT_PAGE_SIZE) {
      kport_printk(KPORT_LOGLEVEL_WARNING, "fill_read_buffer: %s returned bad count\n",
                   node->path.c_str());
      n = KPORT_PAGE_SIZE - 1;
    }
    text.emplace(page, static_cast<size_t>(n));
  }
  std::free(page);
  return text;
}

long SysfsStore(std::string_view path, std::string_view text) {
  internal::Pinned pin(path);
  AttrNode* node = AttrOf(pin.get());
  if (node == nullptr) return -KPORT_ENOENT;
  if (node->attr->store == nullptr) return -KPORT_EIO;
  if (text.size() > KPORT_PAGE_SIZE) return -kE2BIG;
  if (text.empty()) return 0;
  // Exactly the written bytes, unterminated: a store that reads on past them
  // is caught by AddressSanitizer.
  char* buf = static_cast<char*>(std::malloc(text.size()));
  std::memcpy(buf, text.data(), text.size());
  const ssize_t n = node->attr->store(node->dev, node->attr, buf, text.size());
  std::free(buf);
  return n;
}

}  // namespace vfs
}  // namespace kport::user

using kport::user::internal::AttrNode;
using kport::user::internal::Node;
using kport::user::internal::NodeKind;

extern "C" {

struct kport_class* kport_class_create(const char* name) {
  if (!kport::user::internal::ValidName(name)) return nullptr;
  if (kport::user::internal::ShouldFail(kport::user::fault::Site::kAlloc)) return nullptr;
  return kport::user::Add(new kport_class(NodeKind::kClass, std::string("/sys/class/") + name,
                                          kport::user::kDirMode, nullptr));
}

void kport_class_destroy(struct kport_class* cls) {
  if (cls == nullptr) return;
  Node* node = nullptr;
  std::string child;
  if (kport::user::internal::Unregister(cls->path, &node, &child) ==
      kport::user::internal::Unlinked::kHasChildren) {
    // The devices would outlive their class; keep both and say so.
    kport_printk(KPORT_LOGLEVEL_WARNING, "class_destroy: '%s' still has device '%s'\n",
                 cls->path.c_str(), child.c_str());
    return;
  }
  if (node != nullptr) kport::user::Destroy(node);
}

struct device* kport_device_create(struct kport_class* cls, u32 devt, const char* name) {
  if (cls == nullptr || !kport::user::internal::ValidName(name)) return nullptr;
  if (devt != 0) {
    for (Node* other : kport::user::internal::Children(cls)) {
      if (static_cast<device*>(other)->devt == devt) {
        kport_printk(KPORT_LOGLEVEL_ERR,
                     "sysfs: cannot create duplicate filename "
                     "'/dev/char/%u:%u'\n",
                     devt >> 20, devt & 0xfffff);
        return nullptr;
      }
    }
  }
  if (kport::user::internal::ShouldFail(kport::user::fault::Site::kAlloc)) return nullptr;
  auto* dev = new device(NodeKind::kDevice, cls->path + "/" + name, kport::user::kDirMode, cls);
  dev->cls = cls;
  dev->devt = devt;
  return kport::user::Add(dev);
}

void kport_device_destroy(struct kport_class* cls, u32 devt) {
  if (cls == nullptr) return;
  for (Node* node : kport::user::internal::Children(cls)) {
    auto* dev = static_cast<device*>(node);
    if (dev->devt == devt) {
      kport::user::RemoveDevice(dev);
      return;
    }
  }
}

int kport_device_create_file(struct device* dev, struct kport_device_attr* attr) {
  if (dev == nullptr || attr == nullptr || !kport::user::internal::ValidName(attr->name)) {
    return -KPORT_EINVAL;
  }
  if ((attr->mode & 0222) != 0 && attr->store == nullptr) {
    kport_printk(KPORT_LOGLEVEL_WARNING, "Attribute %s: write permission without 'store'\n",
                 attr->name);
  }
  if ((attr->mode & 0444) != 0 && attr->show == nullptr) {
    kport_printk(KPORT_LOGLEVEL_WARNING, "Attribute %s: read permission without 'show'\n",
                 attr->name);
  }
  if (kport::user::internal::ShouldFail(kport::user::fault::Site::kAlloc)) return -KPORT_ENOMEM;
  auto* node = new AttrNode(NodeKind::kAttr, dev->path + "/" + attr->name,
                            static_cast<uint16_t>(attr->mode & 07777), dev);
  node->dev = dev;
  node->attr = attr;
  return kport::user::Add(node) != nullptr ? 0 : -KPORT_EEXIST;
}

void kport_device_remove_file(struct device* dev, struct kport_device_attr* attr) {
  if (dev == nullptr || attr == nullptr || attr->name == nullptr) return;
  kport::user::RemoveLeaf(dev->path + "/" + attr->name);
}

}  // extern "C"
