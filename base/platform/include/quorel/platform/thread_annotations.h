// Clang thread-safety annotations; they compile away on other compilers.
#ifndef QUOREL_PLATFORM_THREAD_ANNOTATIONS_H
#define QUOREL_PLATFORM_THREAD_ANNOTATIONS_H

#if defined(__clang__)
#define QTHREAD_ANNOTATION(x) __attribute__((x))
#else
#define QTHREAD_ANNOTATION(x)
#endif

#define CAPABILITY(x) QTHREAD_ANNOTATION(capability(x))
#define SCOPED_CAPABILITY QTHREAD_ANNOTATION(scoped_lockable)
#define GUARDED_BY(x) QTHREAD_ANNOTATION(guarded_by(x))
#define PT_GUARDED_BY(x) QTHREAD_ANNOTATION(pt_guarded_by(x))
#define ACQUIRE(...) QTHREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define RELEASE(...) QTHREAD_ANNOTATION(release_capability(__VA_ARGS__))
#define TRY_ACQUIRE(...) QTHREAD_ANNOTATION(try_acquire_capability(__VA_ARGS__))
#define REQUIRES(...) QTHREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define EXCLUDES(...) QTHREAD_ANNOTATION(locks_excluded(__VA_ARGS__))
#define NO_THREAD_SAFETY_ANALYSIS QTHREAD_ANNOTATION(no_thread_safety_analysis)

#endif
