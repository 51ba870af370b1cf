// The IPv4 and IPv6 fragment tables and the packet-path operations on them.
//
// Context: the packet path calls these on any processor, in process or
// softirq context, concurrently with each other, the ageing sweep and the
// dump readers. Every lock is a table's stLock, taken with bottom halves off
// (kport); no function holds two locks or logs under one.
//
// A stored record is only ever read or written under its table's lock: the
// middle and last fragments look it up and read (and, for the middle one,
// refresh) it within one write-locked section, because a sweep running
// between an unlocked lookup and the read could have freed it.
#include "base/atomic.h"
#include "drv_vane/debug.h"
#include "drv_vane/frag.h"
#include "frag/frag_internal.h"
#include "kport/bndsafe.h"
#include "kport/cxx/guard.h"
#include "kport/timer.h"

constinit HASH_TABLE_S* g_bypass_ipV4FragHash = nullptr;
constinit HASH_TABLE_S* g_bypass_ipV6FragHash = nullptr;
constinit u8 g_bypassTimeInitedV4 = 0;
constinit u8 g_bypassTimeInitedV6 = 0;

namespace vane {
namespace {

constexpr u16 kEtherTypeIpv4 = 0x0800;

void key_from_packet(const BYPASS_PKT_INFO_S* pkt, BYPASS_IPV4_FRAG_INFO_S* key) {
  memset_s(key, sizeof(*key), 0, sizeof(*key));
  key->ulSrcIp = pkt->ulSrcIp;
  key->ulDstIp = pkt->ulDstIp;
  key->usId = static_cast<u16>(pkt->ulId);
}

// Arms the IPv4 ageing timer once, however many first fragments race here.
void arm_v4_ageing(HASH_TABLE_S* table) {
  u8 expected = 0;
  if (!cas_acq_rel(&g_bypassTimeInitedV4, &expected, 1)) return;
  kport_timer_setup(&table->stTimer, bypass_ipv4frag_timer_callback);
  kport_timer_add(&table->stTimer,
                  kport_jiffies() + static_cast<unsigned long>(table->lTimerPeriod));
}

void stop_ageing(HASH_TABLE_S* table, u8* inited) {
  // The sweep re-arms itself; del_sync waits for a running one and then
  // cancels what it re-armed, so no sweep can touch the table once it
  // returns.
  if (table != nullptr && load_acquire(inited) != 0) kport_timer_del_sync(&table->stTimer);
  store_release(inited, 0);
}

}  // namespace
}  // namespace vane

extern "C" u32 bypass_ipfrag_initHash(void) {
  vane::frag_dump_init();
  g_bypass_ipV4FragHash = HASH_CreateNew(sizeof(BYPASS_IPV4_FRAG_INFO_S), BYPASS_FRAG_V4_BUCKETS,
                                         bypass_ipv4frag_hashkey, bypass_ipv4frag_hashmatch);
  if (g_bypass_ipV4FragHash == nullptr) {
    vane::frag_dump_release();
    return BYPASS_FRAG_ERR_INIT;
  }
  g_bypass_ipV6FragHash = HASH_CreateNew(sizeof(BYPASS_IPV6_FRAG_INFO_S), BYPASS_FRAG_V6_BUCKETS,
                                         bypass_ipv6frag_hashkey, bypass_ipv6frag_hashmatch);
  if (g_bypass_ipV6FragHash == nullptr) {
    // A failed start-up leaves nothing behind.
    HASH_Destroy(g_bypass_ipV4FragHash);
    g_bypass_ipV4FragHash = nullptr;
    vane::frag_dump_release();
    return BYPASS_FRAG_ERR_INIT;
  }
  return BYPASS_FRAG_OK;
}

extern "C" void bypass_ipfrag_exitHash(void) {
  using namespace vane;
  stop_ageing(g_bypass_ipV4FragHash, &g_bypassTimeInitedV4);
  stop_ageing(g_bypass_ipV6FragHash, &g_bypassTimeInitedV6);
  HASH_Destroy(g_bypass_ipV6FragHash);
  HASH_Destroy(g_bypass_ipV4FragHash);
  g_bypass_ipV6FragHash = nullptr;
  g_bypass_ipV4FragHash = nullptr;
  frag_dump_release();
}

extern "C" void* bypass_ipfrag_findInHash(void* pKey, HASH_TABLE_S* pstTable) {
  return HASH_FindElemFromFirstList(pstTable, pKey);
}

