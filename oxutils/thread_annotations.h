// Lock annotations for clang's -Wthread-safety; nothing elsewhere.
#ifndef TARN_OXUTILS_THREAD_ANNOTATIONS_H_
#define TARN_OXUTILS_THREAD_ANNOTATIONS_H_

#if defined(__clang__)
#define OX_ATTRIBUTE(x) __attribute__((x))
#else
#define OX_ATTRIBUTE(x)
#endif

#define OX_CAPABILITY(name) OX_ATTRIBUTE(capability(name))
#define OX_SCOPED_CAPABILITY OX_ATTRIBUTE(scoped_lockable)
#define OX_GUARDED_BY(lock) OX_ATTRIBUTE(guarded_by(lock))
#define OX_REQUIRES(...) OX_ATTRIBUTE(requires_capability(__VA_ARGS__))
#define OX_EXCLUDES(...) OX_ATTRIBUTE(locks_excluded(__VA_ARGS__))
#define OX_ACQUIRE(...) OX_ATTRIBUTE(acquire_capability(__VA_ARGS__))
#define OX_TRY_ACQUIRE(...) OX_ATTRIBUTE(try_acquire_capability(__VA_ARGS__))
#define OX_RELEASE(...) OX_ATTRIBUTE(release_capability(__VA_ARGS__))
// For a function that leaves the locking rules on purpose; it says why.
#define OX_NO_TSA OX_ATTRIBUTE(no_thread_safety_analysis)

#endif  // TARN_OXUTILS_THREAD_ANNOTATIONS_H_
