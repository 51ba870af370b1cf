// Socket buffers: allocation, tail room, appending netlink messages.
#include <cstdlib>
#include <cstring>

#include "internal.h"
#include "netlink_internal.h"

namespace kport::user::internal {

sk_buff* NewSkb(unsigned int size, bool injectable) {
  if (injectable && ShouldFail(fault::Site::kAlloc)) return nullptr;
  auto* head = static_cast<unsigned char*>(std::malloc(size));
  if (head == nullptr && size != 0) return nullptr;
  auto* skb = new sk_buff;
  skb->head = head;
  skb->data = head;
  skb->size = size;
  CountAlloc();
  return skb;
}

}  // namespace kport::user::internal

extern "C" {

struct sk_buff* kport_alloc_skb(unsigned int size) {
  return kport::user::internal::NewSkb(size, true);
}

void kport_kfree_skb(struct sk_buff* skb) {
  if (skb == nullptr) return;
  std::free(skb->head);
  delete skb;
  kport::user::internal::CountFree();
}

unsigned int kport_skb_tailroom(const struct sk_buff* skb) {
  return skb->size - static_cast<unsigned int>(skb->data - skb->head) - skb->len;
}

struct kport_nlmsghdr* kport_nlmsg_put(struct sk_buff* skb, u32 portid, u32 seq, int type,
                                       int payload, int flags) {
  if (payload < 0) kport::user::internal::Fatal("nlmsg_put: negative payload %d", payload);
  const unsigned int len = KPORT_NLMSG_HDRLEN + static_cast<unsigned int>(payload);
  const unsigned int room = KPORT_NLMSG_ALIGN(len);
  // skb_put() past the end is a kernel panic (skb_over_panic).
  if (room > kport_skb_tailroom(skb)) {
    kport::user::internal::Fatal("nlmsg_put: %u bytes do not fit in tail room %u", room,
                                 kport_skb_tailroom(skb));
  }
  auto* nlh = reinterpret_cast<kport_nlmsghdr*>(skb->data + skb->len);
  skb->len += room;
  nlh->nlmsg_len = len;
  nlh->nlmsg_type = static_cast<u16>(type);
  nlh->nlmsg_flags = static_cast<u16>(flags);
  nlh->nlmsg_seq = seq;
  nlh->nlmsg_pid = portid;
  std::memset(reinterpret_cast<unsigned char*>(nlh) + len, 0, room - len);
  return nlh;
}

u32 kport_netlink_creds_pid(const struct sk_buff* skb) { return skb->creds_pid; }

void kport_netlink_set_creds_pid(struct sk_buff* skb, u32 pid) { skb->creds_pid = pid; }

}  // extern "C"
