#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "korvane_sim/export.h"
#include "korvane_sim/service_face.h"
#include "korvane_sim/simulated_hand.h"
#include "korvane_sim/virtual_bus.h"

namespace talvera::korvane::sim {

/// What goes wrong on a serial line. Of the faults of a bus `reorder` can't happen here; loss
/// strikes what the hand says, and `foreign` puts a frame of another id before a reply.
struct SerialFaults : Faults {
  double junk = 0.0;          ///< Share of replies before which up to 24 bytes of noise come.
  double bad_checksum = 0.0;  ///< Share of replies with a wrong trailer.
  bool merge = false;         ///< An upload comes in one piece with each reply, behind it.
  std::chrono::nanoseconds split{0};  ///< Pause after each byte, which comes by itself then.
  /// The line goes when that many frames have come, before the last is answered, and comes back
  /// after `replug_after`, if that is given.
  std::optional<std::uint64_t> unplug_after;
  std::optional<std::chrono::nanoseconds> replug_after;
};

struct SerialStatistics {
  std::uint64_t from_host = 0;  ///< Frames for this hand.
  std::uint64_t rejected = 0;   ///< What began like a frame and was none, or had a wrong trailer.
  std::uint64_t other_id = 0;   ///< Frames for other hands.
  std::uint64_t from_hand = 0;  ///< Frames that it sent, lost ones included.
  std::uint64_t lost = 0;
};

/// A hand on a serial line, for a host in the same process or in another.
///
/// The line is a pseudo-terminal, which the host opens like a USB or RS-485 port:
///
///     sim::SerialHand device({sim::kBrisa, 1}, folder + "/tty");
///     auto hand = KorvaneBrisa::createHandByUsb(HandType::LEFT, 1, device.Path(), 115200);
///
/// Frames to another id are ignored; 0x7FF is everyone. A frame must have the trailer that its
/// command calls for. A thread inside serves the hand from construction to destruction. All
/// operations may be called from any thread.
class KORVANE_SIM_EXPORT SerialHand {
 public:
  /// `link` is a symbolic link to the port, which stays the same when the line is unplugged and
  /// plugged in again; empty for none. Throws std::runtime_error if something else is there.
  explicit SerialHand(SimulatedHand hand, std::string link = {}, std::uint64_t seed = 1);
  /// `clock` must outlive the hand. The thread reads it but doesn't wait on it.
  SerialHand(SimulatedHand hand, std::string link, Clock& clock, std::uint64_t seed = 1);
  SerialHand(const SerialHand&) = delete;
  SerialHand& operator=(const SerialHand&) = delete;
  ~SerialHand();

  /// What a host opens: the link, or without one the pseudo-terminal.
  std::string Path() const;
  /// The pseudo-terminal itself, the last one if the line is unplugged.
  std::string Device() const;

  /// Whoever has the port open finds it dead, and its path is gone, when this returns. The hand
  /// lives on.
  void Unplug();
  /// Brings the line back, under the same link. Throws as the constructor does.
  void Plug();

  /// Holds from the next frame on. The counts of `silent_after` and `unplug_after` start anew.
  void SetFaults(const SerialFaults& faults);

  /// Calls `action` with the hand as it stands now, which stands still meanwhile: `action` must not
  /// use this object.
  void WithHand(const std::function<void(SimulatedHand&)>& action);
  ServiceSettings Settings() const;

  /// Switches the hand off and on; see ServiceFace::Restart.
  void Restart();

  /// Something that the hand says unasked, as a frame or as it stands. Faults leave it alone.
  void Say(const ServiceMessage& message);
  void SayRaw(const std::vector<std::uint8_t>& bytes);

  SerialStatistics Statistics() const;

 private:
  class Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace talvera::korvane::sim
