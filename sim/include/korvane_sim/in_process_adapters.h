#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

#include "korvane_sim/export.h"
#include "korvane_sim/virtual_bus.h"

namespace talvera::korvane::sim {

struct AdapterOptions {
  std::size_t adapters = 1;           ///< 1 to 8.
  std::size_t channels = 2;           ///< Of each adapter, 1 to 16.
  std::uint32_t clock_hz = 80000000;  ///< What an HCAN adapter tells; 0 for unknown.
  std::uint64_t seed = 1;             ///< For the faults; each bus draws its own from it.
};

/// Adapters inside the process itself.
///
/// A program that links korvane::sim has the functions of both closed adapter libraries, and the
/// hand library uses those instead of loading a library. While an InProcessAdapters lives, they
/// reach its buses; without one they fail as if no adapter were plugged in. Adapter i is
/// "SIM-ZLG-000i" as a ZLG device and "SIM-HCAN-000i" as an HCAN device, with the same buses behind
/// both:
///
///     sim::InProcessAdapters adapters;
///     adapters.Bus(0, 0).Add({sim::kBrisa, 1});
///     auto hand = KorvaneBrisa::createHandByZlgcan(HandType::LEFT, 1, 0, 0);
///
/// Destroy hands first. Thread-safe.
class KORVANE_SIM_EXPORT InProcessAdapters {
 public:
  /// Throws std::invalid_argument for numbers out of range and std::logic_error if another
  /// InProcessAdapters lives.
  explicit InProcessAdapters(const AdapterOptions& options = {});
  /// `clock` must outlive everything that uses the buses.
  InProcessAdapters(const AdapterOptions& options, Clock& clock);
  InProcessAdapters(const InProcessAdapters&) = delete;
  InProcessAdapters& operator=(const InProcessAdapters&) = delete;
  ~InProcessAdapters();

  /// The bus behind a channel. Throws std::out_of_range if there is none.
  VirtualBus& Bus(std::size_t adapter, std::size_t channel);

 private:
  class Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace talvera::korvane::sim