extern "C" u32 bypass_ipfrag_addInHashPub(void* pExist, HASH_TABLE_S* pstTable, void* pNew,
                                          u32 ulSize) {
  if (pExist != nullptr) return BYPASS_FRAG_OK;
  if (pstTable == nullptr || pNew == nullptr || ulSize != pstTable->usElemSize) {
    return BYPASS_FRAG_ERR;
  }
  u64 count;
  {
    kport::ReadGuard guard(&pstTable->stLock);
    count = pstTable->ulElemCnt;
  }
  if (count >= BYPASS_FRAG_MAX_RECORDS) {
    bypass_debug_out(BYPASS_DEBUG_LEVEL_ERR, "\r\nThe hashCout is over(cnt=%u).",
                     static_cast<u32>(count));
    return BYPASS_FRAG_FULL;
  }
  void* rec = HASH_NewData(pstTable);
  if (rec == nullptr) {
    bypass_debug_out(BYPASS_DEBUG_LEVEL_ERR, "\r\nMalloc hash fail.");
    return HASH_ERR_NOMEM;
  }
  memcpy_s(rec, pstTable->usElemSize, pNew, pstTable->usElemSize);
  // Two first fragments of one datagram may race past the lookup above; the
  // second check, in the same locked section as the insertion, keeps one
  // entry per datagram and the table within its limit.
  u32 ret;
  bool duplicate = false;
  {
    kport::WriteGuard guard(&pstTable->stLock);
    count = pstTable->ulElemCnt;
    if (HASH_FindElemFromFirstList_LB_New(pstTable, rec) != nullptr) {
      duplicate = true;
      ret = BYPASS_FRAG_OK;
    } else if (count >= BYPASS_FRAG_MAX_RECORDS) {
      ret = BYPASS_FRAG_FULL;
    } else {
      ret = HASH_AddNode_LB_New(pstTable, rec, rec);
    }
  }
  if (ret != BYPASS_FRAG_OK || duplicate) HASH_FreeData(pstTable, rec);
  if (ret == BYPASS_FRAG_FULL) {
    bypass_debug_out(BYPASS_DEBUG_LEVEL_ERR, "\r\nThe hashCout is over(cnt=%u).",
                     static_cast<u32>(count));
  }
  return ret;
}

extern "C" u32 bypass_ipfrag_addInHash(BYPASS_PKT_INFO_S* pstPktInfo) {
  using namespace vane;
  if (pstPktInfo == nullptr) return BYPASS_FRAG_ERR;
  if (pstPktInfo->usProtocolType != kEtherTypeIpv4) return BYPASS_FRAG_ERR;
  HASH_TABLE_S* table = g_bypass_ipV4FragHash;
  if (table == nullptr) return BYPASS_FRAG_ERR;
  BYPASS_IPV4_FRAG_INFO_S rec;
  key_from_packet(pstPktInfo, &rec);
  void* exist = HASH_FindElemFromFirstList(table, &rec);  // compared with nullptr only
  rec.ucAge = 0;
  rec.ucVcpuId = pstPktInfo->ucVcpuId;
  u32 ret = bypass_ipfrag_addInHashPub(exist, table, &rec, sizeof(rec));
  arm_v4_ageing(table);
  if (ret != BYPASS_FRAG_OK) {
    bypass_debug_out(BYPASS_DEBUG_LEVEL_ERR, "\r\nAdd ip fail(usProtocolType=0x%04x).",
                     pstPktInfo->usProtocolType);
  }
  return ret;
}

extern "C" u32 bypass_ipfrag_findVcpuInHash(BYPASS_PKT_INFO_S* pstPktInfo, u8* pucVcpuId) {
  using namespace vane;
  if (pstPktInfo == nullptr || pucVcpuId == nullptr) return BYPASS_FRAG_ERR;
  if (pstPktInfo->usProtocolType != kEtherTypeIpv4) return BYPASS_FRAG_ERR;
  HASH_TABLE_S* table = g_bypass_ipV4FragHash;
  if (table == nullptr) return BYPASS_FRAG_ERR;
  BYPASS_IPV4_FRAG_INFO_S key;
  key_from_packet(pstPktInfo, &key);
  kport::WriteGuard guard(&table->stLock);
  auto* rec = static_cast<BYPASS_IPV4_FRAG_INFO_S*>(HASH_FindElemFromFirstList_LB_New(table, &key));
  if (rec == nullptr) return BYPASS_FRAG_ERR;
  *pucVcpuId = rec->ucVcpuId;
  rec->ucAge = 0;
  return BYPASS_FRAG_OK;
}

extern "C" u32 bypass_ipfrag_delInHash(BYPASS_PKT_INFO_S* pstPktInfo, u16 usProtocolType,
                                       u8* pucVcpuId) {
  using namespace vane;
  if (pstPktInfo == nullptr || pucVcpuId == nullptr) return BYPASS_FRAG_ERR;
  if (usProtocolType != kEtherTypeIpv4) return BYPASS_FRAG_ERR_PROTO;
  HASH_TABLE_S* table = g_bypass_ipV4FragHash;
  if (table == nullptr) return BYPASS_FRAG_ERR;
  BYPASS_IPV4_FRAG_INFO_S key;
  key_from_packet(pstPktInfo, &key);
  u32 ret;
  {
    kport::WriteGuard guard(&table->stLock);
    auto* rec =
        static_cast<BYPASS_IPV4_FRAG_INFO_S*>(HASH_FindElemFromFirstList_LB_New(table, &key));
    if (rec == nullptr) {
      ret = BYPASS_FRAG_NO_ENTRY;
    } else {
      *pucVcpuId = rec->ucVcpuId;
      ret = HASH_RemoveElmtByKey_LB_New(table, &key);
    }
  }
  if (ret == BYPASS_FRAG_NO_ENTRY) {
    bypass_debug_out(BYPASS_DEBUG_LEVEL_ERR, "\r\ndel ipv4 fail in hash.");
  }
  return ret;
}
