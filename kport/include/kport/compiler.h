/* Compiler glue shared by every kport header: C/C++ linkage, static
 * assertions that work in both languages, printf checking and the Clang
 * thread-safety attributes (no-ops elsewhere). */
#ifndef KPORT_COMPILER_H
#define KPORT_COMPILER_H

#ifdef __cplusplus
#define KPORT_EXTERN_C_BEGIN extern "C" {
#define KPORT_EXTERN_C_END }
#define KPORT_STATIC_ASSERT(cond, msg) static_assert(cond, msg)
#else
#define KPORT_EXTERN_C_BEGIN
#define KPORT_EXTERN_C_END
#define KPORT_STATIC_ASSERT(cond, msg) _Static_assert(cond, msg)
#endif

#define KPORT_PRINTF(fmt_idx, args_idx) __attribute__((format(printf, fmt_idx, args_idx)))
#define KPORT_ALIGNED(n) __attribute__((aligned(n)))
#define KPORT_OFFSETOF(type, member) __builtin_offsetof(type, member)

/* Thread-safety analysis is a Clang C++ feature; the attributes vanish for
 * GCC and for C translation units (the Linux glue). */
#if defined(__clang__) && defined(__cplusplus)
#define KPORT_TSA(x) __attribute__((x))
#else
#define KPORT_TSA(x)
#endif

#define KPORT_CAPABILITY(name) KPORT_TSA(capability(name))
#define KPORT_SCOPED_CAPABILITY KPORT_TSA(scoped_lockable)
#define KPORT_GUARDED_BY(x) KPORT_TSA(guarded_by(x))
#define KPORT_ACQUIRE(...) KPORT_TSA(acquire_capability(__VA_ARGS__))
#define KPORT_ACQUIRE_SHARED(...) KPORT_TSA(acquire_shared_capability(__VA_ARGS__))
#define KPORT_RELEASE(...) KPORT_TSA(release_capability(__VA_ARGS__))
#define KPORT_RELEASE_SHARED(...) KPORT_TSA(release_shared_capability(__VA_ARGS__))
#define KPORT_RELEASE_GENERIC(...) KPORT_TSA(release_generic_capability(__VA_ARGS__))
#define KPORT_EXCLUDES(...) KPORT_TSA(locks_excluded(__VA_ARGS__))
#define KPORT_REQUIRES(...) KPORT_TSA(requires_capability(__VA_ARGS__))
#define KPORT_NO_THREAD_SAFETY_ANALYSIS KPORT_TSA(no_thread_safety_analysis)

#endif /* KPORT_COMPILER_H */
