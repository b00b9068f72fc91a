// Lock annotations for Clang's -Wthread-safety analysis (internal).
//
// A mutex type is marked KESTREL_CAPABILITY("mutex"); a member that a mutex
// protects is marked KESTREL_GUARDED_BY(mutex) (or KESTREL_PT_GUARDED_BY for
// what a pointer points at); a function that expects its caller to hold a
// mutex is marked KESTREL_REQUIRES(mutex). Other compilers see nothing.
#pragma once

#if defined(__clang__)
#define KESTREL_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define KESTREL_THREAD_ANNOTATION(x)
#endif

#define KESTREL_CAPABILITY(x) KESTREL_THREAD_ANNOTATION(capability(x))
#define KESTREL_SCOPED_CAPABILITY KESTREL_THREAD_ANNOTATION(scoped_lockable)
#define KESTREL_GUARDED_BY(x) KESTREL_THREAD_ANNOTATION(guarded_by(x))
#define KESTREL_PT_GUARDED_BY(x) KESTREL_THREAD_ANNOTATION(pt_guarded_by(x))
#define KESTREL_REQUIRES(...) KESTREL_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define KESTREL_EXCLUDES(...) KESTREL_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))
#define KESTREL_ACQUIRE(...) KESTREL_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define KESTREL_RELEASE(...) KESTREL_THREAD_ANNOTATION(release_capability(__VA_ARGS__))
#define KESTREL_TRY_ACQUIRE(...) KESTREL_THREAD_ANNOTATION(try_acquire_capability(__VA_ARGS__))
#define KESTREL_ASSERT_CAPABILITY(x) KESTREL_THREAD_ANNOTATION(assert_capability(x))
#define KESTREL_RETURN_CAPABILITY(x) KESTREL_THREAD_ANNOTATION(lock_returned(x))
#define KESTREL_NO_THREAD_SAFETY_ANALYSIS KESTREL_THREAD_ANNOTATION(no_thread_safety_analysis)
