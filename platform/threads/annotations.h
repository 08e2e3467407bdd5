// Says in the code which lock guards what, so that clang checks it (-Wthread-safety). Other compilers see nothing.
// https://clang.llvm.org/docs/ThreadSafetyAnalysis.html explains each attribute.
#pragma once

#ifdef __clang__
#define ZKS_THREAD_ATTRIBUTE(x) __attribute__((x))
#else
#define ZKS_THREAD_ATTRIBUTE(x)
#endif

// On a class: it is a lock; it holds a lock from its constructor to its destructor.
#define ZKS_CAPABILITY(name) ZKS_THREAD_ATTRIBUTE(capability(name))
#define ZKS_SCOPED_CAPABILITY ZKS_THREAD_ATTRIBUTE(scoped_lockable)

// On a field: it is touched only with the lock held; what it points to is touched only so.
#define ZKS_GUARDED_BY(mutex) ZKS_THREAD_ATTRIBUTE(guarded_by(mutex))
#define ZKS_PT_GUARDED_BY(mutex) ZKS_THREAD_ATTRIBUTE(pt_guarded_by(mutex))

// On a function: its caller holds the lock (for reading only); its caller must not hold it.
#define ZKS_REQUIRES(...) ZKS_THREAD_ATTRIBUTE(requires_capability(__VA_ARGS__))
#define ZKS_REQUIRES_SHARED(...) ZKS_THREAD_ATTRIBUTE(requires_shared_capability(__VA_ARGS__))
#define ZKS_EXCLUDES(...) ZKS_THREAD_ATTRIBUTE(locks_excluded(__VA_ARGS__))

// On a function: it takes or releases the lock.
#define ZKS_ACQUIRE(...) ZKS_THREAD_ATTRIBUTE(acquire_capability(__VA_ARGS__))
#define ZKS_ACQUIRE_SHARED(...) ZKS_THREAD_ATTRIBUTE(acquire_shared_capability(__VA_ARGS__))
#define ZKS_TRY_ACQUIRE(...) ZKS_THREAD_ATTRIBUTE(try_acquire_capability(__VA_ARGS__))
#define ZKS_RELEASE(...) ZKS_THREAD_ATTRIBUTE(release_capability(__VA_ARGS__))
#define ZKS_RELEASE_SHARED(...) ZKS_THREAD_ATTRIBUTE(release_shared_capability(__VA_ARGS__))
#define ZKS_RELEASE_GENERIC(...) ZKS_THREAD_ATTRIBUTE(release_generic_capability(__VA_ARGS__))

// On a function: it returns a reference to the lock.
#define ZKS_RETURN_CAPABILITY(mutex) ZKS_THREAD_ATTRIBUTE(lock_returned(mutex))

// On a function whose locking the analysis cannot follow. Say why beside it.
#define ZKS_NO_THREAD_SAFETY_ANALYSIS ZKS_THREAD_ATTRIBUTE(no_thread_safety_analysis)
