/* Packet capture: the control block that user space loads through
 * /proc/bypassDebug/catchPkt, the 30-entry store it reads back, and the
 * entry points through which the switch driver's packet path marks packets
 * and reports their later events.
 *
 * The three records are raw native-order images shared with user space;
 * their layout is fixed by the static assertions below.
 *
 * Context: bypass_IsNeedCatchPkt and bypass_TS_RecvPktEvent run on the
 * caller's packet path, any processor, any context that may not sleep; they
 * take no lock and never wait. Capture numbers and store entries are claimed
 * by compare-and-swap, and an entry becomes visible to readers only once it
 * is complete (see debug/capture.cc). */
#ifndef DRV_VANE_CAPTURE_H
#define DRV_VANE_CAPTURE_H

#include "kport/compiler.h"
#include "kport/types.h"

#define BYPASS_CATCH_PKT_NUM 30
#define BYPASS_CATCH_PKT_LEN 96
#define BYPASS_CATCH_STORE_LEN (BYPASS_CATCH_PKT_NUM * BYPASS_CATCH_PKT_LEN) /* 2880 */
#define BYPASS_CATCH_DATA_LEN 64
#define BYPASS_CATCH_TIME_NUM 2
#define BYPASS_CATCH_CTRL_WRITE_LEN 100 /* mask, slot, control block */

/* Event value 1 is the capture itself; the caller picks the others. */
#define BYPASS_CATCH_EVENT_CAPTURE 1

/* The mark handed back for a captured packet. */
#define BYPASS_CATCH_MARK_ON 0x80u
#define BYPASS_CATCH_MARK_NOT 0x40u
#define BYPASS_CATCH_MARK_NUM 0x3Fu

/* Filter bits of ulVauleBmp. */
#define BYPASS_CATCH_FLT_SRCMOD (1u << 0)
#define BYPASS_CATCH_FLT_SRCPORT (1u << 1)
#define BYPASS_CATCH_FLT_LEN (1u << 4)
#define BYPASS_CATCH_FLT_UDF1 (1u << 5)
#define BYPASS_CATCH_FLT_UDF2 (1u << 6)
#define BYPASS_CATCH_FLT_SMAC (1u << 7)
#define BYPASS_CATCH_FLT_DMAC (1u << 8)
#define BYPASS_CATCH_FLT_SIP (1u << 9)
#define BYPASS_CATCH_FLT_DIP (1u << 10)
#define BYPASS_CATCH_FLT_SIP6 (1u << 11)
#define BYPASS_CATCH_FLT_DIP6 (1u << 12)
#define BYPASS_CATCH_FLT_ETHTYPE (1u << 13)

/* Board whose IPC frames carry 0x5101 at byte 16; the others carry 0x0640. */
#define BYPASS_CATCH_IPC_BOARD 0x10088u

#define BYPASS_CATCH_NO_PLACE 100u

typedef struct tagBYPASS_PKT_RECORD_CTRL {
  u8 ucCmdEvent;
  u8 ucSource;
  u16 usSlot;
  u16 usTotalCnt;
  u16 usCount;
  u16 usSrcMod;
  u16 usSrcPort;
  u16 usDstMod;
  u16 usDstPort;
  u16 usUdfOffset1;
  u16 usUdfVaule1;
  u16 usUdfOffset2;
  u16 usUdfVaule2;
  u16 usDataLength;
  u16 usEthType;
  u8 ucSrcMac[6];
  u8 ucDstMac[6];
  u32 ulSrcIp;
  u32 ulDstIp;
  u8 ip6_stSrcAddr[16];
  u8 ip6_stDstAddr[16];
  u32 ulVauleBmp;
  u32 ulCatchTime;
  u8 ucCatchIsOn;
  u8 aucReserved[2];
  u8 ucReceiveSendFlag;
} BYPASS_PKT_RECORD_CTRL_S;

typedef struct tagBYPASS_CATCH_TIME {
  u32 ulSec;
  u32 ulNsec;
  u16 usEvent;
  u8 ucReserved;
  u8 ucUsed;
} BYPASS_CATCH_TIME_S;

typedef struct tagBYPASS_CATCH_PKT {
  u8 aucData[BYPASS_CATCH_DATA_LEN];
  u16 usLen;
  u8 ucUsed;
  u8 ucNum;
  u16 usSlot;
  u16 usReserved;
  BYPASS_CATCH_TIME_S astTime[BYPASS_CATCH_TIME_NUM];
} BYPASS_CATCH_PKT_S;

