// The two channel records and handler registration.
//
// Lock context: none is taken. Every field that changes while the module
// runs is one machine word, written and read atomically, so a worker that
// re-registers while packets flow is seen with either its old or its new
// port id, and a handler slot is never half-written.
#include "base/atomic.h"
#include "drv_vane/netlink.h"
#include "kport/errno.h"
#include "netlink/netlink_internal.h"

SUPP_NETLINK_KERNEL_S g_supp_netlink_kernel;
SUPP_NETLINK_KERNEL_S g_supp_fast_netlink_kernel;

namespace vane {
namespace {

bool is_handler_id(int id) { return id >= 1 && id <= NETLINK_MID_MAX; }

}  // namespace

void channel_reset() {
  __builtin_memset(&g_supp_netlink_kernel, 0, sizeof(g_supp_netlink_kernel));
  __builtin_memset(&g_supp_fast_netlink_kernel, 0, sizeof(g_supp_fast_netlink_kernel));
}

void channel_clear_handlers(SUPP_NETLINK_KERNEL_S* rec) {
  for (auto& slot : rec->apfnMsgHandler) store_release(&slot, nullptr);
}

SUPP_NETLINK_KERNEL_S* channel_by_selector(u32 selector) {
  if (selector == NETLINK_VANE_PROTO) return &g_supp_netlink_kernel;
  if (selector == NETLINK_VANE_FAST_PROTO) return &g_supp_fast_netlink_kernel;
  return nullptr;
}

u32 channel_default_pid(const SUPP_NETLINK_KERNEL_S* rec) { return load_relaxed(&rec->ulPid); }

u32 channel_vcpu_pid(const SUPP_NETLINK_KERNEL_S* rec, u32 vcpu) {
  return vcpu < NETLINK_VCPU_SLOT_NUM ? load_relaxed(&rec->aulVcpuPid[vcpu]) : 0;
}

struct sock* channel_sock(const SUPP_NETLINK_KERNEL_S* rec) {
  return load_acquire(&rec->pstSock);
}

void channel_set_sock(SUPP_NETLINK_KERNEL_S* rec, struct sock* sk) {
  store_release(&rec->pstSock, sk);
}

void channel_register(SUPP_NETLINK_KERNEL_S* rec, u32 vcpu, u32 pid) {
  if (vcpu == 0) {
    store_relaxed(&rec->ulPid, pid);
    store_relaxed(&rec->aulVcpuPid[0], pid);
  } else if (vcpu < NETLINK_VCPU_SLOT_NUM) {
    store_relaxed(&rec->aulVcpuPid[vcpu], pid);
  }
}

NETLINK_MSG_HANDLER_PF channel_handler(const SUPP_NETLINK_KERNEL_S* rec, u32 id) {
  return id < NETLINK_MSG_HANDLER_NUM ? load_acquire(&rec->apfnMsgHandler[id]) : nullptr;
}

}  // namespace vane

extern "C" int netlink_connect_bysock(int iMsgId, NETLINK_MSG_HANDLER_PF pfnHandler,
                                      SUPP_NETLINK_KERNEL_S* pstNetlink) {
  if (!vane::is_handler_id(iMsgId) || pstNetlink == nullptr) return -KPORT_EINVAL;
  // Release: whatever the registering module set up before connecting is
  // visible to the receiver that loads the slot.
  vane::store_release(&pstNetlink->apfnMsgHandler[iMsgId], pfnHandler);
  return 0;
}

extern "C" int netlink_connect(int iMsgId, NETLINK_MSG_HANDLER_PF pfnHandler) {
  return netlink_connect_bysock(iMsgId, pfnHandler, &g_supp_netlink_kernel);
}

extern "C" int netlink_disconnect(int iMsgId) {
  return netlink_connect_bysock(iMsgId, nullptr, &g_supp_netlink_kernel);
}
