#pragma once

#include <mutex>

// What a mutex guards, told so that clang's -Wthread-safety checks it: a member with
// KORVANE_GUARDED_BY(mutex_) is touched only while a MutexLock of that mutex lives, or in a
// function with KORVANE_REQUIRES(mutex_). Constructors and destructors aren't checked.

#if defined(__clang__)
#define KORVANE_THREAD_ATTRIBUTE(...) __attribute__((__VA_ARGS__))
#else
#define KORVANE_THREAD_ATTRIBUTE(...)
#endif

#define KORVANE_GUARDED_BY(mutex) KORVANE_THREAD_ATTRIBUTE(guarded_by(mutex))
/// Also behind the parameters of a lambda, as of the condition that a wait is for.
#define KORVANE_REQUIRES(mutex) KORVANE_THREAD_ATTRIBUTE(requires_capability(mutex))

namespace talvera::korvane {

/// A std::mutex that the check knows, as the one of libstdc++ isn't.
class KORVANE_THREAD_ATTRIBUTE(capability("mutex")) Mutex : public std::mutex {};

/// Holds a mutex while it lives. What waits for a condition takes it as the std::unique_lock that
/// it is.
class KORVANE_THREAD_ATTRIBUTE(scoped_lockable) MutexLock : public std::unique_lock<std::mutex> {
 public:
  explicit MutexLock(Mutex& mutex) KORVANE_THREAD_ATTRIBUTE(acquire_capability(mutex))
      : unique_lock(mutex) {}
  ~MutexLock() KORVANE_THREAD_ATTRIBUTE(release_capability()) = default;
  MutexLock(const MutexLock&) = delete;
  MutexLock& operator=(const MutexLock&) = delete;

  void lock() KORVANE_THREAD_ATTRIBUTE(acquire_capability()) { unique_lock::lock(); }
  void unlock() KORVANE_THREAD_ATTRIBUTE(release_capability()) { unique_lock::unlock(); }
};

}  // namespace talvera::korvane
