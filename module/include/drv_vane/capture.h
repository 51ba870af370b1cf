/* Packet capture store. */
#ifndef DRV_VANE_CAPTURE_H
#define DRV_VANE_CAPTURE_H

#include "kport/compiler.h"
#include "kport/types.h"

#define BYPASS_CATCH_PKT_NUM 30
#define BYPASS_CATCH_PKT_LEN 96
#define BYPASS_CATCH_STORE_LEN (BYPASS_CATCH_PKT_NUM * BYPASS_CATCH_PKT_LEN) /* 2880 */

KPORT_EXTERN_C_BEGIN

/* 2880 zero-filled bytes from start-up to shut-down. */
extern u8* g_pstCatchPktData;

KPORT_EXTERN_C_END

#endif /* DRV_VANE_CAPTURE_H */
