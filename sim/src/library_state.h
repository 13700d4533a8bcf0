#pragma once

#include <memory>
#include <utility>

#include "backend.h"
#include "util/guarded.h"

namespace talvera::korvane::sim {

/// The process-wide state of one closed library, made anew when the backend is another one.
/// Null without a backend. Never destroyed: hands with static storage may call it at exit.
template <class Library>
std::shared_ptr<Library> CurrentLibrary() {
  struct Slot {
    Mutex mutex;
    std::shared_ptr<Backend> backend KORVANE_GUARDED_BY(mutex);
    std::shared_ptr<Library> library KORVANE_GUARDED_BY(mutex);
  };
  static auto* const slot = new Slot;
  std::shared_ptr<Library> old;  // Outlives the lock: closing its links may take a while.
  const MutexLock lock(slot->mutex);
  auto backend = CurrentBackend();
  if (backend != slot->backend) {
    old = std::move(slot->library);
    slot->library = backend ? std::make_shared<Library>(backend) : nullptr;
    slot->backend = std::move(backend);
  }
  return slot->library;
}

/// Runs one C function. Nothing may be thrown into a C caller: failures become `failure`.
template <class Library, class Result, class Action>
Result CallLibrary(Result failure, Action&& action) noexcept {
  try {
    const auto library = CurrentLibrary<Library>();
    return library ? action(*library) : failure;
  } catch (...) {
    return failure;
  }
}

}  // namespace talvera::korvane::sim
