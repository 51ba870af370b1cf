/* HiGig2 chip header (16 bytes) field access, for other kernel modules.
 * Results: 0, or BYPASS_ERR_PARA (100) for a missing argument. */
#ifndef DRV_VANE_HIGIG2_H
#define DRV_VANE_HIGIG2_H

#include "kport/compiler.h"
#include "kport/types.h"

#define BYPASS_HIGIG2_HDR_LEN 16

/* Field ids: 6 byte 4, 7 byte 14 bits 0-2, 9 byte 5, 10 byte 3, 14 byte 2.
 * Every other id reads 0 and writes nothing. */
#define BYPASS_HG_FIELD_BYTE4 6
#define BYPASS_HG_FIELD_BYTE14_LOW3 7
#define BYPASS_HG_FIELD_BYTE5 9
#define BYPASS_HG_FIELD_BYTE3 10
#define BYPASS_HG_FIELD_PKT_TYPE 14

typedef struct tagBYPASS_HG_DECODE {
  u8 aucCaller[12]; /* the caller's; never read or written here */
  u16 usHgByte2;
  u16 usHgByte3;
} BYPASS_HG_DECODE_S;
KPORT_STATIC_ASSERT(KPORT_OFFSETOF(BYPASS_HG_DECODE_S, usHgByte2) == 12, "byte 2 after 12");
KPORT_STATIC_ASSERT(KPORT_OFFSETOF(BYPASS_HG_DECODE_S, usHgByte3) == 14, "byte 3 after 14");

KPORT_EXTERN_C_BEGIN

u64 bypass_higig2_field_get(u8* pucHdr, s32 iField);
void bypass_higig2_field_set(u8* pucHdr, s32 iField, u8 ucValue);
u64 bypass_swapHgHdrOrder(u8* pucBuf, u64 ulLen);
u64 bypass_higDecode(u8* pucHdr, BYPASS_HG_DECODE_S* pstDecode);

KPORT_EXTERN_C_END

#endif /* DRV_VANE_HIGIG2_H */
