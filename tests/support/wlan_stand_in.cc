#include "support/wlan_stand_in.h"

#include "wlan_lb/wlan_lb_internal.h"

namespace vane::test {
namespace {

WlanStandIn* g_s = nullptr;

void Looked() {
  ++g_s->lookups;
  if (g_s->on_lookup) g_s->on_lookup(g_s->lookups);
}

uint32_t IsNeed(uint16_t cause, uint32_t* type, u64* pkt_type) {
  if (cause != g_s->cause_id) {
    *type = WLAN_LB_TYPE_NONE;
    *pkt_type = WLAN_LB_PKT_TYPE_NONE;
    return WLAN_LB_ERR;
  }
  *type = g_s->lb_type;
  *pkt_type = g_s->pkt_type;
  return WLAN_LB_OK;
}
uint32_t Capwap(const WLAN_LB_FIVE_TUPLE_S* k, u64* v) {
  Looked();
  g_s->five = *k;
  *v = g_s->vcpu;
  return g_s->ret;
}
uint32_t CapwapKa(const WLAN_LB_SESSION_KEY_S* k, u64* v) {
  Looked();
  g_s->session = *k;
  *v = g_s->vcpu;
  return g_s->ret;
}
uint32_t AaaMac(const WLAN_LB_ACCESS_INFO_S* k, u64* v) {
  Looked();
  g_s->access = *k;
  *v = g_s->vcpu;
  return g_s->ret;
}
uint32_t AaaPort(const WLAN_LB_PORT_INFO_S* k, uint32_t* n, uint8_t* ids) {
  Looked();
  g_s->port = *k;
  *n = static_cast<uint32_t>(g_s->port_vcpus.size());
  for (size_t i = 0; i < g_s->port_vcpus.size(); ++i) ids[i] = g_s->port_vcpus[i];
  return g_s->ret;
}

constexpr WlanLbTestHooks kHooks{IsNeed, Capwap, CapwapKa, AaaMac, AaaPort};

}  // namespace

ScopedWlanStandIn::ScopedWlanStandIn(WlanStandIn* s) {
  g_s = s;
  wlan_lb_set_test_hooks(&kHooks);
}

ScopedWlanStandIn::~ScopedWlanStandIn() {
  wlan_lb_set_test_hooks(nullptr);
  g_s = nullptr;
}

}  // namespace vane::test
