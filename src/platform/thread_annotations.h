// Clang thread-safety attributes. They cost nothing at run time; a clang build with -Werror=thread-safety checks that
// guarded members are only touched, and locking functions only called, in the right order. Other compilers see nothing.
#ifndef QMLOGCACHE_PLATFORM_THREAD_ANNOTATIONS_H_
#define QMLOGCACHE_PLATFORM_THREAD_ANNOTATIONS_H_

#if defined(__clang__)
#define QM_THREAD_ATTRIBUTE(x) __attribute__((x))
#else
#define QM_THREAD_ATTRIBUTE(x)
#endif

#define QM_CAPABILITY(name) QM_THREAD_ATTRIBUTE(capability(name))
#define QM_SCOPED_CAPABILITY QM_THREAD_ATTRIBUTE(scoped_lockable)
#define QM_GUARDED_BY(lock) QM_THREAD_ATTRIBUTE(guarded_by(lock))
#define QM_PT_GUARDED_BY(lock) QM_THREAD_ATTRIBUTE(pt_guarded_by(lock))
#define QM_ACQUIRE(...) QM_THREAD_ATTRIBUTE(acquire_capability(__VA_ARGS__))
#define QM_RELEASE(...) QM_THREAD_ATTRIBUTE(release_capability(__VA_ARGS__))
#define QM_REQUIRES(...) QM_THREAD_ATTRIBUTE(requires_capability(__VA_ARGS__))
#define QM_EXCLUDES(...) QM_THREAD_ATTRIBUTE(locks_excluded(__VA_ARGS__))
#define QM_ACQUIRED_BEFORE(...) QM_THREAD_ATTRIBUTE(acquired_before(__VA_ARGS__))
#define QM_RETURN_CAPABILITY(lock) QM_THREAD_ATTRIBUTE(lock_returned(lock))
#define QM_NO_THREAD_SAFETY_ANALYSIS QM_THREAD_ATTRIBUTE(no_thread_safety_analysis)

#endif  // QMLOGCACHE_PLATFORM_THREAD_ANNOTATIONS_H_
