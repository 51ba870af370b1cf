// The UDP and TCP socket-port lists: which destination ports a vCPU serves,
// and which source ports have their traffic spread by destination port.
//
// The lists are circular with a head each and are walked by readers along
// the forward links only. An entry never changes once published: a new
// process for an existing identity is a new entry, linked in at the front
// before the old one is unlinked, so a reader sees the old entry or the new
// one and never neither. An insert publishes with a release store of the
// forward link once the entry is complete; an unlink changes one forward
// link with a release store and leaves the entry's own, so a reader standing
// on it walks on; the entry is freed after a grace period.
//
// Context:
//  - WLAN_LB_SetSocketPortDistributeTbl, WLAN_LB_DeleteSocketPortDistributeTbl,
//    WLAN_LB_ProcSocketPortDistributeTbl: process context; take
//    g_wlan_lb_write_lock.
//  - socket_port_proc_locked, socket_ports_clear_locked: under the lock.
//  - WLAN_LB_FindSocketPortDistributeTblNodeByPort: under the lock or inside
//    the caller's RCU read-side section (the entry stays valid only there).
//  - WLAN_LB_GetDstSocketPortNodeID, WLAN_LB_CheckIsSrcSocketPortNeedDistribute:
//    packet path, any context; open their own RCU read-side section and
//    allocate nothing.
#include "base/atomic.h"
#include "drv_vane/debug.h"
#include "drv_vane/wlan_lb.h"
#include "kport/cxx/guard.h"
#include "kport/mem.h"
#include "kport/rcu.h"
#include "wlan_lb/aaa_tables.h"
#include "wlan_lb/wlan_lb_internal.h"

extern "C" {
constinit WLAN_LB_LIST_S g_stSocketUdpPortDistribute = {&g_stSocketUdpPortDistribute,
                                                        &g_stSocketUdpPortDistribute};
constinit WLAN_LB_LIST_S g_stSocketTcpPortDistribute = {&g_stSocketTcpPortDistribute,
                                                        &g_stSocketTcpPortDistribute};
}

namespace vane {
namespace {

// The link is the entry's first member.
static_assert(__builtin_offsetof(WLAN_LB_SOCKET_PORT_NODE_S, stLink) == 0);

WLAN_LB_LIST_S* list_of(u8 tcp_flag) {
  return tcp_flag == 0 ? &g_stSocketUdpPortDistribute : &g_stSocketTcpPortDistribute;
}

WLAN_LB_SOCKET_PORT_NODE_S* entry_of(WLAN_LB_LIST_S* link) {
  return reinterpret_cast<WLAN_LB_SOCKET_PORT_NODE_S*>(link);
}

void free_entry(kport_rcu_head_t* head) {
  kport_kfree(reinterpret_cast<char*>(head) -
              __builtin_offsetof(WLAN_LB_SOCKET_PORT_NODE_S, stRcu));
}

WLAN_LB_SOCKET_PORT_NODE_S* find(WLAN_LB_LIST_S* head, u16 port, u8 src_port_flag, u32 is_ipv6) {
  for (WLAN_LB_LIST_S* link = load_acquire(&head->next); link != head;
       link = load_acquire(&link->next)) {
    WLAN_LB_SOCKET_PORT_NODE_S* e = entry_of(link);
    if (e->port == port && e->SrcPortFlag == src_port_flag && e->isIpv6 == is_ipv6) return e;
  }
  return nullptr;
}

// The prev links are the writers' alone; readers never follow them.
void unlink_locked(WLAN_LB_SOCKET_PORT_NODE_S* e) KPORT_REQUIRES(g_wlan_lb_write_lock) {
  WLAN_LB_LIST_S* prev = e->stLink.prev;
  WLAN_LB_LIST_S* next = e->stLink.next;
  store_release(&prev->next, next);
  next->prev = prev;
  kport_call_rcu(&e->stRcu, free_entry);
}

void insert_front_locked(WLAN_LB_LIST_S* head, WLAN_LB_SOCKET_PORT_NODE_S* e)
    KPORT_REQUIRES(g_wlan_lb_write_lock) {
  WLAN_LB_LIST_S* first = head->next;
  e->stLink.next = first;
  e->stLink.prev = head;
  first->prev = &e->stLink;
  store_release(&head->next, &e->stLink);
}

u32 set_locked(u16 port, u8 tcp_flag, u32 process, u8 src_port_flag, u32 is_ipv6)
    KPORT_REQUIRES(g_wlan_lb_write_lock) {
  auto* e = static_cast<WLAN_LB_SOCKET_PORT_NODE_S*>(
      kport_kzalloc_atomic(sizeof(WLAN_LB_SOCKET_PORT_NODE_S)));
  if (e == nullptr) return WLAN_LB_ERR;
  e->port = port;
  e->SrcPortFlag = src_port_flag;
  e->process = process;
  e->isIpv6 = is_ipv6;
  WLAN_LB_LIST_S* head = list_of(tcp_flag);
  WLAN_LB_SOCKET_PORT_NODE_S* old = find(head, port, src_port_flag, is_ipv6);
  insert_front_locked(head, e);
  if (old != nullptr) unlink_locked(old);
  return WLAN_LB_OK;
}

u32 delete_locked(u16 port, u8 tcp_flag, u8 src_port_flag, u32 is_ipv6)
    KPORT_REQUIRES(g_wlan_lb_write_lock) {
  WLAN_LB_SOCKET_PORT_NODE_S* e = find(list_of(tcp_flag), port, src_port_flag, is_ipv6);
  if (e != nullptr) unlink_locked(e);
  return WLAN_LB_OK;
}

// Empties a list for readers at once (one store); the entries go after a
// grace period, or at once when no reader can be left.
void clear_list(WLAN_LB_LIST_S* head, bool deferred) {
  WLAN_LB_LIST_S* link = head->next;
  store_release(&head->next, head);
  head->prev = head;
  while (link != head) {
    WLAN_LB_LIST_S* next = link->next;
    WLAN_LB_SOCKET_PORT_NODE_S* e = entry_of(link);
    if (deferred) {
      kport_call_rcu(&e->stRcu, free_entry);
    } else {
      kport_kfree(e);
    }
    link = next;
  }
}

bool either_family_exists(u16 port, u8 tcp_flag, u8 src_port_flag) {
  WLAN_LB_LIST_S* head = list_of(tcp_flag);
  return find(head, port, src_port_flag, 0) != nullptr ||
         find(head, port, src_port_flag, 1) != nullptr;
}

}  // namespace

void socket_ports_clear_locked() {
  clear_list(&g_stSocketUdpPortDistribute, true);
  clear_list(&g_stSocketTcpPortDistribute, true);
}

u32 socket_port_proc_locked(const WLAN_LB_SOCKET_PORT_MSG_S* msg) {
  if (msg == nullptr) return WLAN_LB_ERR;
  // The body sits in the message at whatever alignment it has.
  WLAN_LB_SOCKET_PORT_MSG_S m;
  __builtin_memcpy(&m, msg, sizeof(m));
  if (m.op == WLAN_LB_OP_DELETE) {
    (void)delete_locked(m.port, m.TcpFlag, m.SrcPortFlag, m.isIpv6);
  } else {
    (void)set_locked(m.port, m.TcpFlag, m.process, m.SrcPortFlag, m.isIpv6);
  }
  bypass_debug_out(BYPASS_DEBUG_LEVEL_PKT,
                   "\r\nProc socket port distribute table.(op %u port %u TcpFlag %u process %u "
                   "SrcPortFlag %u, isIpv6 %u).",
                   static_cast<u32>(m.op), static_cast<u32>(m.port), static_cast<u32>(m.TcpFlag),
                   m.process, static_cast<u32>(m.SrcPortFlag), m.isIpv6);
  return WLAN_LB_OK;
}

void socket_ports_init() {
  g_stSocketUdpPortDistribute = {&g_stSocketUdpPortDistribute, &g_stSocketUdpPortDistribute};
  g_stSocketTcpPortDistribute = {&g_stSocketTcpPortDistribute, &g_stSocketTcpPortDistribute};
}

void socket_ports_free() {
  clear_list(&g_stSocketUdpPortDistribute, false);
  clear_list(&g_stSocketTcpPortDistribute, false);
}

}  // namespace vane

