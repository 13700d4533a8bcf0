#pragma once

#include <korvane_open_service.h>

#include <atomic>
#include <memory>
#include <mutex>
#include <type_traits>
#include <utility>

namespace korvane_python {

/// What calls of a hand share. It goes with the last of them. One without the service interface has
/// no `face`.
struct HeldHand {
  explicit HeldHand(talvera::korvane::ServiceHand&& opened)
      : face(std::move(opened.face)), hand(std::move(opened.hand)) {}

  /// The object that speaks the protocol to which Face belongs.
  template <class Face>
  talvera::korvane::KorvaneBase& For() const {
    constexpr bool kIsService = std::is_same_v<Face, talvera::korvane::PrivateKorvane>;
    return face && !kIsService ? *face : *hand;
  }

  std::unique_ptr<talvera::korvane::KorvaneBase> face;  ///< See ServiceHand: this one goes last.
  std::unique_ptr<talvera::korvane::KorvaneBase> hand;
  std::timed_mutex calls;  ///< Held while a call runs.
  std::atomic<bool> updating = false;
};

}  // namespace korvane_python
