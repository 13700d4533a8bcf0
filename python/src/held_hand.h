#pragma once

#include <korvane_open.h>
#include <private_korvane.h>

#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <type_traits>

// Hands as the Python package opens and holds them. Nothing here knows Python.

namespace korvane_python {

/// A hand that has answered. One with the service interface is two objects on CAN: the public
/// protocol is an object of its own there, and on a serial port one object speaks both.
struct OpenedHand {
  talvera::korvane::HandAddress address;  ///< With model and id.
  /// On a ZLG adapter the end of either object stops the channel: this one goes last.
  std::unique_ptr<talvera::korvane::KorvaneBase> face;
  std::unique_ptr<talvera::korvane::KorvaneBase> hand;
};

/// What calls share. It goes with the last of them.
struct HeldHand {
  explicit HeldHand(OpenedHand&& opened)
      : face(std::move(opened.face)), hand(std::move(opened.hand)) {}

  /// The object that speaks the protocol to which Face belongs.
  template <class Face>
  talvera::korvane::KorvaneBase& For() const {
    const bool is_service = std::is_same_v<Face, talvera::korvane::PrivateKorvane>;
    return face && !is_service ? *face : *hand;
  }

  std::unique_ptr<talvera::korvane::KorvaneBase> face;
  std::unique_ptr<talvera::korvane::KorvaneBase> hand;
  std::timed_mutex calls;  ///< Held while a call runs.
  std::atomic<bool> updating = false;
};

/// The hand at an address.
talvera::korvane::Outcome<OpenedHand> Open(const std::string& address);
/// The hand at an address with its service interface. Refuses where several hands would take its
/// requests for theirs, as these name none.
talvera::korvane::Outcome<OpenedHand> OpenService(const std::string& address);

}  // namespace korvane_python
