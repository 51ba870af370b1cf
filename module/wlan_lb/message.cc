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
// The receiver has already checked that ulLen bytes are present and that
// they cover the 8-byte head; bodies are copied out of the message before
// use, so no field is read past ulLen or through a misaligned pointer.
#include "base/atomic.h"
#include "drv_vane/debug.h"
#include "drv_vane/netlink.h"
#include "kport/bndsafe.h"
#include "wlan_lb/wlan_lb_internal.h"

namespace vane {
namespace {

// Copies the body at offset 8 into `out`; the caller has matched ulLen to
// the body's size first.
template <typename T>
bool copy_body(const u8* msg, u32 len, T* out) {
  if (len < WLAN_LB_MSG_HEAD_LEN + sizeof(T)) return false;
  return memcpy_s(out, sizeof(T), msg + WLAN_LB_MSG_HEAD_LEN, sizeof(T)) == BND_OK;
}

void count_message(u32 set_type) KPORT_REQUIRES(g_wlan_lb_write_lock) {
  // One writer at a time (the lock), so load and store cannot lose a count;
  // the views read the word without the lock.
  u32* counter = &g_ulMessageStatistics[set_type];
  store_relaxed(counter, load_relaxed(counter) + 1u);
}

void apply_capwap(const u8* msg, u32 len) KPORT_REQUIRES(g_wlan_lb_write_lock) {
  WLAN_LB_CAPWAP_MSG_S body;
  if (len != WLAN_LB_CAPWAP_MSG_LEN || !copy_body(msg, len, &body)) return;
  // A delete creates the table as well: the table exists from the first
  // well-formed message of its set type on, whatever that message asks.
  if (capwap_table_ensure_locked() == nullptr) return;
  (void)capwap_proc_locked(&body);
}

void apply_capwap_ka(const u8* msg, u32 len) KPORT_REQUIRES(g_wlan_lb_write_lock) {
  WLAN_LB_CAPWAP_KA_MSG_S body;
  if (len != WLAN_LB_CAPWAP_KA_MSG_LEN || !copy_body(msg, len, &body)) return;
  if (capwap_ka_table_ensure_locked() == nullptr) return;
  (void)capwap_ka_proc_locked(&body);
}

void apply_nac_list(u32 head_word, const u8* msg, u32 len) KPORT_REQUIRES(g_wlan_lb_write_lock) {
  WLAN_LB_NAC_MSG_S body;
  if (len != WLAN_LB_NAC_MSG_LEN || !copy_body(msg, len, &body)) return;
  store_relaxed(&g_ulKernelLBBoardType, head_word);
  nac_load_locked(body.ids, sizeof(body.ids), body.count);
  // Every NAC list message also puts both CoA entries back to their
  // defaults, whatever was set since.
  coa_reset_locked();
}

void apply_portal(const u8* msg, u32 len) KPORT_REQUIRES(g_wlan_lb_write_lock) {
  WLAN_LB_PORTAL_MSG_S body;
  if (len != WLAN_LB_PORTAL_MSG_LEN || !copy_body(msg, len, &body)) return;
  port_entry_store(&g_stPortalPktDistribute, body.port, body.process);
}

void apply_socket_port(const u8* msg, u32 len) KPORT_REQUIRES(g_wlan_lb_write_lock) {
  WLAN_LB_SOCKET_PORT_MSG_S body;
  if (len != WLAN_LB_SOCKET_PORT_MSG_LEN || !copy_body(msg, len, &body)) return;
  (void)socket_port_proc_locked(&body);
}

void apply_cause_ids(u32 count, const u8* msg, u32 len) KPORT_REQUIRES(g_wlan_lb_write_lock) {
  bypass_debug_out(BYPASS_DEBUG_LEVEL_PKT, "WLAN_LB_KERNEL_LB_SET_CAUSEIID  len %u causeidnum %u\n",
                   len, count);
  // In 64 bits neither side can wrap: a count near 2^32 / 12 must not
  // multiply into a small body length.
  const u64 body_len = static_cast<u64>(len) - WLAN_LB_MSG_HEAD_LEN;
  if (len < WLAN_LB_MSG_HEAD_LEN || body_len != static_cast<u64>(count) * 12u) return;
  // The entries are u32 triples at offset 8 of a 4-byte aligned payload.
  causeid_set_locked(reinterpret_cast<const WLAN_LB_CAUSEID_NODE_S*>(msg + WLAN_LB_MSG_HEAD_LEN),
                     count);
}

}  // namespace
}  // namespace vane

// Process context (the control receiver); takes the writer lock for the whole
// message. Returns WLAN_LB_OK whatever happened: nothing goes back to the
// sender, the outcome shows only in the counters and the debug text.
extern "C" u32 WLAN_LB_PacketDistribute_Proc(u32 ulMsgId, const void* pMsg, u32 ulLen) {
  using namespace vane;
  // Without its head a message has no set type; the receiver refuses such a
  // message already, and a direct caller gets the same silent drop.
  if (pMsg == nullptr || ulMsgId != NETLINK_MID_WLAN_LB || ulLen < WLAN_LB_MSG_HEAD_LEN) {
    return WLAN_LB_OK;
  }
  const u8* msg = static_cast<const u8*>(pMsg);
  WLAN_LB_MSG_HEAD_S head;
  if (memcpy_s(&head, sizeof(head), msg, sizeof(head)) != BND_OK) return WLAN_LB_OK;

  WlanWriteGuard guard;
  const u64 inited = load_relaxed(&g_ulIsLBInited);
  bypass_debug_out(BYPASS_DEBUG_LEVEL_PKT, "\r\nWLAN LB message(SetType=%u Len=%u InitFlag=%u).",
                   head.SetType, ulLen, static_cast<u32>(inited));
  if (inited == 0) {
    // Whatever the socket-port lists held before user space first spoke is
    // not its configuration; the first message of any kind starts afresh.
    socket_ports_clear_locked();
    store_relaxed(&g_ulIsLBInited, 1u);
  }
  if (head.SetType >= WLAN_LB_SET_TYPE_NUM) return WLAN_LB_OK;

  // Counted before the length test: a malformed message shows up too.
  count_message(head.SetType);
  switch (head.SetType) {
    case WLAN_LB_KERNEL_LB_SET_CAPWAP:
      apply_capwap(msg, ulLen);
      break;
    case WLAN_LB_KERNEL_LB_SET_CAPWAP_KA:
      apply_capwap_ka(msg, ulLen);
      break;
    case WLAN_LB_KERNEL_LB_SET_NAC_NODELIST:
      apply_nac_list(head.ulHeadWord, msg, ulLen);
      break;
    case WLAN_LB_KERNEL_LB_SET_PORTAL_NODE:
      apply_portal(msg, ulLen);
      break;
    case WLAN_LB_KERNEL_LB_SET_SOCKET_PORT:
      apply_socket_port(msg, ulLen);
      break;
    case WLAN_LB_KERNEL_LB_SET_BOARD_TYPE:
      store_relaxed(&g_ulKernelLBBoardType, head.ulHeadWord);
      break;
    case WLAN_LB_KERNEL_LB_SET_CAUSEIID:
      apply_cause_ids(head.ulHeadWord, msg, ulLen);
      break;
    default:
      break;
  }
  return WLAN_LB_OK;
}
