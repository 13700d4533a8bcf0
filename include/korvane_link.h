#pragma once

#include "korvane_export.h"

/// How a hand waits for what its link brings.
namespace talvera::korvane {

class Korvane;

/// How frames are received.
enum class Receiving {
  /// As it has always been, and at first. A SocketCAN hand reads its socket without a pause, which
  /// takes a core for each hand. A serial hand waits for the bytes that it has room for, so that a
  /// reply comes about 23 ms late at 115200 baud, and a reply that is there before the request has
  /// been written to its end is lost.
  AS_EVER,
  /// A SocketCAN hand sleeps until its socket has a frame. A thread that waits for a reply reads
  /// the socket itself, which saves the way from one thread to another; what callbacks get still
  /// comes to them on the receive thread. A serial hand reads what has arrived, and the first frame
  /// with the request's command since that began to be written answers it, also one that was on its
  /// way before; the late answer to another command, or a report, doesn't. A hand on a USB adapter
  /// sleeps in the adapter's library either way. On CAN a hand object that hasn't begun an update
  /// leaves alone that of another object or program; as ever it takes the hand's replies for its
  /// own and sends requests in between, and the hand refuses what comes twice.
  BY_EVENTS,
};

/// How this hand receives from now on. Nothing for a hand without a link. Any thread, at any time;
/// a request that waits meanwhile goes on. Takes up to 50 ms to show, or as long as such a request
/// waits; on a serial link as long as its reads wait, up to 270 ms at 9600 baud.
KORVANE_EXPORT void SetReceiving(Korvane& hand, Receiving how);

/// The same for all hands that the process makes from now on. Any thread, at any time.
KORVANE_EXPORT void SetDefaultReceiving(Receiving how);

}  // namespace talvera::korvane
