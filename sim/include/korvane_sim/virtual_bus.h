#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>

#include "korvane_sim/bit_rates.h"
#include "korvane_sim/export.h"
#include "korvane_sim/frame.h"
#include "korvane_sim/service_face.h"
#include "korvane_sim/simulated_hand.h"

namespace talvera::korvane {
class Clock;
}

namespace talvera::korvane::sim {

/// What goes wrong on a bus. Probabilities are 0 to 1 and apply to each frame on its own. Loss
/// strikes frames to hands and frames from hands; everything else strikes frames from hands.
struct Faults {
  double loss = 0.0;
  double duplicate = 0.0;
  double reorder = 0.0;  ///< The frame is held back for up to `reorder_window`.
  double foreign = 0.0;  ///< A reply of a hand that doesn't exist comes first, with other data.
  std::chrono::nanoseconds delay{0};
  std::chrono::nanoseconds jitter{0};  ///< Added to the delay, evenly spread from 0.
  std::chrono::nanoseconds reorder_window{std::chrono::milliseconds(20)};
  std::optional<std::uint64_t> silent_after;  ///< After that many frames all hands are silent.
};

struct BusStatistics {
  std::uint64_t from_hosts = 0;  ///< Frames that ports sent.
  std::uint64_t from_hands = 0;  ///< Frames that hands sent, lost ones included.
  std::uint64_t lost = 0;
  std::uint64_t duplicated = 0;
  std::uint64_t reordered = 0;
  std::uint64_t foreign = 0;
  std::uint64_t overruns = 0;        ///< Frames that didn't fit into the buffer of a port.
  std::chrono::nanoseconds busy{0};  ///< What frames took on a bus with bit rates.
};

/// A CAN FD bus with hands on it and ports for hosts.
///
/// What a port sends reaches the hands and the other ports; what a hand sends reaches all ports.
/// Hands of models that have service commands over CAN answer them too, all at once: their
/// identifier is the same for every hand.
/// Like a real controller the bus carries CAN FD lengths only: a frame of 10 bytes arrives as 12,
/// padded with zeros. There is no thread inside: whoever waits in Port::Receive makes time pass for
/// the hands. Faults come from a seeded generator, so that the same frames meet the same faults.
/// All operations may be called from any thread. Ports may outlive the bus object.
class KORVANE_SIM_EXPORT VirtualBus {
 public:
  class Port;

  explicit VirtualBus(std::uint64_t seed = 1);
  /// `clock` must outlive the bus and its ports.
  explicit VirtualBus(Clock& clock, std::uint64_t seed = 1);
  VirtualBus(VirtualBus&&) noexcept;
  VirtualBus& operator=(VirtualBus&&) noexcept;
  ~VirtualBus();

  std::unique_ptr<Port> Open();

  /// Puts a hand on the bus and returns its number, counted from 0.
  std::size_t Add(SimulatedHand hand);
  std::size_t HandCount() const;

  /// Calls `action` with the hand as it stands now. The bus stands still meanwhile: `action` must
  /// not use the bus. Throws std::out_of_range for a hand that was never added.
  void WithHand(std::size_t number, const std::function<void(SimulatedHand&)>& action);

  /// Service settings as they stand now. Throws std::out_of_range also for a hand without any.
  ServiceSettings Settings(std::size_t number) const;

  /// Switches the hand off and on: it is silent for its restart time, its motors come back at rest,
  /// and service settings that weren't saved are lost.
  void Restart(std::size_t number);

  /// An unplugged hand neither hears nor sends; its motors go on.
  void SetPlugged(std::size_t number, bool plugged);

  /// How fast the bus is, from the next frame on; without bit rates, as at first, frames take no
  /// time. With them frames pass one after another in the order in which they are sent, whatever
  /// their identifiers. A hand hears a frame at its end and has its replies ready then. Delays of
  /// `Faults` come on top, and what is lost has passed all the same.
  void SetBitRates(const std::optional<BitRates>& rates);

  /// Holds from the next frame on. The count of `silent_after` starts anew.
  void SetFaults(const Faults& faults);
  BusStatistics Statistics() const;

 private:
  class State;
  std::shared_ptr<State> state_;
};

/// A host's place on the bus. One thread may send and close while another receives.
class KORVANE_SIM_EXPORT VirtualBus::Port {
 public:
  Port(const Port&) = delete;
  Port& operator=(const Port&) = delete;
  ~Port();

  /// False if the port is closed, the frame is no CAN FD frame, or as many frames as a port
  /// buffers wait for a bus with bit rates.
  bool Send(const Frame& frame);

  /// The next frame, waiting up to `wait` for it; none when the time is over or the port closed.
  std::optional<Frame> Receive(std::chrono::nanoseconds wait);

  /// Ends a waiting Receive. The port stays closed.
  void Close();
  bool IsClosed() const;

 private:
  friend class VirtualBus;
  struct Inbox;
  Port(std::shared_ptr<State> state, std::shared_ptr<Inbox> inbox);

  std::shared_ptr<State> state_;
  std::shared_ptr<Inbox> inbox_;
};

}  // namespace talvera::korvane::sim
