#pragma once

#include <cstddef>
#include <cstdlib>
#include <functional>
#include <new>
#include <utility>

// Replaces the program's allocation functions, unless a sanitizer brings its own: included by one
// source file of a program.

namespace talvera::korvane::test {

/// Runs an action, which may throw std::bad_alloc, at the n-th allocation of at least `size` bytes
/// that this thread makes while the object lives.
class AllocationHook {
 public:
  AllocationHook(std::size_t size, int n, std::function<void()> action)
      : size_(size), left_(n), action_(std::move(action)) {
    current = this;
  }
  AllocationHook(const AllocationHook&) = delete;
  AllocationHook& operator=(const AllocationHook&) = delete;
  ~AllocationHook() { current = nullptr; }

  bool Ran() const { return left_ <= 0; }

  /// False in a program whose allocations are a sanitizer's.
  static bool Works() {
    const AllocationHook hook(1, 1, [] {});
    ::operator delete(::operator new(1));
    return hook.Ran();
  }

  static void OnAllocation(std::size_t size) {
    AllocationHook* const hook = current;
    if (hook == nullptr || size < hook->size_ || --hook->left_ != 0) return;
    hook->action_();
  }

 private:
  static inline thread_local AllocationHook* current = nullptr;

  const std::size_t size_;
  int left_;
  const std::function<void()> action_;
};

/// What there is no memory for does.
inline void ThrowBadAlloc() { throw std::bad_alloc(); }

}  // namespace talvera::korvane::test

[[gnu::weak]] void* operator new(std::size_t size) {
  talvera::korvane::test::AllocationHook::OnAllocation(size);
  if (void* const memory = std::malloc(size == 0 ? 1 : size)) return memory;
  throw std::bad_alloc();
}
[[gnu::weak]] void operator delete(void* memory) noexcept { std::free(memory); }
[[gnu::weak]] void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }
