// The registry behind procfs and sysfs: nodes by absolute path, pinned by
// running handlers, and the queries tests make of it.
#include <condition_variable>
#include <cstring>
#include <map>
#include <mutex>

#include "internal.h"
#include "kport/printk.h"
#include "vfs_internal.h"

namespace kport::user {
namespace {

struct Registry {
  std::mutex mu;
  std::condition_variable idle;  // some node's last handler returned
  std::map<std::string, internal::Node*, std::less<>> nodes;
};

Registry& Reg() {
  // Never destroyed: entries may be used while the process exits.
  static Registry* reg = new Registry;
  return *reg;
}

// The node whose handler this thread is running, if any.
thread_local const internal::Node* t_in_handler = nullptr;

bool IsChildPath(const std::string& path, const std::string& parent) {
  return path.size() > parent.size() + 1 && path.compare(0, parent.size(), parent) == 0 &&
         path[parent.size()] == '/' && path.find('/', parent.size() + 1) == std::string::npos;
}

// Adds the node under its path; false (nothing changed) when the path is
// taken.
bool Register(internal::Node* node) {
  Registry& reg = Reg();
  std::lock_guard lock(reg.mu);
  if (!reg.nodes.emplace(node->path, node).second) return false;
  if (node->parent != nullptr) ++node->parent->children;
  return true;
}

}  // namespace

namespace internal {

bool ValidName(const char* name) {
  return name != nullptr && name[0] != '\0' && std::strchr(name, '/') == nullptr &&
         std::strcmp(name, ".") != 0 && std::strcmp(name, "..") != 0;
}

Node* AdoptNode(Node* node, int level, const char* complaint) {
  if (!Register(node)) {
    kport_printk(level, complaint, node->path.c_str());
    delete node;
    return nullptr;
  }
  CountAlloc();
  return node;
}

Unlinked Unregister(std::string_view path, Node** node, std::string* first_child) {
  Registry& reg = Reg();
  std::unique_lock lock(reg.mu);
  auto it = reg.nodes.find(path);
  if (it == reg.nodes.end()) return Unlinked::kMissing;
  Node* n = it->second;
  if (n->children != 0) {
    for (auto c = std::next(it); c != reg.nodes.end(); ++c) {
      if (IsChildPath(c->first, n->path)) {
        *first_child = c->first.substr(n->path.size() + 1);
        break;
      }
    }
    return Unlinked::kHasChildren;
  }
  if (t_in_handler == n) Fatal("%s removed from its own handler", n->path.c_str());
  reg.nodes.erase(it);
  if (n->parent != nullptr) --n->parent->children;
  // Lookups no longer find the node; handlers already inside finish first.
  reg.idle.wait(lock, [n] { return n->active == 0; });
  *node = n;
  return Unlinked::kOk;
}

std::vector<Node*> Children(const Node* parent) {
  Registry& reg = Reg();
  std::lock_guard lock(reg.mu);
  std::vector<Node*> out;
  for (auto it = reg.nodes.upper_bound(parent->path); it != reg.nodes.end(); ++it) {
    if (it->first.compare(0, parent->path.size(), parent->path) != 0) break;
    if (it->second->parent == parent) out.push_back(it->second);
  }
  return out;
}

Pinned::Pinned(std::string_view path) : node_(nullptr), outer_(t_in_handler) {
  Registry& reg = Reg();
  std::lock_guard lock(reg.mu);
  auto it = reg.nodes.find(path);
  if (it == reg.nodes.end()) return;
  node_ = it->second;
  ++node_->active;
  t_in_handler = node_;
}

Pinned::~Pinned() {
  if (node_ == nullptr) return;
  t_in_handler = outer_;
  Registry& reg = Reg();
  std::lock_guard lock(reg.mu);
  if (--node_->active == 0) reg.idle.notify_all();
}

}  // namespace internal

namespace vfs {

bool Exists(std::string_view path) {
  Registry& reg = Reg();
  std::lock_guard lock(reg.mu);
  return reg.nodes.find(path) != reg.nodes.end();
}

uint16_t Mode(std::string_view path) {
  Registry& reg = Reg();
  std::lock_guard lock(reg.mu);
  auto it = reg.nodes.find(path);
  return it == reg.nodes.end() ? 0 : it->second->mode;
}

std::vector<std::string> List() {
  Registry& reg = Reg();
  std::lock_guard lock(reg.mu);
  std::vector<std::string> out;
  out.reserve(reg.nodes.size());
  for (const auto& [path, node] : reg.nodes) out.push_back(path);
  return out;
}

std::vector<std::string> Files() {
  Registry& reg = Reg();
  std::lock_guard lock(reg.mu);
  std::vector<std::string> out;
  for (const auto& [path, node] : reg.nodes) {
    if (node->kind == internal::NodeKind::kProcFile || node->kind == internal::NodeKind::kAttr) {
      out.push_back(path);
    }
  }
  return out;
}

}  // namespace vfs
}  // namespace kport::user
