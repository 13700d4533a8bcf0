#pragma once

#include <chrono>

// How an update over CAN is paced and how long it waits, in the public protocol and in that of the
// service interface.

namespace talvera::korvane::can_pacing {

// The pacing is all there is of flow control.
inline constexpr std::chrono::milliseconds kAfterChecksum{10};
inline constexpr std::chrono::milliseconds kAfterDataFrame{5};

/// Between two looks at what the hand has answered.
inline constexpr std::chrono::milliseconds kPoll{500};
/// Looks for the confirmation of the end, and for that of the restart.
inline constexpr int kFlagPolls = 60;

inline constexpr std::chrono::milliseconds kBeforeReconnect{100};
inline constexpr int kReconnectAttempts = 10;

}  // namespace talvera::korvane::can_pacing
