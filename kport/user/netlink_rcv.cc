// netlink_rcv_skb(): the walk over the messages of a received buffer and
// the NLMSG_ERROR acknowledgements it sends back.
#include <cstring>

#include "kport/user/testing.h"
#include "netlink_internal.h"

namespace kport::user {
namespace {

constexpr size_t kErrMsgLen = sizeof(int32_t) + KPORT_NLMSG_HDRLEN;

// netlink_ack() of a socket without the CAP_ACK option: an error echoes the
// whole request so the sender can tell which one failed; a success echoes
// only its header and says so with NLM_F_CAPPED.
void SendAck(const sk_buff* in, const kport_nlmsghdr* nlh, int err) {
  size_t payload = kErrMsgLen;
  int flags = 0;
  if (err != 0) {
    payload += nlh->nlmsg_len - KPORT_NLMSG_HDRLEN;
  } else {
    flags |= KPORT_NLM_F_CAPPED;
  }
  sk_buff* skb = internal::NewSkb(
      KPORT_NLMSG_ALIGN(KPORT_NLMSG_HDRLEN + static_cast<unsigned>(payload)), false);
  kport_nlmsghdr* rep = kport_nlmsg_put(skb, in->portid, nlh->nlmsg_seq, KPORT_NLMSG_ERROR,
                                        static_cast<int>(payload), flags);
  auto* body = reinterpret_cast<unsigned char*>(rep) + KPORT_NLMSG_HDRLEN;
  const int32_t error = err;
  std::memcpy(body, &error, sizeof(error));
  std::memcpy(body + sizeof(error), nlh, err != 0 ? nlh->nlmsg_len : KPORT_NLMSG_HDRLEN);
  // Never blocks: a sender that stops reading loses acknowledgements, it does
  // not stall the kernel.
  internal::Deliver(in->protocol, skb, in->portid, /*nonblock=*/true);
}

}  // namespace

std::optional<Ack> DecodeAck(const std::vector<uint8_t>& msg) {
  constexpr size_t kAckLen = KPORT_NLMSG_HDRLEN + kErrMsgLen;
  if (msg.size() < kAckLen) return std::nullopt;
  kport_nlmsghdr hdr;
  kport_nlmsghdr orig;
  int32_t error;
  std::memcpy(&hdr, msg.data(), sizeof(hdr));
  std::memcpy(&error, msg.data() + KPORT_NLMSG_HDRLEN, sizeof(error));
  std::memcpy(&orig, msg.data() + KPORT_NLMSG_HDRLEN + sizeof(error), sizeof(orig));
  if (hdr.nlmsg_type != KPORT_NLMSG_ERROR || hdr.nlmsg_len < kAckLen ||
      hdr.nlmsg_len > msg.size()) {
    return std::nullopt;
  }
  Ack ack;
  ack.flags = hdr.nlmsg_flags;
  ack.seq = hdr.nlmsg_seq;
  ack.portid = hdr.nlmsg_pid;
  ack.error = error;
  ack.orig_type = orig.nlmsg_type;
  ack.orig_len = orig.nlmsg_len;
  return ack;
}

}  // namespace kport::user

extern "C" int kport_netlink_rcv_skb(struct sk_buff* skb, kport_netlink_msg_cb_t cb) {
  while (skb->len >= KPORT_NLMSG_HDRLEN) {
    auto* nlh = reinterpret_cast<kport_nlmsghdr*>(skb->data);
    if (nlh->nlmsg_len < KPORT_NLMSG_HDRLEN || skb->len < nlh->nlmsg_len) return 0;
    int err = 0;
    // Control messages (type below NLMSG_MIN_TYPE) and anything that is not
    // a request are not the protocol's to handle.
    if ((nlh->nlmsg_flags & KPORT_NLM_F_REQUEST) != 0 && nlh->nlmsg_type >= KPORT_NLMSG_MIN_TYPE) {
      err = cb(skb, nlh);
    }
    if ((nlh->nlmsg_flags & KPORT_NLM_F_ACK) != 0 || err != 0) kport::user::SendAck(skb, nlh, err);
    unsigned int msglen = KPORT_NLMSG_ALIGN(nlh->nlmsg_len);
    if (msglen > skb->len) msglen = skb->len;
    skb->data += msglen;
    skb->len -= msglen;
  }
  return 0;
}
