// Diagnostic file access over libvane (see files.h).
#include "files.h"

#include <fmt/format.h>

#include <cstdlib>
#include <cstring>
#include <memory>

namespace vanectl {

namespace {

std::string Why(const char* what, const char* path, long rc) {
  return fmt::format("{} {}: {}", what, path, std::strerror(static_cast<int>(-rc)));
}

}  // namespace

Files::Files(const Global& g) {
  const vane_endpoint ep = g.Endpoint();
  if (int rc = vane_ctl_open(&ep, &ctl_); rc < 0) {
    throw FileError(fmt::format("cannot reach the dispatcher ({}): {}",
                                vane_transport_name(vane_resolve_transport(&ep)),
                                std::strerror(-rc)));
  }
}

Files::~Files() { vane_ctl_close(ctl_); }

std::vector<uint8_t> Files::Read(const char* path) {
  uint8_t* raw = nullptr;
  size_t len = 0;
  if (int rc = vane_file_read_all(ctl_, path, &raw, &len); rc < 0) {
    throw FileError(Why("cannot read", path, rc));
  }
  const std::unique_ptr<uint8_t, decltype(&std::free)> owner(raw, &std::free);
  return {raw, raw + len};
}

std::vector<uint8_t> Files::ReadOnce(const char* path, size_t count) {
  std::vector<uint8_t> buf(count);
  int64_t pos = 0;
  const ssize_t n = vane_file_read(ctl_, path, buf.data(), buf.size(), &pos);
  if (n < 0) {
    throw FileError(Why("cannot read", path, n));
  }
  buf.resize(static_cast<size_t>(n));
  return buf;
}

void Files::Write(const char* path, const void* data, size_t len) {
  int64_t pos = 0;
  const ssize_t n = vane_file_write(ctl_, path, data, len, &pos);
  if (n < 0) {
    throw FileError(Why("cannot write", path, n));
  }
  if (static_cast<size_t>(n) != len) {
    throw FileError(fmt::format("cannot write {}: {} of {} bytes taken", path, n, len));
  }
}

}  // namespace vanectl
