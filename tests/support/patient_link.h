#pragma once

#include "can/can_link.h"
#include "korvane.h"
#include "korvane_link.h"
#include "protocol/serial/korvane_brisa_serial_impl.h"
#include "serial/usb_device.h"

namespace talvera::korvane::test {

/// Lets a hand wait a minute for each reply, beyond any delay of a busy machine. The second that an
/// application may set at most isn't. A serial hand receives by events from now on: as ever a reply
/// that is there early is lost.
inline void BePatient(Korvane& hand) {
  constexpr int kMinute = 60'000;
  if (auto* const serial = dynamic_cast<KorvaneBrisaSerialImpl*>(&hand)) {
    serial->Device()->frame_recv_timeout_ms_ = kMinute;
    SetReceiving(hand, Receiving::BY_EVENTS);
  } else {
    dynamic_cast<CanLinkOwner&>(hand).Link().transport->frame_recv_timeout_ms_ = kMinute;
  }
}

/// What `attempt` gave last: until that is as expected, or the patience is over. Some answers are
/// waited for a fixed time, which a busy machine may let pass; asking again is what a user does
/// too.
template <class Attempt, class Expected>
auto Repeat(const Attempt& attempt, const Expected& expected) {
  auto result = attempt();
  for (int i = 1; i < 50 && !expected(result); ++i) result = attempt();
  return result;
}

}  // namespace talvera::korvane::test
