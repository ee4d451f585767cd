// Which lock guards what, for clang to check (-Wthread-safety); other compilers see nothing of it.
#pragma once

#ifdef __clang__
#define QUELLON_THREAD_SAFETY(attribute) __attribute__((attribute))
#else
#define QUELLON_THREAD_SAFETY(attribute)
#endif

/// A class whose objects are locks.
#define QUELLON_LOCKABLE QUELLON_THREAD_SAFETY(lockable)
/// A class whose objects hold a lock from their making to their end.
#define QUELLON_SCOPED_LOCKABLE QUELLON_THREAD_SAFETY(scoped_lockable)
/// A field that is read and written with this lock held.
#define QUELLON_GUARDED_BY(lock) QUELLON_THREAD_SAFETY(guarded_by(lock))
/// A function that is called with this lock held.
#define QUELLON_REQUIRES(lock) QUELLON_THREAD_SAFETY(requires_capability(lock))
/// A function that takes the lock and returns with it.
#define QUELLON_ACQUIRE(...) QUELLON_THREAD_SAFETY(acquire_capability(__VA_ARGS__))
/// A function that takes the lock if it can, and returns `result` if it has.
#define QUELLON_TRY_ACQUIRE(result) QUELLON_THREAD_SAFETY(try_acquire_capability(result))
/// A function that is called with the lock held and gives it back.
#define QUELLON_RELEASE(...) QUELLON_THREAD_SAFETY(release_capability(__VA_ARGS__))
/// A function after which the compiler takes the lock for held.
#define QUELLON_ASSERT_CAPABILITY(lock) QUELLON_THREAD_SAFETY(assert_capability(lock))
/// A function that is not checked; the reason stands beside it.
#define QUELLON_NO_THREAD_SAFETY_ANALYSIS QUELLON_THREAD_SAFETY(no_thread_safety_analysis)
