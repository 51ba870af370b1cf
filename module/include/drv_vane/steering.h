/* Cause-ID steering tables: the ivo and the deteption table, each pinning a
 * list of up to 20 cause IDs and one inclusive range to one vCPU, and their
 * hit statistics.
 *
 * Concurrency: a table update (control message 11, process context) is
 * serialised against other updates by a spin lock and published under a
 * sequence count, so a lookup on the packet path (any context, lock-free)
 * sees either the old or the new table, never a mixture. Hit counters are
 * per-processor and summed into g_stIvoDebugInfo when the ivo proc file is
 * read; the packet path writes no shared cache line. */
#ifndef DRV_VANE_STEERING_H
#define DRV_VANE_STEERING_H

#include "kport/compiler.h"
#include "kport/procfs.h"
#include "kport/types.h"

#define BYPASS_LB_CAUSEID_MAX 20u
#define BYPASS_LB_TABLE_IVO 0u
#define BYPASS_LB_TABLE_DETEPTION 1u

/* Lookup results of bypass_msg_get_ivo_vcpuid. */
#define BYPASS_IVO_HIT 0u
#define BYPASS_IVO_MISS 1u
#define BYPASS_IVO_BAD_ARG 100u

/* One table; also the payload of control message 11 and the two copies in
 * the statistics record. External format: native byte order. */
typedef struct tagBYPASS_LB_TABLE {
  u32 ulEnable;    /* non-zero: the table takes part in lookups */
  u32 ulTableType; /* message 11 only: 0 ivo, 1 deteption */
  u32 ulVcpuId;    /* low 8 bits used */
  u32 ulCauseIdNum;
  u16 ausCauseId[BYPASS_LB_CAUSEID_MAX];
  u16 usCauseIdMin; /* 0: range off */
  u16 usCauseIdMax;
} BYPASS_LB_TABLE_S;

KPORT_STATIC_ASSERT(sizeof(BYPASS_LB_TABLE_S) == 60, "BYPASS_LB_TABLE_S is 60 bytes");
KPORT_STATIC_ASSERT(KPORT_OFFSETOF(BYPASS_LB_TABLE_S, ulCauseIdNum) == 12, "ulCauseIdNum");
KPORT_STATIC_ASSERT(KPORT_OFFSETOF(BYPASS_LB_TABLE_S, ausCauseId) == 16, "ausCauseId");
KPORT_STATIC_ASSERT(KPORT_OFFSETOF(BYPASS_LB_TABLE_S, usCauseIdMin) == 56, "usCauseIdMin");
KPORT_STATIC_ASSERT(KPORT_OFFSETOF(BYPASS_LB_TABLE_S, usCauseIdMax) == 58, "usCauseIdMax");

/* The image returned by /proc/bypassDebug/ivo. */
typedef struct tagBYPASS_IVO_DEBUG_INFO {
  BYPASS_LB_TABLE_S stIvoTable;
  BYPASS_LB_TABLE_S stDeteptionTable;
  u32 ulIvoHitCnt;
  u32 ulDeteptionHitCnt;
  u32 aulIvoCauseIdHitCnt[BYPASS_LB_CAUSEID_MAX];
  u32 aulDeteptionCauseIdHitCnt[BYPASS_LB_CAUSEID_MAX];
  u32 ulIvoRangeHitCnt;
  u32 ulDeteptionRangeHitCnt;
} BYPASS_IVO_DEBUG_INFO_S;

KPORT_STATIC_ASSERT(sizeof(BYPASS_IVO_DEBUG_INFO_S) == 296, "ivo statistics are 296 bytes");
KPORT_STATIC_ASSERT(KPORT_OFFSETOF(BYPASS_IVO_DEBUG_INFO_S, stDeteptionTable) == 60, "deteption");
KPORT_STATIC_ASSERT(KPORT_OFFSETOF(BYPASS_IVO_DEBUG_INFO_S, ulIvoHitCnt) == 120, "ulIvoHitCnt");
KPORT_STATIC_ASSERT(KPORT_OFFSETOF(BYPASS_IVO_DEBUG_INFO_S, aulIvoCauseIdHitCnt) == 128,
                    "aulIvoCauseIdHitCnt");
KPORT_STATIC_ASSERT(KPORT_OFFSETOF(BYPASS_IVO_DEBUG_INFO_S, aulDeteptionCauseIdHitCnt) == 208,
                    "aulDeteptionCauseIdHitCnt");
KPORT_STATIC_ASSERT(KPORT_OFFSETOF(BYPASS_IVO_DEBUG_INFO_S, ulIvoRangeHitCnt) == 288,
                    "ulIvoRangeHitCnt");

KPORT_EXTERN_C_BEGIN

/* The tables, all zero (disabled) at load. Other modules may read them; a
 * consistent view is only what bypass_msg_get_ivo_vcpuid sees. */
extern BYPASS_LB_TABLE_S g_bypass_ivo_lb_table;
extern BYPASS_LB_TABLE_S g_bypass_deteption_lb_table;
/* The statistics image: the table copies and the summed hit counters as of
 * the last read of the ivo file (the live counters are per-processor). */
extern BYPASS_IVO_DEBUG_INFO_S g_stIvoDebugInfo;
extern const struct kport_proc_ops g_bypass_ivo_stat_fop;

/* Message 11: the payload (60 bytes, which the control receiver checks)
 * updates the table its ulTableType names; a type above 1 is ignored, and a
 * count above 20 takes over only the enable flag and the vCPU. ulMsgId and
 * ulLen are not consulted. Process context; takes the writers' spin lock. */
void bypass_set_ivo_lb_table(u32 ulMsgId, u8* pucMsg, u32 ulLen);

/* Packet path, any context, lock-free: BYPASS_IVO_HIT with *pulVcpuCnt = 1
 * and pucVcpuList[0] = the table's vCPU (ivo table first, list before
 * range); BYPASS_IVO_MISS leaving both untouched; BYPASS_IVO_BAD_ARG when a
 * pointer is missing. */
u32 bypass_msg_get_ivo_vcpuid(u16 usCauseId, u32* pulVcpuCnt, u8* pucVcpuList);

/* Debug command 20: both tables to the kernel log at alert level. */
void bypass_print_ivo_table_info(void);

/* ivo file. A read refreshes g_stIvoDebugInfo and copies it from *pos. A
 * write of the 32-bit value 0 clears the ivo counters, 1 the deteption
 * counters, anything else nothing; a write of fewer than 4 bytes is refused
 * with -EINVAL, a copy fault answers -1. */
ssize_t bypass_proc_read_ivo_stat_info(struct file* file, char* ubuf, size_t count,
                                       kport_loff_t* pos);
ssize_t bypass_proc_write_ivo_stat_info(struct file* file, const char* ubuf, size_t count,
                                        kport_loff_t* pos);

KPORT_EXTERN_C_END

#endif /* DRV_VANE_STEERING_H */
