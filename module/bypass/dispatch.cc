// The dispatch pipeline's entry: interface ranges, the ECM path and the
// counting of the decision.
//
// Context: the packet path, any processor, many packets at once. Nothing
// sleeps; the configuration is one consistent snapshot per packet and the
// counters are per-processor. Only a VP or CAPWAP first fragment allocates
// (its fragment-table entry), and only the fragment table takes a lock.
#include "drv_vane/dispatch.h"
#include "base/atomic.h"
#include "base/bytes.h"
#include "base/ether.h"
#include "bypass/config_internal.h"
#include "bypass/dispatch_internal.h"
#include "debug/debug_internal.h"
#include "drv_vane/config.h"
#include "drv_vane/debug.h"
#include "drv_vane/netlink.h"
#include "drv_vane/status.h"

s32 g_pktprintfcout;

namespace vane {
namespace {

constexpr u16 kEcmVpEthType = 0x06A4;  // behind one VLAN tag of an ECM/VP frame
constexpr u32 kEcmVcpuByte = 21;       // vCPU number after the inner MAC prefix
constexpr u32 kEcmMinLen = 22;         // bytes 0..21
constexpr u32 kVpTagTestAt = 30;       // tag test of the VP fragment hand-off

bool in_range(u32 v, u32 lo, u32 hi) { return lo <= v && v <= hi; }

// Lowers the dump counter by one if it is positive; true if this packet is
// one of those to dump. Exactly as many packets are dumped as were asked.
bool take_dump_credit() {
  s32 cur = load_relaxed(&g_pktprintfcout);
  while (cur > 0) {
    if (cas_acq_rel(&g_pktprintfcout, &cur, cur - 1)) return true;
  }
  return false;
}

// An ECM frame: Ethernet header first, internal destination MAC, EtherType
// 0x06A4 behind one tag, inner MAC prefix and a vCPU 1..63. Returns the
// vCPU, or 0 when the packet is not one (also when too short to tell).
u8 ecm_vcpu(ByteView pkt) {
  const u8* p = pkt.at(0, kEcmMinLen);
  if (p == nullptr || !is_internal_mac_at(pkt, 0) || load_be16(p + 16) != kEcmVpEthType ||
      !is_internal_mac_at(pkt, 18)) {
    return 0;
  }
  const u8 vcpu = p[kEcmVcpuByte];
  return vcpu >= 1 && vcpu <= BYPASS_VCPU_MAX ? vcpu : 0;
}

// Boards 37 and 242 hand VP-range packets that pass the VP EtherType test
// to the VP dispatch, which keeps fragments together.
bool is_vp_fragment_candidate(const BYPASS_PKT_OFFSET_S& cfg, u32 eth_num, ByteView pkt) {
  if (cfg.ulBoardType != BYPASS_BOARD_TYPE_VP_FRAG_A &&
      cfg.ulBoardType != BYPASS_BOARD_TYPE_VP_FRAG_B) {
    return false;
  }
  u16 tag = 0;
  if (!in_range(eth_num, cfg.ulVpEthNumMin, cfg.ulVpEthNumMax) || !pkt.be16(kVpTagTestAt, &tag)) {
    return false;
  }
  const u8 untagged = is_vlan_tpid(tag) ? 0 : 1;
  return vp_ethertype_at(pkt, 0, untagged);
}

// Step 7 of every decision: one count per listed vCPU for 1..7 vCPUs,
// counter 0 otherwise.
void count_decision(u32 count, const u8* list) {
  if (count == 0 || count > 7) {
    count_packet(0);
    return;
  }
  for (u32 i = 0; i < count; ++i) {
    if (list[i] <= BYPASS_VCPU_MAX) count_packet(list[i]);
  }
}

}  // namespace
}  // namespace vane

extern "C" void bypass_msg_getVCpuId(u8* pucBuf, u32 ulLen, u32* pulVcpuNum, u8* pucVcpuList) {
  using namespace vane;
  if (pucBuf == nullptr || pulVcpuNum == nullptr || pucVcpuList == nullptr ||
      ulLen < BYPASS_PKT_PREFIX_LEN || ulLen > BYPASS_PKT_BUF_LEN_MAX) {
    bypass_debug_out(BYPASS_DEBUG_LEVEL_ERR, "\r\n The uiParameterIsInVaild is 0.");
    return;
  }
  if (take_dump_credit()) bypass_print_pkt_data(pucBuf, ulLen);

  *pulVcpuNum = 0;
  pucVcpuList[0] = 0;
  BYPASS_PKT_OFFSET_S cfg;
  config_snapshot(&cfg);
  u32 eth_num = 0;
  ByteView(pucBuf, ulLen).ne32(8, &eth_num);
  const ByteView pkt(pucBuf + BYPASS_PKT_PREFIX_LEN, ulLen - BYPASS_PKT_PREFIX_LEN);

  if (in_range(eth_num, cfg.ulMultiCoreEthNumMin, cfg.ulMultiCoreEthNumMax)) {
    // One snapshot serves the whole decision.
    (void)multicore_path(cfg, pucBuf + BYPASS_PKT_PREFIX_LEN, pkt.size(), pulVcpuNum, pucVcpuList);
  } else if (eth_num == cfg.ulEcmEthNum ||
             in_range(eth_num, cfg.ulVpEthNumMin, cfg.ulVpEthNumMax)) {
    if (cfg.ulBoardType == BYPASS_BOARD_TYPE_NO_ECM) return;
    const u8 vcpu = ecm_vcpu(pkt);
    if (vcpu != 0) {
      // The VP dispatch counts what it decides itself.
      if (is_vp_fragment_candidate(cfg, eth_num, pkt)) {
        vp_dispatch(cfg, pucBuf + BYPASS_PKT_PREFIX_LEN, pkt.size(), 0, pulVcpuNum, pucVcpuList);
        return;
      }
      *pulVcpuNum = 1;
      pucVcpuList[0] = vcpu;
      count_packet(BYPASS_PKT_COUNT_ECM_BASE + vcpu);
      bypass_debug_out(BYPASS_DEBUG_LEVEL_PKT,
                       "\r\nBypass dispatch ecm packet to vcpuid:%d,ethNum=%d", vcpu,
                       static_cast<int>(eth_num));
      bypass_print_pkt(pucBuf, ulLen, BYPASS_PKT_PREFIX_LEN, 1);
    }
  }
  count_decision(*pulVcpuNum, pucVcpuList);
}
