#pragma once

#include <algorithm>
#include <cstddef>

#include "can/can_frame.h"
#include "protocol/service/service_command.h"

namespace talvera::korvane {

/// The one identifier of the service protocol on CAN, in both directions. Neither the hand nor the
/// command is in it, so that there is one hand with a service object on a bus.
inline constexpr std::uint32_t kServiceId = 9;

/// By which the transport knows the reply to a request: it bears the same identifier, and that is
/// all that is looked at.
inline bool StandardFrameMatch(std::uint32_t request_id, std::uint32_t received_id) {
  return request_id == received_id;
}
inline std::uint32_t StandardFrameRepId(std::uint32_t request_id) { return request_id; }

/// A command, or a reply: the command byte, then the payload. What doesn't fit is left out.
inline CanfdFrame ServiceFrame(ServiceCommand command, const void* payload, std::size_t size) {
  CanfdFrame frame;
  frame.can_id = kServiceId;
  frame.data[0] = static_cast<std::uint8_t>(command);
  size = payload == nullptr ? 0 : std::min<std::size_t>(size, kMaxPayload - 1);
  std::copy_n(static_cast<const std::uint8_t*>(payload), size, frame.data + 1);
  frame.len = static_cast<std::uint8_t>(size + 1);
  return frame;
}

inline CanfdFrame ServiceFrame(ServiceCommand command, const ServicePayload& payload) {
  return ServiceFrame(command, payload.Data(), payload.Size());
}

}  // namespace talvera::korvane
