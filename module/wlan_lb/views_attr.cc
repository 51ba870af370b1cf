// The text views of the sysfs attribute "wlan_lb": the NAC list, the
// socket-port table, the message statistics and the cause-ID table, one at a
// time as the last number written selects.
//
// Context: the reading or writing process. show walks the lists and the
// cause-ID table inside an RCU read-side section while the control path may
// change them: it sees each entry whole and keeps no pointer past the
// section. Its text never leaves the page: every piece goes through a bounded
// write, and whatever does not fit in 4095 characters is cut.
#include "base/atomic.h"
#include "container/hash_lb.h"
#include "kport/bndsafe.h"
#include "kport/cxx/guard.h"
#include "kport/lib.h"
#include "wlan_lb/views_internal.h"
#include "wlan_lb/wlan_lb_internal.h"

extern "C" {
constinit s64 g_ulShowType = 0;
}

namespace vane {
namespace {

constexpr s64 kShowNac = 1;
constexpr s64 kShowSocketPorts = 2;
constexpr s64 kShowStatistics = 3;
constexpr s64 kShowCauseIds = 4;

// The page as a bounded text: at most kLimit characters and a terminator.
class PageText {
 public:
  static constexpr size_t kLimit = KPORT_PAGE_SIZE - 1;

  explicit PageText(char* page) : page_(page) { page_[0] = '\0'; }

  char* end() { return page_ + len_; }
  // Room for the next piece, its terminator included (at least 1).
  size_t room() const { return kLimit + 1 - len_; }
  bool full() const { return len_ == kLimit; }
  // Takes the result of snprintf_s at end(): the piece's length, or -1 when
  // it was cut to fill the page.
  void took(int written) { len_ += written >= 0 ? static_cast<size_t>(written) : room() - 1; }
  ssize_t length() const { return static_cast<ssize_t>(len_); }

