// Channel-record services shared by the receiver, delivery and start-up.
#ifndef VANE_NETLINK_NETLINK_INTERNAL_H
#define VANE_NETLINK_NETLINK_INTERNAL_H

#include "drv_vane/netlink.h"

namespace vane {

// Load-time state of both records (start-up, before any socket exists).
void channel_reset();
// Empties every handler slot of a record.
void channel_clear_handlers(SUPP_NETLINK_KERNEL_S* rec);
// The record of a channel selector (26 or 27), or nullptr.
SUPP_NETLINK_KERNEL_S* channel_by_selector(u32 selector);

// Port ids and handlers are single words that writers replace while packets
// and messages read them: each access is one atomic load or store.
u32 channel_default_pid(const SUPP_NETLINK_KERNEL_S* rec);
u32 channel_vcpu_pid(const SUPP_NETLINK_KERNEL_S* rec, u32 vcpu);
struct sock* channel_sock(const SUPP_NETLINK_KERNEL_S* rec);
void channel_set_sock(SUPP_NETLINK_KERNEL_S* rec, struct sock* sk);
// Records `pid` for vCPU index 0 (default receiver and slot 0) or 1..63.
void channel_register(SUPP_NETLINK_KERNEL_S* rec, u32 vcpu, u32 pid);
NETLINK_MSG_HANDLER_PF channel_handler(const SUPP_NETLINK_KERNEL_S* rec, u32 id);

}  // namespace vane

#endif  // VANE_NETLINK_NETLINK_INTERNAL_H
