// procfs: directories and files under /proc, and the reads and writes tests
// make on them.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "internal.h"
#include "kport/errno.h"
#include "kport/printk.h"
#include "vfs_internal.h"

namespace kport::user {
namespace {

using internal::Node;
using internal::NodeKind;

constexpr uint16_t kDirMode = 0555;          // S_IRUGO | S_IXUGO
constexpr uint16_t kDefaultFileMode = 0444;  // S_IRUGO, when no bit is given
constexpr long kEISDIR = 21;

std::string PathIn(const proc_dir_entry* parent, const char* name) {
  return (parent != nullptr ? parent->path : std::string("/proc")) + "/" + name;
}

proc_dir_entry* Create(const char* name, proc_dir_entry* parent, NodeKind kind, uint16_t mode,
                       const kport_proc_ops* ops) {
  if (!internal::ValidName(name)) return nullptr;
  if (parent != nullptr && parent->kind != NodeKind::kProcDir) return nullptr;
  if (internal::ShouldFail(fault::Site::kAlloc)) return nullptr;
  auto* pde = new proc_dir_entry(kind, PathIn(parent, name), mode, parent);
  pde->ops = ops;
  return internal::Adopt(pde, KPORT_LOGLEVEL_WARNING, "proc_dir_entry '%s' already registered\n");
}

// One open file: its handlers see a user buffer of exactly `count` bytes.
class OpenFile {
 public:
  explicit OpenFile(std::string_view path) : pin_(path) {
    Node* node = pin_.get();
    if (node != nullptr &&
        (node->kind == NodeKind::kProcFile || node->kind == NodeKind::kProcDir)) {
      file_.pde = static_cast<proc_dir_entry*>(node);
    }
  }

  long Read(void* buf, size_t count, int64_t* pos) {
    if (long err = Check()) return err;
    if (file_.pde->ops->read == nullptr) return -KPORT_EIO;
    char* ubuf = static_cast<char*>(std::malloc(count));
    kport_loff_t lpos = *pos;
    const ssize_t n = file_.pde->ops->read(&file_, ubuf, count, &lpos);
    *pos = lpos;
    if (n > 0) std::memcpy(buf, ubuf, std::min(static_cast<size_t>(n), count));
    std::free(ubuf);
    return n;
  }

  long Write(const void* buf, size_t count, int64_t* pos) {
    if (long err = Check()) return err;
    if (file_.pde->ops->write == nullptr) return -KPORT_EIO;
    char* ubuf = static_cast<char*>(std::malloc(count));
    if (count != 0) std::memcpy(ubuf, buf, count);
    kport_loff_t lpos = *pos;
    const ssize_t n = file_.pde->ops->write(&file_, ubuf, count, &lpos);
    *pos = lpos;
    std::free(ubuf);
    return n;
  }

 private:
  long Check() const {
    if (file_.pde == nullptr) return -KPORT_ENOENT;
    if (file_.pde->kind != NodeKind::kProcFile) return -kEISDIR;
    return 0;
  }

  internal::Pinned pin_;
  file file_;
};

}  // namespace

namespace vfs {

long ProcRead(std::string_view path, void* buf, size_t count, int64_t* pos) {
  int64_t zero = 0;
  return OpenFile(path).Read(buf, count, pos != nullptr ? pos : &zero);
}

long ProcWrite(std::string_view path, const void* buf, size_t count, int64_t* pos) {
  int64_t zero = 0;
  return OpenFile(path).Write(buf, count, pos != nullptr ? pos : &zero);
}

std::vector<uint8_t> ProcReadAll(std::string_view path, size_t chunk) {
  // A handler that ignores the position would make `cat` run forever.
  constexpr size_t kLimit = size_t{64} << 20;
  OpenFile file(path);
  std::vector<uint8_t> out;
  std::vector<uint8_t> buf(chunk);
  int64_t pos = 0;
  for (;;) {
    const long n = file.Read(buf.data(), chunk, &pos);
    if (n <= 0) break;
    out.insert(out.end(), buf.begin(), buf.begin() + std::min(static_cast<size_t>(n), chunk));
    if (out.size() > kLimit) {
      std::fprintf(stderr, "kport: %.*s: read stopped after %zu bytes\n",
                   static_cast<int>(path.size()), path.data(), out.size());
      break;
    }
  }
  return out;
}

long ProcWriteAll(std::string_view path, const std::vector<uint8_t>& bytes) {
  int64_t pos = 0;
  return OpenFile(path).Write(bytes.data(), bytes.size(), &pos);
}

}  // namespace vfs
}  // namespace kport::user

using kport::user::internal::NodeKind;

extern "C" {

struct proc_dir_entry* kport_proc_mkdir(const char* name, struct proc_dir_entry* parent) {
  return kport::user::Create(name, parent, NodeKind::kProcDir, kport::user::kDirMode, nullptr);
}

struct proc_dir_entry* kport_proc_create(const char* name, u16 mode, struct proc_dir_entry* parent,
                                         const struct kport_proc_ops* ops) {
  static const kport_proc_ops kNoOps = {nullptr, nullptr};
  u16 perm = mode & 07777;
  if (perm == 0) perm = kport::user::kDefaultFileMode;
  return kport::user::Create(name, parent, NodeKind::kProcFile, perm, ops ? ops : &kNoOps);
}

void kport_remove_proc_entry(const char* name, struct proc_dir_entry* parent) {
  if (name == nullptr) return;
  const std::string path = kport::user::PathIn(parent, name);
  kport::user::internal::Node* node = nullptr;
  std::string child;
  switch (kport::user::internal::Unregister(path, &node, &child)) {
    case kport::user::internal::Unlinked::kOk:
      delete node;
      kport::user::internal::CountFree();
      break;
    case kport::user::internal::Unlinked::kMissing:
      kport_printk(KPORT_LOGLEVEL_WARNING, "remove_proc_entry: name '%s' not found\n",
                   path.c_str());
      break;
    case kport::user::internal::Unlinked::kHasChildren:
      // The kernel warns and leaks; keeping the directory leaves the leak
      // visible to List() and LiveAllocations().
      kport_printk(KPORT_LOGLEVEL_WARNING,
                   "remove_proc_entry: removing non-empty directory '%s', leaking at least "
                   "'%s'\n",
                   path.c_str(), child.c_str());
      break;
  }
}

}  // extern "C"
