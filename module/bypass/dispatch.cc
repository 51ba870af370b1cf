// The dispatch pipeline's entry: interface ranges, the ECM path and the
// counting of the decision.
//
// Context: the packet path, any processor, many packets at once. Nothing is
// allocated, nothing sleeps, no lock is taken: the configuration is one
// consistent snapshot per packet and counters are atomic.
#include "drv_vane/dispatch.h"
#include "base/atomic.h"
#include "base/bytes.h"
#include "base/ether.h"
#include "bypass/config_internal.h"
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
constexpr u32 kEncapVlanId = 4094;
constexpr u16 kEncapEthType = 0x0724;

bool in_range(u32 v, u32 lo, u32 hi) { return lo <= v && v <= hi; }

// Destination MAC 0A:0B:0B or 0A:0B:0C: the board's internal ECM/VP frames.
bool is_internal_mac(const u8* mac) {
  return mac[0] == 0x0A && mac[1] == 0x0B && (mac[2] == 0x0B || mac[2] == 0x0C);
}

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
  if (p == nullptr || !is_internal_mac(p) || load_be16(p + 16) != kEcmVpEthType ||
      !is_internal_mac(p + 18)) {
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
  return netlink_check_if_data_vp(const_cast<u8*>(pkt.data()), untagged) == 0;
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

// The multi-core path on the packet (prefix stripped), under the caller's
// snapshot of the configuration.
u32 multicore_path(const BYPASS_PKT_OFFSET_S& cfg, ByteView pkt, u32* count, u8* list) {
  *count = 0;
  list[0] = 0;
  u32 mac_offset = cfg.ulMacOffset;
  u16 tci = 0;
  u16 inner_type = 0;
  if (cfg.ulIsNoHgHdr == 1 && cfg.ulIsEcmVpOnly == 1 && pkt.be16(14, &tci) &&
      pkt.be16(16, &inner_type) && (tci & 0x0FFF) == kEncapVlanId && inner_type == kEncapEthType) {
    mac_offset = cfg.ulInnerMacOffset;
  }
  if (mac_offset > pkt.size()) return BYPASS_ERR_PARA;
  // The deciders of the multi-core path (internal frames, steering tables,
  // TIMNG and WLAN load balancing) arrive with their tables; until then the
  // path chooses no vCPU and the packet goes to the default receiver.
  return BYPASS_OK;
}

}  // namespace
}  // namespace vane

extern "C" u32 bypass_proc_msg_multicore(u8* pucPkt, u32 ulLen, u32* pulVcpuNum, u8* pucVcpuList) {
  if (pucPkt == nullptr || pulVcpuNum == nullptr || pucVcpuList == nullptr) {
    return BYPASS_ERR_PARA;
  }
  BYPASS_PKT_OFFSET_S cfg;
  vane::config_snapshot(&cfg);
  return vane::multicore_path(cfg, vane::ByteView(pucPkt, ulLen), pulVcpuNum, pucVcpuList);
}

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
    (void)multicore_path(cfg, pkt, pulVcpuNum, pucVcpuList);
  } else if (eth_num == cfg.ulEcmEthNum ||
             in_range(eth_num, cfg.ulVpEthNumMin, cfg.ulVpEthNumMax)) {
    if (cfg.ulBoardType == BYPASS_BOARD_TYPE_NO_ECM) return;
    const u8 vcpu = ecm_vcpu(pkt);
    if (vcpu != 0) {
      // The VP dispatch that takes these packets arrives with the fragment
      // tables; until then they get no vCPU and, like every packet handed to
      // it, are not counted here.
      if (is_vp_fragment_candidate(cfg, eth_num, pkt)) return;
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
