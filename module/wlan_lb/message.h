// The LB message entry the control receiver calls: it knows both what the
// message carries and what its length field says, which the exported
// WLAN_LB_PacketDistribute_Proc cannot tell apart.
#ifndef VANE_WLAN_LB_MESSAGE_H
#define VANE_WLAN_LB_MESSAGE_H

#include "kport/types.h"

namespace vane {

// Applies one LB message: `msg` holds `carried` readable bytes, `len` is its
// Len field. With the 8-byte head present the message is traced, starts the
// configured state and is counted by set type whatever Len says; its body is
// applied only when Len is what the set type requires and the bytes carried
// cover it.
//
// Returns true when the message carried every byte its set type reads (a
// wrong Len reads no body, so that message is complete), false when it did
// not: fewer than 8 bytes (nothing is done at all), or a Len that passes the
// set type's test but reaches past the bytes carried (traced and counted,
// no table changed). The receiver answers false with -EINVAL.
//
// Process context; takes the WLAN writer lock.
bool wlan_lb_message(const u8* msg, u32 carried, u32 len);

}  // namespace vane

#endif  // VANE_WLAN_LB_MESSAGE_H