 private:
  char* page_;
  size_t len_ = 0;
};

// A bounded write of one piece; the format stays a literal so that the
// compiler checks it against its arguments.
#define VIEW_APPEND(text, ...) \
  (text).took(snprintf_s((text).end(), (text).room(), (text).room() - 1, __VA_ARGS__))

void show_nac(PageText& text) {
  kport::RcuReadGuard rcu;
  const WLAN_LB_NAC_NODE_TBL_S* nac = nac_list();
  if (nac->count == 0) return;
  VIEW_APPEND(text, "\r\nNAC process list :");
  // The count is stored as sent and may exceed the 16 slots.
  const u32 n = nac->count < WLAN_LB_NAC_MAX ? nac->count : WLAN_LB_NAC_MAX;
  for (u32 i = 0; i < n; ++i) VIEW_APPEND(text, "%u ", nac->ids[i]);
}

void port_line(PageText& text, u32 port, bool source, const char* proto, const char* target) {
  VIEW_APPEND(text, "\r\n%6u(%s)                      %3s                                 %s", port,
              source ? "S" : "D", proto, target);
}

void port_line(PageText& text, u32 port, bool source, const char* proto, u32 process) {
  VIEW_APPEND(text, "\r\n%6u(%s)                      %3s                                 %u", port,
              source ? "S" : "D", proto, process);
}

void show_socket_list(PageText& text, const WLAN_LB_LIST_S* head, const char* proto) {
  // Entries are published whole and never change afterwards (a new setting
  // is a new entry), so their fields need no atomic loads.
  for (const WLAN_LB_LIST_S* link = load_acquire(&head->next);
       link != nullptr && link != head && !text.full(); link = load_acquire(&link->next)) {
    const auto* entry = reinterpret_cast<const WLAN_LB_SOCKET_PORT_NODE_S*>(link);
    const bool source = entry->SrcPortFlag == 1;
    if (entry->process == WLAN_LB_PROCESS_NAC) {
      port_line(text, entry->port, source, proto, "NAC");
    } else if (source) {
      port_line(text, entry->port, source, proto, "RANGE");
    } else {
      port_line(text, entry->port, source, proto, entry->process);
    }
  }
}

void show_socket_ports(PageText& text) {
  kport::RcuReadGuard rcu;
  show_socket_list(text, &g_stSocketUdpPortDistribute, "UDP");
  show_socket_list(text, &g_stSocketTcpPortDistribute, "TCP");
  for (const WLAN_LB_PORT_DISTRIBUTE_S& coa : g_stRadiusCOADistribute) {
    const PortEntry e = port_entry_load(&coa);
    if (e.port != 0) port_line(text, e.port, false, "UDP", "NAC");
  }
  const PortEntry portal = port_entry_load(&g_stPortalPktDistribute);
  if (portal.port != 0) port_line(text, portal.port, false, "UDP", portal.process);
}

void show_statistics(PageText& text) {
  u32 c[WLAN_LB_SET_TYPE_NUM];
  for (u32 i = 0; i < WLAN_LB_SET_TYPE_NUM; ++i) c[i] = load_relaxed(&g_ulMessageStatistics[i]);
  VIEW_APPEND(text,
              "\r\nWLAN LB KERNEL LB SET CAPWAP      :%u "
              "\r\nWLAN LB KERNEL LB SET CAPWAP KA   :%u "
              "\r\nWLAN LB KERNEL LB SET NAC NODELIST:%u "
              "\r\nWLAN LB KERNEL LB SET PORTAL NODE :%u "
              "\r\nWLAN LB KERNEL LB SET SOCKET PORT :%u "
              "\r\nWLAN LB KERNEL LB SET BOARD TYPE  :%u "
              "\r\nWLAN LB KERNEL LB SET CAUSEIID    :%u "
              "\r\nWLAN LB BOARD TYPE                :%u \r\n",
              c[0], c[1], c[2], c[3], c[4], c[5], c[6], load_relaxed(&g_ulKernelLBBoardType));
}

void show_cause_ids(PageText& text) {
  kport::RcuReadGuard rcu;
  const HASH_TABLE_S* table = load_acquire(&g_WLAN_LB_CAUSEID_HASH_Table);
  if (table == nullptr) return;
  // Cause-ID records are never changed once published (the first setting
  // of a cause ID wins).
  lb_for_each(table, [&text](const void* data) {
    const auto* rec = static_cast<const WLAN_LB_CAUSEID_NODE_S*>(data);
    VIEW_APPEND(text, "%-4u %-4u %-4u;", rec->causeid, rec->lbtype, rec->pkttype);
  });
}

#undef VIEW_APPEND

}  // namespace
}  // namespace vane

extern "C" ssize_t wlan_lb_attr_show(struct device* dev, struct kport_device_attr* attr,
                                     char* page) {
  using namespace vane;
  (void)dev;
  (void)attr;
  if (page == nullptr) return 0;
  PageText text(page);
  switch (load_relaxed(&g_ulShowType)) {
    case kShowNac:
      show_nac(text);
      break;
    case kShowSocketPorts:
      show_socket_ports(text);
      break;
    case kShowStatistics:
      show_statistics(text);
      break;
    case kShowCauseIds:
      show_cause_ids(text);
      break;
    default:
      break;
  }
  return text.length();
}

extern "C" ssize_t wlan_lb_attr_store(struct device* dev, struct kport_device_attr* attr,
                                      const char* buf, size_t count) {
  using namespace vane;
  (void)dev;
  (void)attr;
  // The written text carries no terminator of its own; a number needs no
  // more than the digits that fit here, and parsing stops at the first
  // character that is not one.
  char digits[64] = {};
  const size_t n = count < sizeof(digits) - 1 ? count : sizeof(digits) - 1;
  if (buf != nullptr && n > 0 && memcpy_s(digits, sizeof(digits) - 1, buf, n) != BND_OK) {
    digits[0] = '\0';
  }
  const long value = kport_simple_strtol(digits, nullptr, 0);
  if (static_cast<u32>(value) == 0) {
    // Under the writer lock so that no message's count is lost halfway
    // through its increment.
    WlanWriteGuard guard;
    for (u32& c : g_ulMessageStatistics) store_relaxed(&c, 0u);
  } else {
    store_relaxed(&g_ulShowType, static_cast<s64>(static_cast<s32>(value)));
  }
  return static_cast<ssize_t>(count);
}
