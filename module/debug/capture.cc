// The packet capture store, allocated for the module's whole life.
#include "drv_vane/capture.h"
#include "base/atomic.h"
#include "debug/debug_internal.h"
#include "kport/errno.h"
#include "kport/mem.h"

u8* g_pstCatchPktData;

namespace vane {

int capture_store_create() {
  auto* store = static_cast<u8*>(kport_kzalloc_atomic(BYPASS_CATCH_STORE_LEN));
  if (store == nullptr) return -KPORT_ENOMEM;
  store_release(&g_pstCatchPktData, store);
  return 0;
}

void capture_store_destroy() { kport_kfree(exchange_acq_rel(&g_pstCatchPktData, nullptr)); }

}  // namespace vane
