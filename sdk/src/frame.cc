// The one builder of control messages: netlink header, message id, payload
// length field, payload, zero padding to the netlink alignment.
#include "frame.h"

#include "vane/vane.h"

namespace vane {

void StoreHeader(uint8_t* p, const NlHeader& h) {
  Store(p, h.len);
  Store(p + 4, h.type);
  Store(p + 6, h.flags);
  Store(p + 8, h.seq);
  Store(p + 12, h.pid);
}

}  // namespace vane

extern "C" size_t vane_build_control(uint8_t* out, size_t cap, uint32_t msg_id, const void* payload,
                                     uint32_t len, uint32_t seq, int want_ack) {
  using namespace vane;  // NOLINT(google-build-using-namespace)
  if (out == nullptr || (payload == nullptr && len != 0)) return 0;
  const size_t total = kCtlHdrLen + size_t{len};
  // nlmsg_len is 32 bits; the padded frame must fit the caller's buffer.
  if (total > UINT32_MAX - 3 || NlAlign(total) > cap) return 0;
  const auto flags = static_cast<uint16_t>(kFlagRequest | (want_ack ? kFlagAck : 0));
  StoreHeader(out, NlHeader{static_cast<uint32_t>(total), kVaneMsgType, flags, seq, 0});
  Store(out + 16, msg_id);
  Store(out + 20, len);
  if (len != 0) std::memcpy(out + kCtlHdrLen, payload, len);
  std::memset(out + total, 0, NlAlign(total) - total);
  return NlAlign(total);
}
