#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "korvane_sim/frame.h"

namespace talvera::korvane::sim {

/// The closed library through which an adapter is seen.
enum class AdapterKind : std::uint8_t { kZlg = 0, kHcan = 1 };

struct AdapterInfo {
  std::string serial_number;
  std::string hardware_type;
  std::uint8_t channels = 0;
  std::uint32_t clock_hz = 0;
};

/// A started channel: a place on a bus. One thread may send or close while another receives.
class Link {
 public:
  Link() = default;
  Link(const Link&) = delete;
  Link& operator=(const Link&) = delete;
  virtual ~Link() = default;

  /// False if the frame couldn't be handed over.
  virtual bool Send(const Frame& frame) = 0;
  /// Waits up to `wait` for a frame and returns what is there, at most `capacity` frames.
  virtual std::vector<Frame> Receive(std::size_t capacity, std::chrono::milliseconds wait) = 0;
  /// Ends a waiting Receive; from then on nothing is sent or received.
  virtual void Close() = 0;
};

/// Where the adapters behind the functions of the closed libraries come from. Thread-safe.
class Backend {
 public:
  Backend() = default;
  Backend(const Backend&) = delete;
  Backend& operator=(const Backend&) = delete;
  virtual ~Backend() = default;

  virtual std::size_t Count(AdapterKind kind) = 0;
  virtual std::optional<AdapterInfo> Info(AdapterKind kind, std::size_t adapter) = 0;
  /// Null if there is no such channel or no simulator.
  virtual std::shared_ptr<Link> Attach(std::size_t adapter, std::size_t channel) = 0;
};

/// The backend of this process, null if there is none now. The socket backend of the stand-in
/// libraries and the in-process adapters each define it.
std::shared_ptr<Backend> CurrentBackend();

}  // namespace talvera::korvane::sim
