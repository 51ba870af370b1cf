/* The dispatch configuration record: 22 native-order u32 slots written whole
 * by control message 5. The record is a wire format (the message payload). */
#ifndef DRV_VANE_CONFIG_H
#define DRV_VANE_CONFIG_H

#include "kport/compiler.h"
#include "kport/types.h"

#define BYPASS_BOARD_TYPE_NO_ECM 65672u /* 0x10088 */
#define BYPASS_BOARD_TYPE_VP_FRAG_A 37u
#define BYPASS_BOARD_TYPE_VP_FRAG_B 242u

typedef struct tagBYPASS_PKT_OFFSET {
  u32 ulHgHdrOffset;         /* 0: HiGig2 header in the packet */
  u32 ulMacOffset;           /* 1: Ethernet header in the packet ("offtoMac") */
  u32 ulReserved2;           /* 2 */
  u32 ulReserved3;           /* 3 */
  u32 ulIpcEthType;          /* 4 */
  u32 ulVpEthType;           /* 5 */
  u32 ulEcmVcpuEthType;      /* 6 */
  u32 ulMultiCoreEthNumMin;  /* 7 */
  u32 ulEcmEthNum;           /* 8 */
  u32 ulVpEthNumMin;         /* 9 */
  u32 ulIsSupportMulticore;  /* 10: nonzero = vCPU dispatch on */
  u32 ulBoardType;           /* 11 */
  u32 ulVpFragInnerOffset;   /* 12 */
  u32 ulReserved13;          /* 13 */
  u32 ulCauseIdOffset;       /* 14 */
  u32 ulMultiCoreEthNumMax;  /* 15 */
  u32 ulFirstFragFlagOffset; /* 16 */
  u32 ulVpInnerOffset;       /* 17 */
  u32 ulVpEthNumMax;         /* 18 */
  u32 ulIsEcmVpOnly;         /* 19: only 1 counts */
  u32 ulIsNoHgHdr;           /* 20: only 1 counts */
  u32 ulInnerMacOffset;      /* 21 */
} BYPASS_PKT_OFFSET_S;

#define BYPASS_PKT_OFFSET_SLOTS 22
KPORT_STATIC_ASSERT(sizeof(BYPASS_PKT_OFFSET_S) == 88, "configuration record is 88 bytes");
KPORT_STATIC_ASSERT(KPORT_OFFSETOF(BYPASS_PKT_OFFSET_S, ulIsSupportMulticore) == 40, "slot 10");
KPORT_STATIC_ASSERT(KPORT_OFFSETOF(BYPASS_PKT_OFFSET_S, ulBoardType) == 44, "slot 11");
KPORT_STATIC_ASSERT(KPORT_OFFSETOF(BYPASS_PKT_OFFSET_S, ulCauseIdOffset) == 56, "slot 14");
KPORT_STATIC_ASSERT(KPORT_OFFSETOF(BYPASS_PKT_OFFSET_S, ulInnerMacOffset) == 84, "slot 21");

KPORT_EXTERN_C_BEGIN

/* The record. Written only by bypass_set_pktOffsetAndDebugFlag, which
 * publishes all 22 slots at once to the module's own readers; another module
 * reading it directly gets each slot whole. */
extern BYPASS_PKT_OFFSET_S bypass_pkt_offset;

/* Id 5: copies 88 bytes of pucPayload over the record (ulLen is not
 * consulted: the receiver has checked the message's real size). Id 6: runs
 * debug command pucPayload[0]. Other ids, or no payload: nothing. */
void bypass_set_pktOffsetAndDebugFlag(u32 ulMsgId, u8* pucPayload, u32 ulLen);
u32 bypass_isSupportMulticore(void);
u32 bypass_get_boardType(void);

KPORT_EXTERN_C_END

#endif /* DRV_VANE_CONFIG_H */
