#pragma once

#include "can/can_link.h"
#include "korvane.h"

namespace talvera::korvane::test {

/// Lets a hand on CAN wait a minute for each reply, beyond any delay of a busy machine. The second
/// that an application may set at most isn't.
inline void BePatient(Korvane& hand) {
  dynamic_cast<CanLinkOwner&>(hand).Link().transport->frame_recv_timeout_ms_ = 60'000;
}

}  // namespace talvera::korvane::test
