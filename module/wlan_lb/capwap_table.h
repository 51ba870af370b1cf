// What the CAPWAP table and the keep-alive table do alike: one record type
// each, created on first use, one record per key, an update that rewrites
// the process word in place, and a lookup that never waits.
//
// A table is described by a traits type T with:
//   using Record = ...;                    the stored record, with a u32 process
//   using Msg = ...;                       the entry message of its set type
//   static HASH_TABLE_S** slot();          the published handle
//   static constexpr HASH_KEY_PFN kHash;   the table's callbacks
//   static constexpr HASH_MATCH_PFN kMatch;
//   static void fill(Record* dst, const Record& src);  key fields and process
//   static Record from_msg(const Msg& m);  the record it carries, zero padding
//
// Lock and RCU context of each function is stated where it is declared. The
// handle only ever goes from null to a table while the module runs, so a
// reader that loaded it keeps a valid table for its whole section.
#ifndef VANE_WLAN_LB_CAPWAP_TABLE_H
#define VANE_WLAN_LB_CAPWAP_TABLE_H

#include "base/atomic.h"
#include "drv_vane/container.h"
#include "kport/cxx/guard.h"
#include "wlan_lb/wlan_lb_internal.h"

namespace vane::capwap {

// Creates the table when it is absent; the table, or null when creation
// fails (the next call tries again). Writer lock held.
template <typename T>
HASH_TABLE_S* ensure_locked() KPORT_REQUIRES(g_wlan_lb_write_lock) {
  HASH_TABLE_S* table = load_relaxed(T::slot());
  if (table != nullptr) return table;
  table = HASH_CreateNew(sizeof(typename T::Record), WLAN_LB_CAPWAP_BUCKETS, T::kHash, T::kMatch);
  // The table is empty and fully initialised before a reader can see it.
  if (table != nullptr) store_release(T::slot(), table);
  return table;
}

// The stored record with the key, or null (also without a table). The
// caller holds the writer lock or stays inside an RCU read-side section for
// as long as it uses the record.
template <typename T>
typename T::Record* find(const typename T::Record* key) {
  if (key == nullptr) return nullptr;
  HASH_TABLE_S* table = load_acquire(T::slot());
  if (table == nullptr) return nullptr;
  return static_cast<typename T::Record*>(HASH_FindElemFromFirstList_LB_New(table, key));
}

// Adds the record, or rewrites the process of the one with its key. 1 for a
// null record, no table or no memory; else the add's code. Writer lock held.
template <typename T>
u32 add_locked(const typename T::Record* rec) KPORT_REQUIRES(g_wlan_lb_write_lock) {
  if (rec == nullptr) return WLAN_LB_ERR;
  if (typename T::Record* old = find<T>(rec); old != nullptr) {
    // One aligned word: a concurrent lookup sees the old or the new vCPU.
    store_relaxed(&old->process, rec->process);
    return WLAN_LB_OK;
  }
  HASH_TABLE_S* table = load_relaxed(T::slot());
  auto* fresh = static_cast<typename T::Record*>(HASH_NewData(table));
  if (fresh == nullptr) return WLAN_LB_ERR;
  // Field by field into the zeroed record, so that padding bytes (which the
  // proc view shows) are zero whatever the caller's record held there.
  T::fill(fresh, *rec);
  const u32 rc = HASH_AddNode_LB_New(table, fresh, fresh);
  if (rc != HASH_OK) HASH_FreeData(table, fresh);
  return rc;
}

// Removes the record with the key (its process is not compared): 0 when one
// was removed, else 1. Writer lock held; the record is freed after a grace
// period.
template <typename T>
u32 delete_locked(const typename T::Record* key) KPORT_REQUIRES(g_wlan_lb_write_lock) {
  if (key == nullptr) return WLAN_LB_ERR;
  HASH_TABLE_S* table = load_relaxed(T::slot());
  if (table == nullptr) return WLAN_LB_ERR;
  return HASH_RemoveElmtByKey_LB_New(table, key) == HASH_OK ? WLAN_LB_OK : WLAN_LB_ERR;
}

// The record of an entry message added (or its process updated). Writer
// lock held.
template <typename T>
u32 set_msg_locked(const typename T::Msg* msg) KPORT_REQUIRES(g_wlan_lb_write_lock) {
  if (msg == nullptr) return WLAN_LB_ERR;
  const typename T::Record rec = T::from_msg(*msg);
  return add_locked<T>(&rec);
}

// The key of an entry message removed; its process takes no part. Writer
// lock held.
template <typename T>
u32 delete_msg_locked(const typename T::Msg* msg) KPORT_REQUIRES(g_wlan_lb_write_lock) {
  if (msg == nullptr) return WLAN_LB_ERR;
  const typename T::Record key = T::from_msg(*msg);
  return delete_locked<T>(&key);
}

// An entry message applied: op 2 deletes, any other op adds or updates.
// Writer lock held; msg is not null.
template <typename T>
u32 apply_msg_locked(const typename T::Msg* msg) KPORT_REQUIRES(g_wlan_lb_write_lock) {
  return msg->op == WLAN_LB_OP_DELETE ? delete_msg_locked<T>(msg) : set_msg_locked<T>(msg);
}

// Tries the keys in order; on the first hit writes its process to *vcpu and
// gives 0, else 1 with *vcpu untouched. Any context; opens its own RCU
// read-side section and allocates nothing.
template <typename T, unsigned N>
u32 lookup(const typename T::Record (&keys)[N], u64* vcpu) {
  kport::RcuReadGuard rcu;
  for (const typename T::Record& key : keys) {
    if (const typename T::Record* rec = find<T>(&key); rec != nullptr) {
      *vcpu = load_relaxed(&rec->process);
      return WLAN_LB_OK;
    }
  }
  return WLAN_LB_ERR;
}

// Frees the table and its records and clears the handle. Unload only: the
// callers have waited for every reader and every deferred free.
inline void destroy(HASH_TABLE_S** slot) {
  HASH_TABLE_S* table = load_relaxed(slot);
  store_relaxed(slot, static_cast<HASH_TABLE_S*>(nullptr));
  if (table != nullptr) HASH_Destroy(table);
}

}  // namespace vane::capwap

#endif  // VANE_WLAN_LB_CAPWAP_TABLE_H
