// Clang's thread-safety attributes, so that what each lock guards and the order
// of the locks are checked by the compiler (-Wthread-safety); nothing elsewhere.
#pragma once

#if defined(__clang__)
#define KELO_TSA(x) __attribute__((x))
#else
#define KELO_TSA(x)
#endif

// A type that is a lock.
#define CAPABILITY(name) KELO_TSA(capability(name))
// A guard object that holds a lock for its lifetime.
#define SCOPED_CAPABILITY KELO_TSA(scoped_lockable)
// Data read or written only with the lock held.
#define GUARDED_BY(mu)    KELO_TSA(guarded_by(mu))
#define PT_GUARDED_BY(mu) KELO_TSA(pt_guarded_by(mu))
// Lock order between two locks (checked with -Wthread-safety-beta).
#define ACQUIRED_BEFORE(...) KELO_TSA(acquired_before(__VA_ARGS__))
#define ACQUIRED_AFTER(...)  KELO_TSA(acquired_after(__VA_ARGS__))
// A function called with the lock held / not held.
#define REQUIRES(...) KELO_TSA(requires_capability(__VA_ARGS__))
#define EXCLUDES(...) KELO_TSA(locks_excluded(__VA_ARGS__))
// A function that takes / gives up the lock.
#define ACQUIRE(...) KELO_TSA(acquire_capability(__VA_ARGS__))
#define RELEASE(...) KELO_TSA(release_capability(__VA_ARGS__))
// After this call the analysis takes the lock as held (by this thread).
#define ASSERT_CAPABILITY(x) KELO_TSA(assert_capability(x))
// A function that returns the lock object itself.
#define RETURN_CAPABILITY(x) KELO_TSA(lock_returned(x))
// Code the analysis cannot follow; each use says why.
#define NO_THREAD_SAFETY_ANALYSIS KELO_TSA(no_thread_safety_analysis)
