// The diagnostic files. Over netlink they are the real proc and sysfs files,
// read and written with the caller's position; over the daemon's socket each
// call is one request and one reply, at most a chunk at a time.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "ctl.h"

namespace vane {
namespace {

constexpr size_t kReqLen = kNlHdrLen + sizeof(vane_wire_file_req);
constexpr size_t kReplyLen = sizeof(vane_wire_file_reply);
constexpr size_t kPathMax = 255;
// A file that never ends (or a daemon that says so) must not take all memory.
constexpr size_t kReadAllMax = size_t{1} << 30;

ssize_t LocalIo(const char* path, void* rbuf, const void* wbuf, size_t count, int64_t* pos) {
  const int fd = open(path, (wbuf != nullptr ? O_WRONLY : O_RDONLY) | O_CLOEXEC);
  if (fd < 0) return -errno;
  const off_t at = pos != nullptr ? *pos : 0;
  const ssize_t n = wbuf != nullptr ? pwrite(fd, wbuf, count, at) : pread(fd, rbuf, count, at);
  const int err = errno;
  close(fd);
  if (n < 0) return -err;
  if (pos != nullptr) *pos += n;
  return n;
}

// One request to the daemon. For a read, data is where the reply's bytes go
// (up to count); for a write, the bytes to send.
ssize_t RemoteIo(vane_ctl* c, uint16_t type, const char* path, uint8_t* rdata, const void* wdata,
                 size_t count, int64_t* pos) {
  const size_t path_len = strlen(path);
  if (path_len == 0 || path_len > kPathMax) return -EINVAL;
  // A write's request carries its data, and the whole must fit a datagram.
  const size_t room =
      wdata != nullptr ? VANE_WIRE_DGRAM_MAX - kReqLen - path_len : size_t{VANE_WIRE_FILE_CHUNK};
  count = std::min({count, size_t{VANE_WIRE_FILE_CHUNK}, room});
  const uint32_t seq = NextSeq(c);
  const size_t len = kReqLen + path_len + (wdata != nullptr ? count : 0);
  uint8_t* p = c->tx.data();
  StoreHeader(p, NlHeader{static_cast<uint32_t>(len), type, kFlagRequest, seq, 0});
  const vane_wire_file_req req{pos != nullptr ? *pos : 0, static_cast<uint32_t>(count),
                               static_cast<uint32_t>(path_len)};
  std::memcpy(p + kNlHdrLen, &req, sizeof req);
  std::copy_n(path, path_len, p + kReqLen);  // the wire path has no terminator
  if (wdata != nullptr && count != 0) std::memcpy(p + kReqLen + path_len, wdata, count);

  int64_t new_pos = 0;
  const int rc = CtlExchange(c, VANE_CHANNEL_NORMAL, len, seq, [&](const NlMessage& m) -> int {
    int err = 0;
    if (AckError(m, &err)) return err != 0 ? err : -EPROTO;  // refused before it was served
    if (m.hdr.type != VANE_WIRE_FILE_REPLY || m.body.size() < kReplyLen) return -EPROTO;
    vane_wire_file_reply r;
    std::memcpy(&r, m.body.data(), sizeof r);
    if (r.result < 0) return r.result < -4095 ? -EPROTO : static_cast<int>(r.result);
    // A reply may not claim more than was asked, nor more than it carries.
    if (static_cast<uint64_t>(r.result) > count) return -EPROTO;
    if (rdata != nullptr) {
      if (m.body.size() - kReplyLen < static_cast<uint64_t>(r.result)) return -EPROTO;
      std::memcpy(rdata, m.body.data() + kReplyLen, static_cast<size_t>(r.result));
    }
    new_pos = r.pos;
    return static_cast<int>(r.result);
  });
  if (rc >= 0 && pos != nullptr) *pos = new_pos;
  return rc;
}

bool CtlUsable(const vane_ctl* c) { return c != nullptr && c->transport != VANE_TRANSPORT_DRY_RUN; }

}  // namespace
}  // namespace vane

extern "C" ssize_t vane_file_read(vane_ctl* c, const char* path, void* buf, size_t count,
                                  int64_t* pos) {
  using namespace vane;  // NOLINT(google-build-using-namespace)
  if (!CtlUsable(c) || path == nullptr || (buf == nullptr && count != 0)) return -EINVAL;
  if (c->transport == VANE_TRANSPORT_NETLINK) return LocalIo(path, buf, nullptr, count, pos);
  return RemoteIo(c, VANE_WIRE_FILE_READ, path, static_cast<uint8_t*>(buf), nullptr, count, pos);
}

extern "C" ssize_t vane_file_write(vane_ctl* c, const char* path, const void* buf, size_t count,
                                   int64_t* pos) {
  using namespace vane;  // NOLINT(google-build-using-namespace)
  if (!CtlUsable(c) || path == nullptr || (buf == nullptr && count != 0)) return -EINVAL;
  static const uint8_t kNothing = 0;
  const void* data = buf != nullptr ? buf : &kNothing;  // a null data pointer means "read"
  if (c->transport == VANE_TRANSPORT_NETLINK) return LocalIo(path, nullptr, data, count, pos);
  return RemoteIo(c, VANE_WIRE_FILE_WRITE, path, nullptr, data, count, pos);
}

extern "C" int vane_file_read_all(vane_ctl* c, const char* path, uint8_t** out, size_t* len) {
  if (out == nullptr || len == nullptr) return -EINVAL;
  *out = nullptr;
  *len = 0;
  size_t cap = VANE_WIRE_FILE_CHUNK;
  auto* buf = static_cast<uint8_t*>(malloc(cap));
  if (buf == nullptr) return -ENOMEM;
  size_t have = 0;
  int64_t pos = 0;
  for (;;) {
    if (cap - have < VANE_WIRE_FILE_CHUNK) {
      if (cap >= vane::kReadAllMax) {
        free(buf);
        return -EFBIG;
      }
      auto* bigger = static_cast<uint8_t*>(realloc(buf, cap * 2));
      if (bigger == nullptr) {
        free(buf);
        return -ENOMEM;
      }
      buf = bigger;
      cap *= 2;
    }
    const ssize_t n = vane_file_read(c, path, buf + have, cap - have, &pos);
    if (n < 0) {
      free(buf);
      return static_cast<int>(n);
    }
    if (n == 0) break;
    have += static_cast<size_t>(n);
  }
  *out = buf;
  *len = have;
  return 0;
}