extern "C" WLAN_LB_SOCKET_PORT_NODE_S* WLAN_LB_FindSocketPortDistributeTblNodeByPort(
    u16 usPort, u8 ucTcpFlag, u8 ucSrcPortFlag, u32 ulIsIpv6) {
  return vane::find(vane::list_of(ucTcpFlag), usPort, ucSrcPortFlag, ulIsIpv6);
}

extern "C" u32 WLAN_LB_SetSocketPortDistributeTbl(u16 usPort, u8 ucTcpFlag, u32 ulProcess,
                                                  u8 ucSrcPortFlag, u32 ulIsIpv6) {
  vane::WlanWriteGuard guard;
  return vane::set_locked(usPort, ucTcpFlag, ulProcess, ucSrcPortFlag, ulIsIpv6);
}

extern "C" u32 WLAN_LB_DeleteSocketPortDistributeTbl(u16 usPort, u8 ucTcpFlag, u8 ucSrcPortFlag,
                                                     u32 ulIsIpv6) {
  vane::WlanWriteGuard guard;
  return vane::delete_locked(usPort, ucTcpFlag, ucSrcPortFlag, ulIsIpv6);
}

extern "C" u32 WLAN_LB_ProcSocketPortDistributeTbl(const WLAN_LB_SOCKET_PORT_MSG_S* pstMsg) {
  vane::WlanWriteGuard guard;
  return vane::socket_port_proc_locked(pstMsg);
}

// IPv4 entries are found before IPv6 ones of the same port: a lookup does not
// know the packet's family and takes whichever is there. A null output is
// left alone; the result is 0 all the same.
extern "C" u32 WLAN_LB_GetDstSocketPortNodeID(u16 usPort, u8 ucTcpFlag, u64* pullProcess) {
  kport::RcuReadGuard rcu;
  WLAN_LB_LIST_S* head = vane::list_of(ucTcpFlag);
  const WLAN_LB_SOCKET_PORT_NODE_S* e = vane::find(head, usPort, 0, 0);
  if (e == nullptr) e = vane::find(head, usPort, 0, 1);
  if (pullProcess != nullptr) *pullProcess = e != nullptr ? e->process : 0;
  return WLAN_LB_OK;
}

extern "C" u32 WLAN_LB_CheckIsSrcSocketPortNeedDistribute(u16 usPort, u8 ucTcpFlag) {
  kport::RcuReadGuard rcu;
  return vane::either_family_exists(usPort, ucTcpFlag, 1) ? 1u : 0u;
}
