// Netlink framing shared by both transports: the header layout, the walk
// over the messages of one received datagram, and the acknowledgement
// record. Pure functions over bytes; no I/O, no allocation.
#ifndef VANE_SDK_SRC_FRAME_H
#define VANE_SDK_SRC_FRAME_H

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>

namespace vane {

inline constexpr size_t kNlHdrLen = 16;
inline constexpr uint16_t kNlMsgError = 2;
inline constexpr uint16_t kNlMsgOverrun = 4;
inline constexpr uint16_t kVaneMsgType = 18;  // every control and packet message
inline constexpr uint16_t kFlagRequest = 0x1;
inline constexpr uint16_t kFlagAck = 0x4;
inline constexpr size_t kCtlHdrLen = 24;  // netlink header, message id, payload length

constexpr size_t NlAlign(size_t n) { return (n + 3u) & ~size_t{3}; }

// Unaligned native-order reads and writes: datagrams arrive in buffers of
// any alignment and the messages inside sit at 4-byte steps at best.
template <typename T>
inline T Load(const uint8_t* p) {
  T v;
  std::memcpy(&v, p, sizeof v);
  return v;
}
template <typename T>
inline void Store(uint8_t* p, T v) {
  std::memcpy(p, &v, sizeof v);
}

struct NlHeader {
  uint32_t len;
  uint16_t type;
  uint16_t flags;
  uint32_t seq;
  uint32_t pid;
};

inline NlHeader LoadHeader(const uint8_t* p) {
  return {Load<uint32_t>(p), Load<uint16_t>(p + 4), Load<uint16_t>(p + 6), Load<uint32_t>(p + 8),
          Load<uint32_t>(p + 12)};
}

void StoreHeader(uint8_t* p, const NlHeader& h);

// One message of a datagram: its header and the bytes after the header,
// bounded by nlmsg_len.
struct NlMessage {
  NlHeader hdr;
  std::span<const uint8_t> body;
};

// Calls fn(const NlMessage&) for each well-formed message of the datagram.
// Returns false when some of it was not well formed: a datagram shorter than
// a header, a length field below the header size or past the datagram's end
// (the walk stops there: what follows cannot be framed), or trailing bytes
// after the last message.
template <typename Fn>
bool WalkDatagram(std::span<const uint8_t> dgram, Fn&& fn) {
  size_t off = 0;
  const size_t n = dgram.size();
  while (n - off >= kNlHdrLen) {
    NlHeader h = LoadHeader(dgram.data() + off);
    if (h.len < kNlHdrLen || h.len > n - off) return false;
    fn(NlMessage{h, dgram.subspan(off + kNlHdrLen, h.len - kNlHdrLen)});
    off += NlAlign(h.len);
    if (off >= n) return true;
  }
  return false;  // empty, or bytes left that cannot hold a header
}

// The error of an NLMSG_ERROR message (0 for a plain acknowledgement), or
// nothing when the message is too short to carry one.
inline bool AckError(const NlMessage& m, int* err) {
  if (m.hdr.type != kNlMsgError || m.body.size() < sizeof(int32_t)) return false;
  *err = Load<int32_t>(m.body.data());
  return true;
}

}  // namespace vane

#endif  // VANE_SDK_SRC_FRAME_H
