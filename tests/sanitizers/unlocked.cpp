// What -Wthread-safety is for: a member that is read without its mutex.
#include "util/guarded.h"

class Counter {
 public:
  void Add() {
    const talvera::korvane::MutexLock lock(mutex_);
    ++count_;
  }
  int Count() const { return count_; }

 private:
  mutable talvera::korvane::Mutex mutex_;
  int count_ KORVANE_GUARDED_BY(mutex_) = 0;
};
