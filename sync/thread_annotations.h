// Attributes for clang's -Wthread-safety, empty for other compilers. The names are those of clang's documentation.
#pragma once

#ifdef __clang__
#define KESTRA_THREAD_ATTRIBUTE(...) __attribute__((__VA_ARGS__))
#else
#define KESTRA_THREAD_ATTRIBUTE(...)
#endif

#define CAPABILITY(name) KESTRA_THREAD_ATTRIBUTE(capability(name))
#define SCOPED_CAPABILITY KESTRA_THREAD_ATTRIBUTE(scoped_lockable)
/// The field may be accessed only with that lock held; PT_: what the pointer points to.
#define GUARDED_BY(lock) KESTRA_THREAD_ATTRIBUTE(guarded_by(lock))
#define PT_GUARDED_BY(lock) KESTRA_THREAD_ATTRIBUTE(pt_guarded_by(lock))
/// The caller must hold the lock, or must not hold it.
#define REQUIRES(...) KESTRA_THREAD_ATTRIBUTE(requires_capability(__VA_ARGS__))
#define EXCLUDES(...) KESTRA_THREAD_ATTRIBUTE(locks_excluded(__VA_ARGS__))
/// The function acquires or releases the lock.
#define ACQUIRE(...) KESTRA_THREAD_ATTRIBUTE(acquire_capability(__VA_ARGS__))
#define TRY_ACQUIRE(...) KESTRA_THREAD_ATTRIBUTE(try_acquire_capability(__VA_ARGS__))
#define RELEASE(...) KESTRA_THREAD_ATTRIBUTE(release_capability(__VA_ARGS__))
#define RETURN_CAPABILITY(lock) KESTRA_THREAD_ATTRIBUTE(lock_returned(lock))
#define ACQUIRED_BEFORE(...) KESTRA_THREAD_ATTRIBUTE(acquired_before(__VA_ARGS__))
#define ACQUIRED_AFTER(...) KESTRA_THREAD_ATTRIBUTE(acquired_after(__VA_ARGS__))
/// For the few functions that the analysis cannot follow; say why beside it.
#define NO_THREAD_SAFETY_ANALYSIS KESTRA_THREAD_ATTRIBUTE(no_thread_safety_analysis)
