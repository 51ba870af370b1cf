/* Diagnostics: the debug text buffer, the debug command switch and the
 * packet printers. */
#ifndef DRV_VANE_DEBUG_H
#define DRV_VANE_DEBUG_H

#include "kport/compiler.h"
#include "kport/types.h"

#define BYPASS_DEBUG_LEVEL_ERR 1u /* errors and configuration events */
#define BYPASS_DEBUG_LEVEL_PKT 4u /* per-packet trace */

#define BYPASS_DEBUG_BUF_ALLOC 0x8080u /* 32,896 bytes allocated */
#define BYPASS_DEBUG_BUF_TEXT 0x8000u  /* 32,768 bytes of text at most */
#define BYPASS_DEBUG_FULL_MARK 0x7E0Cu /* past 32,268 only the full line goes */
/* Longest text one call appends; longer texts are cut to this. */
#define BYPASS_DEBUG_MSG_MAX 511u

#define BYPASS_DEBUG_CMD_NUM 20

KPORT_EXTERN_C_BEGIN

extern u32 g_ulDebugLevel; /* enabled level bits; 0 = off */
extern char* g_pstDebug;   /* the text buffer, NULL outside start-up..shut-down */
extern u64 g_ulDebugLen;   /* bytes of text in it */

/* Appends formatted text when ulLevel shares a bit with g_ulDebugLevel.
 * Concurrent callers get disjoint ranges. A text that does not fit in the
 * room left, or is longer than BYPASS_DEBUG_MSG_MAX, is cut short. Once the
 * text is past BYPASS_DEBUG_FULL_MARK, the next enabled call writes the
 * "Buff is full" line instead and turns output off. Any context. */
void bypass_debug_out(u64 ulLevel, const char* pcFormat, ...) KPORT_PRINTF(2, 3);

/* Debug command settings. */
extern u64 g_ulLBType;
extern u64 g_ulVcpuId;
extern u64 g_ulSwitchDebug;
extern u8 g_ucPktTyep;
extern u64 g_ulMulPid;
extern u64 g_ulSendPid;

/* Runs debug command ucCmd (1..20; others do nothing). */
void bypass_debug(u8 ucCmd);
void bypass_debug_pktoffset(void);
void bypass_debug_pidInfo(void);

/* Packet printers of the dispatch trace (debug buffer, level 4) and the
 * packet dump (kernel log). They never read at or beyond ulLen. */
void bypass_print_pkt(u8* pucPkt, u32 ulLen, u32 ulOffset, u32 ulSkipHgHdr);
void bypass_print_All(u8* pucData, u32 ulLen);
void bypass_print_pkt_data(u8* pucData, u32 ulLen);

KPORT_EXTERN_C_END

#endif /* DRV_VANE_DEBUG_H */
