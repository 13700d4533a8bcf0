#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <utility>

#include "backend.h"
#include "util/guarded.h"

namespace talvera::korvane::sim {

/// What a process has opened through one of the closed libraries. Thread-safe.
class ChannelTable {
 public:
  ChannelTable(AdapterKind kind, std::shared_ptr<Backend> backend)
      : kind_(kind), backend_(std::move(backend)) {}

  std::size_t Count() { return backend_->Count(kind_); }

  /// False if it is open already or doesn't exist.
  bool OpenDevice(std::uint32_t index);
  /// Opens the device on the way. False if the channel is open already or doesn't exist.
  bool OpenChannel(std::uint32_t index, std::uint32_t channel);
  bool CloseDevice(std::uint32_t index);

  /// Of an open device.
  std::optional<AdapterInfo> Info(std::uint32_t index);

  // Of an open channel; false or null if it isn't open.
  bool IsOpen(std::uint32_t index, std::uint32_t channel);
  bool Start(std::uint32_t index, std::uint32_t channel);
  bool Stop(std::uint32_t index, std::uint32_t channel);
  /// Null also for a channel that isn't started.
  std::shared_ptr<Link> StartedLink(std::uint32_t index, std::uint32_t channel);

 private:
  struct Device {
    AdapterInfo info;
    std::map<std::uint32_t, std::shared_ptr<Link>> links;  ///< Of open channels; null if stopped.
  };

  std::optional<Device> MakeDevice(std::uint32_t index);
  std::shared_ptr<Link>* Find(std::uint32_t index, std::uint32_t channel) KORVANE_REQUIRES(mutex_);

  const AdapterKind kind_;
  const std::shared_ptr<Backend> backend_;
  Mutex mutex_;
  std::map<std::uint32_t, Device> devices_ KORVANE_GUARDED_BY(mutex_);
};

/// Both libraries keep a frame in 80 bytes.
inline constexpr std::size_t kFrameRecordSize = 80;

/// Sends `count` records and returns how many were taken.
template <class Parse>
std::size_t TransmitRecords(Link& link, const void* frames, std::size_t count, Parse parse) {
  const auto* record = static_cast<const std::uint8_t*>(frames);
  for (std::size_t sent = 0; sent < count; ++sent, record += kFrameRecordSize) {
    const std::optional<Frame> frame = parse(record);
    if (!frame || !link.Send(*frame)) return sent;
  }
  return count;
}

/// Receives up to `capacity` records and returns how many came.
template <class Store>
std::size_t ReceiveRecords(Link& link, void* frames, std::size_t capacity, int wait_ms,
                           Store store) {
  constexpr std::size_t kMaxBatch = 4096;
  const auto received =
      link.Receive(std::min(capacity, kMaxBatch), std::chrono::milliseconds(std::max(wait_ms, 0)));
  auto* record = static_cast<std::uint8_t*>(frames);
  for (const Frame& frame : received) {
    std::fill_n(record, kFrameRecordSize, std::uint8_t{0});
    store(record, frame);
    record += kFrameRecordSize;
  }
  return received.size();
}

}  // namespace talvera::korvane::sim