KPORT_STATIC_ASSERT(sizeof(BYPASS_PKT_RECORD_CTRL_S) == 92, "control block");
KPORT_STATIC_ASSERT(KPORT_OFFSETOF(BYPASS_PKT_RECORD_CTRL_S, usTotalCnt) == 4, "usTotalCnt");
KPORT_STATIC_ASSERT(KPORT_OFFSETOF(BYPASS_PKT_RECORD_CTRL_S, usCount) == 6, "usCount");
KPORT_STATIC_ASSERT(KPORT_OFFSETOF(BYPASS_PKT_RECORD_CTRL_S, usUdfOffset1) == 16, "udf1");
KPORT_STATIC_ASSERT(KPORT_OFFSETOF(BYPASS_PKT_RECORD_CTRL_S, usDataLength) == 24, "length");
KPORT_STATIC_ASSERT(KPORT_OFFSETOF(BYPASS_PKT_RECORD_CTRL_S, usEthType) == 26, "ethtype");
KPORT_STATIC_ASSERT(KPORT_OFFSETOF(BYPASS_PKT_RECORD_CTRL_S, ucSrcMac) == 28, "ucSrcMac");
KPORT_STATIC_ASSERT(KPORT_OFFSETOF(BYPASS_PKT_RECORD_CTRL_S, ucDstMac) == 34, "ucDstMac");
KPORT_STATIC_ASSERT(KPORT_OFFSETOF(BYPASS_PKT_RECORD_CTRL_S, ulSrcIp) == 40, "ulSrcIp");
KPORT_STATIC_ASSERT(KPORT_OFFSETOF(BYPASS_PKT_RECORD_CTRL_S, ulDstIp) == 44, "ulDstIp");
KPORT_STATIC_ASSERT(KPORT_OFFSETOF(BYPASS_PKT_RECORD_CTRL_S, ip6_stSrcAddr) == 48, "sip6");
KPORT_STATIC_ASSERT(KPORT_OFFSETOF(BYPASS_PKT_RECORD_CTRL_S, ip6_stDstAddr) == 64, "dip6");
KPORT_STATIC_ASSERT(KPORT_OFFSETOF(BYPASS_PKT_RECORD_CTRL_S, ulVauleBmp) == 80, "bitmap");
KPORT_STATIC_ASSERT(KPORT_OFFSETOF(BYPASS_PKT_RECORD_CTRL_S, ulCatchTime) == 84, "time");
KPORT_STATIC_ASSERT(KPORT_OFFSETOF(BYPASS_PKT_RECORD_CTRL_S, ucCatchIsOn) == 88, "on");
KPORT_STATIC_ASSERT(KPORT_OFFSETOF(BYPASS_PKT_RECORD_CTRL_S, ucReceiveSendFlag) == 91, "flag");
KPORT_STATIC_ASSERT(sizeof(BYPASS_CATCH_TIME_S) == 12, "time stamp");
KPORT_STATIC_ASSERT(KPORT_OFFSETOF(BYPASS_CATCH_TIME_S, usEvent) == 8, "usEvent");
KPORT_STATIC_ASSERT(KPORT_OFFSETOF(BYPASS_CATCH_TIME_S, ucUsed) == 11, "ucUsed");
KPORT_STATIC_ASSERT(sizeof(BYPASS_CATCH_PKT_S) == BYPASS_CATCH_PKT_LEN, "entry");
KPORT_STATIC_ASSERT(KPORT_OFFSETOF(BYPASS_CATCH_PKT_S, usLen) == 64, "usLen");
KPORT_STATIC_ASSERT(KPORT_OFFSETOF(BYPASS_CATCH_PKT_S, ucUsed) == 66, "ucUsed");
KPORT_STATIC_ASSERT(KPORT_OFFSETOF(BYPASS_CATCH_PKT_S, ucNum) == 67, "ucNum");
KPORT_STATIC_ASSERT(KPORT_OFFSETOF(BYPASS_CATCH_PKT_S, usSlot) == 68, "usSlot");
KPORT_STATIC_ASSERT(KPORT_OFFSETOF(BYPASS_CATCH_PKT_S, astTime) == 72, "astTime");

KPORT_EXTERN_C_BEGIN

/* 2880 zero-filled bytes from start-up to shut-down: 30 BYPASS_CATCH_PKT_S. */
extern u8* g_pstCatchPktData;
/* Capture slots (bit s: slot s modulo 32 captures) and this module's slot. */
extern u32 g_ulPktAllSlotIsOn;
extern u32 g_ulCurrSlotId;
extern BYPASS_PKT_RECORD_CTRL_S g_stPktRecordCtrlInfo;

/* Marks and records pucPkt when capture is armed on this slot, a capture is
 * left in the run and every selected filter passes; the frame starts at
 * usMacOffset. 1 with *pucMark written, else 0 (also for an offset past
 * ulLen). Packet path, any context. */
u32 bypass_IsNeedCatchPkt(u8* pucPkt, u32 ulLen, u16 usEvent, u8* pucMark, u16 usMacOffset);
/* Records event ucEvent of the packet marked ucMark: event 1 takes a free
 * entry for the frame, any other event fills the next time stamp of the
 * packet's entry. Dropped silently when nothing fits. Packet path. */
void bypass_TS_RecvPktEvent(u8 ucEvent, u8* pucData, u32 ulLen, u16 usEvent, u8 ucMark, u16 usSlot);
/* Where event ucEvent of capture ucNum on usSlot would go right now: 0 with
 * the entry and time-stamp indexes, or 100. A snapshot; the recorder claims
 * the place atomically itself. Any context. */
u32 bypass_TS_GetNum(u8 ucEvent, u8 ucNum, u16 usSlot, u32* pulIndex, u32* pulTime);
/* 0 when the network-order 16 bits at usOffset equal usValue, else 1 (also
 * when they lie outside the frame). Any context. */
u32 bypass_TS_IsNeedCatchPktByUdf(u8* pucData, u32 ulLen, u16 usOffset, u16 usValue);
/* 1 for an internal IPC frame, else 0. Any context. */
u32 bypass_TS_IsIpcPkt(u8* pucData, u32 ulLen);
/* Prints the control values, the block and the 30 entries to the kernel log
 * (debug command 19). Process context. */
void bypass_catch_info(void);

KPORT_EXTERN_C_END

#endif /* DRV_VANE_CAPTURE_H */
