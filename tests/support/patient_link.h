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

}  // namespace talvera::korvane::test
