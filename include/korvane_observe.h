#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>

#include "korvane_export.h"

/// A look at the frames of one hand, for recorders, benches and diagnosis.
namespace talvera::korvane {

class Korvane;

/// One frame on a hand's link.
struct FrameEvent {
  bool sent;                                 ///< By this hand object; otherwise received.
  std::chrono::system_clock::time_point at;  ///< When the library sent it, or had it in hand.
  std::uint32_t id;          ///< CAN: the identifier, 29 bits. Serial: the frame's device id.
  const std::uint8_t* data;  ///< CAN: the payload. Serial: the whole frame. Valid in the call only.
  std::size_t size;          ///< How many bytes `data` holds.
};

/// Shows every frame of this hand to `tap` from now on, in their order; an empty one ends that. On
/// CAN these are the frames that were sent and all that the adapter receives on its channel, for
/// other hands too; on a serial link whole frames of the hand's id whose checksum passes, of which
/// noise on the line may have one shown twice. Frames that couldn't be sent aren't shown. Nothing
/// for a hand without a link.
///
/// `tap` is called on the threads that send and receive, several at a time, before a waiting caller
/// gets the frame, and sees a request before its reply. A caller that waits by events may receive.
/// So it should be quick, must not throw, and must neither call the hand nor wait for another
/// frame, which may itself wait for the tap. Any thread may call this at any time, but not from
/// within a tap; a call of the former tap that has begun may still be running when it returns.
/// Costs nothing while there is no tap.
KORVANE_EXPORT void ObserveFrames(Korvane& hand, std::function<void(const FrameEvent&)> tap);

}  // namespace talvera::korvane
