// File requests against the kport vfs registry; see file_service.h.
#include "file_service.h"

#include <cerrno>
#include <cstring>
#include <string>
#include <string_view>

#include "kport/netlink.h"
#include "kport/user/host.h"
#include "vane/wire.h"

namespace vane::host {
namespace {

namespace vfs = kport::user::vfs;

constexpr size_t kReqHead = KPORT_NLMSG_HDRLEN + sizeof(vane_wire_file_req);
constexpr size_t kReplyHead = KPORT_NLMSG_HDRLEN + sizeof(vane_wire_file_reply);
constexpr uint32_t kPathMax = 255;

uint32_t SeqOf(const uint8_t* data, size_t len) {
  kport_nlmsghdr hdr{};
  if (len >= sizeof(hdr)) std::memcpy(&hdr, data, sizeof(hdr));
  return hdr.nlmsg_seq;
}

// Reply header and body at the front of `out`, which already holds room
// for the data after them.
void PutReply(std::vector<uint8_t>* out, uint32_t seq, uint32_t portid, int64_t result,
              int64_t pos) {
  const kport_nlmsghdr hdr{static_cast<uint32_t>(out->size()), VANE_WIRE_FILE_REPLY, 0, seq,
                           portid};
  const vane_wire_file_reply body{result, pos};
  std::memcpy(out->data(), &hdr, sizeof(hdr));
  std::memcpy(out->data() + sizeof(hdr), &body, sizeof(body));
}

bool StartsWith(std::string_view s, std::string_view prefix) {
  return s.substr(0, prefix.size()) == prefix;
}

// A sysfs attribute as a file: show's text read at a position; a store is
// one whole value, whatever the position.
long SysRead(std::string_view path, std::vector<uint8_t>* out, uint32_t count, int64_t* pos) {
  std::optional<std::string> text = vfs::SysfsShow(path);
  if (!text) return vfs::Exists(path) ? -EIO : -ENOENT;
  if (static_cast<uint64_t>(*pos) >= text->size()) return 0;
  const size_t n = std::min<size_t>(count, text->size() - static_cast<size_t>(*pos));
  out->insert(out->end(), text->begin() + *pos, text->begin() + *pos + static_cast<long>(n));
  *pos += static_cast<int64_t>(n);
  return static_cast<long>(n);
}

}  // namespace

bool IsFileRequest(const uint8_t* data, size_t len) {
  kport_nlmsghdr hdr{};
  if (len < sizeof(hdr)) return false;
  std::memcpy(&hdr, data, sizeof(hdr));
  return hdr.nlmsg_type == VANE_WIRE_FILE_READ || hdr.nlmsg_type == VANE_WIRE_FILE_WRITE;
}

std::vector<uint8_t> FileError(const uint8_t* data, size_t len, uint32_t portid, int error) {
  std::vector<uint8_t> out(kReplyHead);
  PutReply(&out, SeqOf(data, len), portid, error, 0);
  return out;
}

std::vector<uint8_t> ServeFile(const uint8_t* data, size_t len, uint32_t portid) {
  if (len < kReqHead) return FileError(data, len, portid, -EINVAL);
  kport_nlmsghdr hdr{};
  vane_wire_file_req req{};
  std::memcpy(&hdr, data, sizeof(hdr));
  std::memcpy(&req, data + sizeof(hdr), sizeof(req));
  if (hdr.nlmsg_len < kReqHead || hdr.nlmsg_len > len || req.path_len == 0 ||
      req.path_len > kPathMax || req.path_len > hdr.nlmsg_len - kReqHead || req.pos < 0) {
    return FileError(data, len, portid, -EINVAL);
  }
  const std::string path(reinterpret_cast<const char*>(data) + kReqHead, req.path_len);
  const uint8_t* payload = data + kReqHead + req.path_len;
  const size_t payload_len = hdr.nlmsg_len - kReqHead - req.path_len;
  const bool is_proc = StartsWith(path, "/proc/");
  const bool is_sys = StartsWith(path, "/sys/");

  int64_t pos = req.pos;
  long result = -ENOENT;
  std::vector<uint8_t> out(kReplyHead);
  if (hdr.nlmsg_type == VANE_WIRE_FILE_READ) {
    if (req.count > VANE_WIRE_FILE_CHUNK) return FileError(data, len, portid, -EINVAL);
    if (is_proc) {
      // Exactly `count` bytes, so a handler that overruns is caught.
      std::vector<uint8_t> buf(req.count);
      result = vfs::ProcRead(path, buf.data(), buf.size(), &pos);
      if (result > 0) {
        const size_t n = std::min<size_t>(static_cast<size_t>(result), buf.size());
        out.insert(out.end(), buf.begin(), buf.begin() + static_cast<long>(n));
      }
    } else if (is_sys) {
      result = SysRead(path, &out, req.count, &pos);
    }
  } else {
    if (payload_len > VANE_WIRE_FILE_CHUNK) return FileError(data, len, portid, -EINVAL);
    if (is_proc) {
      result = vfs::ProcWrite(path, payload, payload_len, &pos);
    } else if (is_sys) {
      if (!vfs::Exists(path)) {
        result = -ENOENT;
      } else {
        result = vfs::SysfsStore(
            path, std::string_view(reinterpret_cast<const char*>(payload), payload_len));
        if (result > 0) pos += result;
      }
    }
  }
  PutReply(&out, hdr.nlmsg_seq, portid, result, pos);
  return out;
}

}  // namespace vane::host
