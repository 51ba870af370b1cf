// RAII guards over the kport locks, for C++ callers. Each guard documents the
// context rule of the lock form it takes (see kport/lock.h).
#ifndef KPORT_CXX_GUARD_H
#define KPORT_CXX_GUARD_H

#include "kport/lock.h"
#include "kport/rcu.h"

namespace kport {

// Shared hold of a reader-writer lock, bottom halves off.
class KPORT_SCOPED_CAPABILITY ReadGuard {
 public:
  explicit ReadGuard(kport_rwlock_t* lock) KPORT_ACQUIRE_SHARED(lock) : lock_(lock) {
    kport_read_lock(lock_);
  }
  ~ReadGuard() KPORT_RELEASE() { kport_read_unlock(lock_); }
  ReadGuard(const ReadGuard&) = delete;
  ReadGuard& operator=(const ReadGuard&) = delete;

 private:
  kport_rwlock_t* lock_;
};

// Exclusive hold of a reader-writer lock, bottom halves off.
class KPORT_SCOPED_CAPABILITY WriteGuard {
 public:
  explicit WriteGuard(kport_rwlock_t* lock) KPORT_ACQUIRE(lock) : lock_(lock) {
    kport_write_lock(lock_);
  }
  ~WriteGuard() KPORT_RELEASE() { kport_write_unlock(lock_); }
  WriteGuard(const WriteGuard&) = delete;
  WriteGuard& operator=(const WriteGuard&) = delete;

 private:
  kport_rwlock_t* lock_;
};

// Spin lock, bottom halves off.
class KPORT_SCOPED_CAPABILITY SpinGuardBh {
 public:
  explicit SpinGuardBh(kport_spinlock_t* lock) KPORT_ACQUIRE(lock) : lock_(lock) {
    kport_spin_lock_bh(lock_);
  }
  ~SpinGuardBh() KPORT_RELEASE() { kport_spin_unlock_bh(lock_); }
  SpinGuardBh(const SpinGuardBh&) = delete;
  SpinGuardBh& operator=(const SpinGuardBh&) = delete;

 private:
  kport_spinlock_t* lock_;
};

// Spin lock with interrupts masked.
class KPORT_SCOPED_CAPABILITY SpinGuardIrq {
 public:
  explicit SpinGuardIrq(kport_spinlock_t* lock) KPORT_ACQUIRE(lock) : lock_(lock) {
    kport_spin_lock_irqsave(lock_, &flags_);
  }
  ~SpinGuardIrq() KPORT_RELEASE() { kport_spin_unlock_irqrestore(lock_, flags_); }
  SpinGuardIrq(const SpinGuardIrq&) = delete;
  SpinGuardIrq& operator=(const SpinGuardIrq&) = delete;

 private:
  kport_spinlock_t* lock_;
  unsigned long flags_ = 0;
};

// RCU read-side section: no lock, no waiting, nothing may sleep inside.
class RcuReadGuard {
 public:
  RcuReadGuard() { kport_rcu_read_lock(); }
  ~RcuReadGuard() { kport_rcu_read_unlock(); }
  RcuReadGuard(const RcuReadGuard&) = delete;
  RcuReadGuard& operator=(const RcuReadGuard&) = delete;
};

}  // namespace kport

#endif  // KPORT_CXX_GUARD_H
