// The proc and sysfs trees of the user-space backend: one registry of nodes
// by absolute path, and the kernel's entry types built on it.
#ifndef KPORT_USER_VFS_INTERNAL_H
#define KPORT_USER_VFS_INTERNAL_H

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "kport/procfs.h"
#include "kport/sysfs.h"

namespace kport::user::internal {

enum class NodeKind { kProcDir, kProcFile, kClass, kDevice, kAttr };

struct Node {
  Node(NodeKind k, std::string p, uint16_t m, Node* up)
      : kind(k), path(std::move(p)), mode(m), parent(up) {}
  virtual ~Node() = default;
  Node(const Node&) = delete;
  Node& operator=(const Node&) = delete;

  const NodeKind kind;
  const std::string path;
  const uint16_t mode;  // permission bits
  Node* const parent;   // nullptr at the top of /proc or /sys/class

  // Guarded by the registry's mutex.
  size_t children = 0;
  int active = 0;  // handlers running on the node
};

// Whether `name` can name an entry: not empty, no '/', not "." or "..".
bool ValidName(const char* name);

// Takes ownership of a new node: registers and counts it as an allocation,
// or, when its path is taken, logs `complaint` (a format with one %s, the
// path) at `level`, frees the node and returns nullptr.
Node* AdoptNode(Node* node, int level, const char* complaint);
template <typename T>
T* Adopt(T* node, int level, const char* complaint) {
  return static_cast<T*>(AdoptNode(node, level, complaint));
}

enum class Unlinked { kOk, kMissing, kHasChildren };
// Takes the node at `path` out of the registry and waits until no handler
// runs on it; the caller then owns the node. A node with children stays and
// `first_child` names one of them.
Unlinked Unregister(std::string_view path, Node** node, std::string* first_child);

// The children of `parent`, in path order. The pointers stay valid only
// while the caller is the one that would remove those nodes.
std::vector<Node*> Children(const Node* parent);

// Pins the node at `path` while a handler runs on it: removal waits for it.
// Removing a node from its own handler would wait forever and aborts.
class Pinned {
 public:
  explicit Pinned(std::string_view path);
  ~Pinned();
  Pinned(const Pinned&) = delete;
  Pinned& operator=(const Pinned&) = delete;

  Node* get() const { return node_; }

 private:
  Node* node_;
  const Node* outer_;
};

}  // namespace kport::user::internal

struct proc_dir_entry : kport::user::internal::Node {
  using Node::Node;
  const kport_proc_ops* ops = nullptr;  // files only
};

// An open proc file, for the length of one open-read/write-close sequence.
struct file {
  proc_dir_entry* pde = nullptr;
  void* private_data = nullptr;
};

struct kport_class : kport::user::internal::Node {
  using Node::Node;
};

struct device : kport::user::internal::Node {
  using Node::Node;
  kport_class* cls = nullptr;
  u32 devt = 0;
};

namespace kport::user::internal {

struct AttrNode : Node {
  using Node::Node;
  device* dev = nullptr;
  kport_device_attr* attr = nullptr;
};

}  // namespace kport::user::internal

#endif  // KPORT_USER_VFS_INTERNAL_H
