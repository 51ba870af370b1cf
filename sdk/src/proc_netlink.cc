// Reading the kernel's per-socket drop count of a netlink socket.
#include "proc_netlink.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <charconv>
#include <string>

namespace vane {
namespace {

// The next whitespace-separated field of line at *pos, or an empty view.
std::string_view NextField(std::string_view line, size_t* pos) {
  size_t b = line.find_first_not_of(" \t", *pos);
  if (b == std::string_view::npos) {
    *pos = line.size();
    return {};
  }
  size_t e = line.find_first_of(" \t", b);
  if (e == std::string_view::npos) e = line.size();
  *pos = e;
  return line.substr(b, e - b);
}

std::optional<uint64_t> ToU64(std::string_view s) {
  uint64_t v = 0;
  auto [p, ec] = std::from_chars(s.data(), s.data() + s.size(), v);
  if (ec != std::errc() || p != s.data() + s.size()) return std::nullopt;
  return v;
}

}  // namespace

std::optional<uint64_t> ParseNetlinkDrops(std::string_view text, uint64_t inode) {
  int drops_col = -1;
  int inode_col = -1;
  bool header = true;
  while (!text.empty()) {
    const size_t nl = text.find('\n');
    const std::string_view line = text.substr(0, nl);
    text = nl == std::string_view::npos ? std::string_view{} : text.substr(nl + 1);
    size_t pos = 0;
    if (header) {
      // The column set has grown over kernel versions; go by name.
      int col = 0;
      for (auto f = NextField(line, &pos); !f.empty(); f = NextField(line, &pos), ++col) {
        if (f == "Drops") drops_col = col;
        if (f == "Inode") inode_col = col;
      }
      if (drops_col < 0 || inode_col < 0) return std::nullopt;
      header = false;
      continue;
    }
    std::optional<uint64_t> drops;
    std::optional<uint64_t> ino;
    int col = 0;
    for (auto f = NextField(line, &pos); !f.empty(); f = NextField(line, &pos), ++col) {
      if (col == drops_col) drops = ToU64(f);
      if (col == inode_col) ino = ToU64(f);
    }
    if (ino && *ino == inode) return drops;
  }
  return std::nullopt;
}

std::optional<uint64_t> NetlinkDrops(int fd) {
  struct stat st {};
  if (fstat(fd, &st) != 0) return std::nullopt;
  const int pf = open("/proc/net/netlink", O_RDONLY | O_CLOEXEC);
  if (pf < 0) return std::nullopt;
  // Read only after a loss, so the allocation is off the packet path; out of
  // memory simply means the count is unknown.
  std::optional<uint64_t> drops;
  try {
    std::string text;
    char chunk[4096];
    ssize_t n;
    while ((n = read(pf, chunk, sizeof chunk)) > 0) text.append(chunk, static_cast<size_t>(n));
    drops = ParseNetlinkDrops(text, st.st_ino);
  } catch (...) {  // NOLINT(bugprone-empty-catch)
  }
  close(pf);
  return drops;
}

}  // namespace vane
