#pragma once
// Clang's thread-safety annotations; they vanish under other compilers.

#if defined(__clang__)
#define KX_THREAD_ATTR(x) __attribute__((x))
#else
#define KX_THREAD_ATTR(x)
#endif

#define KX_CAPABILITY(x) KX_THREAD_ATTR(capability(x))
#define KX_SCOPED_CAPABILITY KX_THREAD_ATTR(scoped_lockable)
#define KX_GUARDED_BY(x) KX_THREAD_ATTR(guarded_by(x))
#define KX_REQUIRES(...) KX_THREAD_ATTR(requires_capability(__VA_ARGS__))
#define KX_ACQUIRE(...) KX_THREAD_ATTR(acquire_capability(__VA_ARGS__))
#define KX_RELEASE(...) KX_THREAD_ATTR(release_capability(__VA_ARGS__))
#define KX_EXCLUDES(...) KX_THREAD_ATTR(locks_excluded(__VA_ARGS__))
#define KX_NO_THREAD_SAFETY_ANALYSIS KX_THREAD_ATTR(no_thread_safety_analysis)
