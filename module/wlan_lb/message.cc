// The LB configuration messages (control message 10): one handler that
// counts each message by set type and applies it to the WLAN tables.
//
// Context: the control-message receiver, in the sending process's context.
// The handler holds the writer lock for the whole message, so the first
// message's reset, the table creation and the change itself reach readers as
// one step after another and never interleave with another sender's. Packet
// lookups and the views read concurrently under RCU; the single words they
// read here (board type, init flag, counters) change by relaxed stores.
//
// A message's Len field and the bytes it carries are two numbers: the set
// type's length test reads the first, every read of the body is bounded by
// the second, and bodies are copied out of the message before use, so no
// field is read past the message or through a misaligned pointer.
#include "wlan_lb/message.h"
#include "base/atomic.h"
#include "drv_vane/debug.h"
#include "drv_vane/netlink.h"
#include "kport/bndsafe.h"
#include "wlan_lb/wlan_lb_internal.h"

namespace vane {
namespace {

// What the message carries: its bytes and its Len field.
struct LbMessage {
  const u8* bytes;
  u32 carried;
  u32 len;
};

// The outcome of one set type: Len picked no body (kNoBody), the body was
// applied (kApplied), or Len asked for more than the message carries
// (kShort).
enum class Body { kNoBody, kApplied, kShort };

// Copies the body at offset 8 into `out` when Len is `want` and the message
// carries it.
template <typename T>
Body take_body(const LbMessage& m, u32 want, T* out) {
  if (m.len != want) return Body::kNoBody;
  if (m.carried < WLAN_LB_MSG_HEAD_LEN + sizeof(T)) return Body::kShort;
  if (memcpy_s(out, sizeof(T), m.bytes + WLAN_LB_MSG_HEAD_LEN, sizeof(T)) != BND_OK) {
    return Body::kShort;
  }
  return Body::kApplied;
}

void count_message(u32 set_type) KPORT_REQUIRES(g_wlan_lb_write_lock) {
  // One writer at a time (the lock), so load and store cannot lose a count;
  // the views read the word without the lock.
  u32* counter = &g_ulMessageStatistics[set_type];
  store_relaxed(counter, load_relaxed(counter) + 1u);
}

Body apply_capwap(const LbMessage& m) KPORT_REQUIRES(g_wlan_lb_write_lock) {
  WLAN_LB_CAPWAP_MSG_S body;
  const Body b = take_body(m, WLAN_LB_CAPWAP_MSG_LEN, &body);
  // A delete creates the table as well: the table exists from the first
  // well-formed message of its set type on, whatever that message asks.
  if (b == Body::kApplied && capwap_table_ensure_locked() != nullptr) {
    (void)capwap_proc_locked(&body);
  }
  return b;
}

Body apply_capwap_ka(const LbMessage& m) KPORT_REQUIRES(g_wlan_lb_write_lock) {
  WLAN_LB_CAPWAP_KA_MSG_S body;
  const Body b = take_body(m, WLAN_LB_CAPWAP_KA_MSG_LEN, &body);
  if (b == Body::kApplied && capwap_ka_table_ensure_locked() != nullptr) {
    (void)capwap_ka_proc_locked(&body);
  }
  return b;
}

Body apply_nac_list(u32 head_word, const LbMessage& m) KPORT_REQUIRES(g_wlan_lb_write_lock) {
  WLAN_LB_NAC_MSG_S body;
  const Body b = take_body(m, WLAN_LB_NAC_MSG_LEN, &body);
  if (b != Body::kApplied) return b;
  store_relaxed(&g_ulKernelLBBoardType, head_word);
  nac_load_locked(body.ids, sizeof(body.ids), body.count);
  // Every NAC list message also puts both CoA entries back to their
  // defaults, whatever was set since.
  coa_reset_locked();
  return b;
}

Body apply_portal(const LbMessage& m) KPORT_REQUIRES(g_wlan_lb_write_lock) {
  WLAN_LB_PORTAL_MSG_S body;
  const Body b = take_body(m, WLAN_LB_PORTAL_MSG_LEN, &body);
  if (b == Body::kApplied) port_entry_store(&g_stPortalPktDistribute, body.port, body.process);
  return b;
}

Body apply_socket_port(const LbMessage& m) KPORT_REQUIRES(g_wlan_lb_write_lock) {
  WLAN_LB_SOCKET_PORT_MSG_S body;
  const Body b = take_body(m, WLAN_LB_SOCKET_PORT_MSG_LEN, &body);
  if (b == Body::kApplied) (void)socket_port_proc_locked(&body);
  return b;
}

Body apply_cause_ids(u32 count, const LbMessage& m) KPORT_REQUIRES(g_wlan_lb_write_lock) {
  bypass_debug_out(BYPASS_DEBUG_LEVEL_PKT, "WLAN_LB_KERNEL_LB_SET_CAUSEIID  len %u causeidnum %u\n",
                   m.len, count);
  // In 64 bits neither side can wrap: a count near 2^32 / 12 must not
  // multiply into a small body length.
  const u64 body_len = static_cast<u64>(m.len) - WLAN_LB_MSG_HEAD_LEN;
  if (m.len < WLAN_LB_MSG_HEAD_LEN || body_len != static_cast<u64>(count) * 12u) {
    return Body::kNoBody;
  }
  if (m.carried < m.len) return Body::kShort;
  // The entries are u32 triples at offset 8 of a 4-byte aligned payload.
  causeid_set_locked(
      reinterpret_cast<const WLAN_LB_CAUSEID_NODE_S*>(m.bytes + WLAN_LB_MSG_HEAD_LEN), count);
  return Body::kApplied;
}

Body apply(const WLAN_LB_MSG_HEAD_S& head, const LbMessage& m)
    KPORT_REQUIRES(g_wlan_lb_write_lock) {
  switch (head.SetType) {
    case WLAN_LB_KERNEL_LB_SET_CAPWAP:
      return apply_capwap(m);
    case WLAN_LB_KERNEL_LB_SET_CAPWAP_KA:
      return apply_capwap_ka(m);
    case WLAN_LB_KERNEL_LB_SET_NAC_NODELIST:
      return apply_nac_list(head.ulHeadWord, m);
    case WLAN_LB_KERNEL_LB_SET_PORTAL_NODE:
      return apply_portal(m);
    case WLAN_LB_KERNEL_LB_SET_SOCKET_PORT:
      return apply_socket_port(m);
    case WLAN_LB_KERNEL_LB_SET_BOARD_TYPE:
      // Any Len: the head word is all this set type reads.
      store_relaxed(&g_ulKernelLBBoardType, head.ulHeadWord);
      return Body::kApplied;
    case WLAN_LB_KERNEL_LB_SET_CAUSEIID:
      return apply_cause_ids(head.ulHeadWord, m);
    default:
      return Body::kNoBody;
  }
}

}  // namespace

// Process context (the control receiver); takes the writer lock for the whole
// message.
bool wlan_lb_message(const u8* msg, u32 carried, u32 len) {
  WLAN_LB_MSG_HEAD_S head;
  // Without its head a message has no set type: nothing to trace or count.
  if (msg == nullptr || carried < WLAN_LB_MSG_HEAD_LEN ||
      memcpy_s(&head, sizeof(head), msg, sizeof(head)) != BND_OK) {
    return false;
  }

  WlanWriteGuard guard;
  const u64 inited = load_relaxed(&g_ulIsLBInited);
  bypass_debug_out(BYPASS_DEBUG_LEVEL_PKT, "\r\nWLAN LB message(SetType=%u Len=%u InitFlag=%u).",
                   head.SetType, len, static_cast<u32>(inited));
  if (inited == 0) {
    // Whatever the socket-port lists held before user space first spoke is
    // not its configuration; the first message of any kind starts afresh.
    socket_ports_clear_locked();
    store_relaxed(&g_ulIsLBInited, 1u);
  }
  if (head.SetType >= WLAN_LB_SET_TYPE_NUM) return true;

  // Counted before the length test: a malformed message shows up too.
  count_message(head.SetType);
  return apply(head, LbMessage{msg, carried, len}) != Body::kShort;
}

}  // namespace vane

// Any context that may take the writer lock (process context). A direct
// caller hands a buffer it owns: ulLen is both the Len field and the bytes
// that may be read. Returns WLAN_LB_OK whatever happened; the outcome shows
// only in the counters and the debug text.
extern "C" u32 WLAN_LB_PacketDistribute_Proc(u32 ulMsgId, const void* pMsg, u32 ulLen) {
  if (pMsg == nullptr || ulMsgId != NETLINK_MID_WLAN_LB) return WLAN_LB_OK;
  (void)vane::wlan_lb_message(static_cast<const u8*>(pMsg), ulLen, ulLen);
  return WLAN_LB_OK;
}
