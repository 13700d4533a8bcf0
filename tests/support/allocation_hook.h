#pragma once

#include <atomic>
#include <cstddef>
#include <cstdlib>
#include <functional>
#include <new>
#include <utility>

// Replaces the program's allocation functions, unless a sanitizer brings its own: included by one
// source file of a program.

namespace talvera::korvane::test {

enum class AllocatingThreads { kThisOne, kAllOthers };

/// Runs an action, which may throw std::bad_alloc, at the n-th allocation of at least `size` bytes
/// that this thread, or any other one, makes while the object lives.
class AllocationHook {
 public:
  AllocationHook(std::size_t size, int n, std::function<void()> action,
                 AllocatingThreads threads = AllocatingThreads::kThisOne)
      : size_(size), left_(n), action_(std::move(action)) {
    (threads == AllocatingThreads::kThisOne ? current : idle) = this;
    if (threads == AllocatingThreads::kAllOthers) others = this;
  }
  AllocationHook(const AllocationHook&) = delete;
  AllocationHook& operator=(const AllocationHook&) = delete;
  ~AllocationHook() {
    others = nullptr;
    current = idle = nullptr;
  }

  bool Ran() const { return left_ <= 0; }

  /// False in a program whose allocations are a sanitizer's.
  static bool Works() {
    const AllocationHook hook(1, 1, [] {});
    ::operator delete(::operator new(1));
    return hook.Ran();
  }

  /// How many allocations of the process haven't been freed.
  static inline std::atomic<long> living{0};

  static void OnAllocation(std::size_t size) {
    AllocationHook* const hook = idle != nullptr || current != nullptr ? current : others.load();
    if (hook == nullptr || size < hook->size_ || --hook->left_ != 0) return;
    hook->action_();
  }

 private:
  static inline thread_local AllocationHook* current = nullptr;
  /// On the thread whose allocations don't count.
  static inline thread_local AllocationHook* idle = nullptr;
  static inline std::atomic<AllocationHook*> others{nullptr};

  const std::size_t size_;
  std::atomic<int> left_;
  const std::function<void()> action_;
};

/// What there is no memory for does.
inline void ThrowBadAlloc() { throw std::bad_alloc(); }

}  // namespace talvera::korvane::test

[[gnu::weak]] void* operator new(std::size_t size) {
  talvera::korvane::test::AllocationHook::OnAllocation(size);
  void* const memory = std::malloc(size == 0 ? 1 : size);
  if (memory == nullptr) throw std::bad_alloc();
  ++talvera::korvane::test::AllocationHook::living;
  return memory;
}
[[gnu::weak]] void operator delete(void* memory) noexcept {
  if (memory != nullptr) --talvera::korvane::test::AllocationHook::living;
  std::free(memory);
}
[[gnu::weak]] void operator delete(void* memory, std::size_t) noexcept {
  ::operator delete(memory);
}
