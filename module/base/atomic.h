// Atomic access to plain fields of the module's C records and globals.
//
// The exported records keep plain C types (other modules read them), so the
// core reaches their shared words through these wrappers over the compiler's
// atomic built-ins rather than through std::atomic members. They compile to
// single instructions on x86_64 and arm64 and need no runtime.
#ifndef VANE_BASE_ATOMIC_H
#define VANE_BASE_ATOMIC_H

namespace vane {

template <typename T>
inline T load_relaxed(const T* p) {
  return __atomic_load_n(p, __ATOMIC_RELAXED);
}
template <typename T>
inline T load_acquire(const T* p) {
  return __atomic_load_n(p, __ATOMIC_ACQUIRE);
}
template <typename T, typename U>
inline void store_relaxed(T* p, U v) {
  __atomic_store_n(p, static_cast<T>(v), __ATOMIC_RELAXED);
}
template <typename T, typename U>
inline void store_release(T* p, U v) {
  __atomic_store_n(p, static_cast<T>(v), __ATOMIC_RELEASE);
}
template <typename T, typename U>
inline T fetch_add_relaxed(T* p, U v) {
  return __atomic_fetch_add(p, static_cast<T>(v), __ATOMIC_RELAXED);
}
template <typename T, typename U>
inline T exchange_acq_rel(T* p, U v) {
  return __atomic_exchange_n(p, static_cast<T>(v), __ATOMIC_ACQ_REL);
}
// Weak compare-and-swap; on failure *expected holds the current value.
template <typename T, typename U>
inline bool cas_acq_rel(T* p, T* expected, U desired) {
  return __atomic_compare_exchange_n(p, expected, static_cast<T>(desired), true, __ATOMIC_ACQ_REL,
                                     __ATOMIC_RELAXED);
}
// Replaces *p by f(*p) atomically; returns the new value.
template <typename T, typename F>
inline T update(T* p, F f) {
  T cur = load_relaxed(p);
  T next;
  do {
    next = f(cur);
  } while (!cas_acq_rel(p, &cur, next));
  return next;
}

}  // namespace vane

#endif  // VANE_BASE_ATOMIC_H
