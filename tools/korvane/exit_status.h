#pragma once

#include <korvane_diagnostics.h>
#include <korvane_open.h>

namespace korvane_tool {

/// How the tool ends, and the bridge to ROS 2; the same for all commands.
enum ExitStatus : int {
  kDone = 0,          ///< Everything that was asked for is done.
  kFailed = 1,        ///< The hand refused or failed, or the output couldn't be written.
  kUsage = 2,         ///< What was asked for makes no sense; nothing was sent.
  kNoLink = 3,        ///< The link can't be opened, or has gone.
  kNobody = 4,        ///< Nobody answers.
  kOtherModel = 5,    ///< Another model than that of the address answers.
  kSeveral = 6,       ///< Several hands answer, and the address doesn't say which.
  kInterrupted = 130  ///< Ctrl-C, or the wish to end.
};

/// The status that fits a failed operation of a hand.
ExitStatus StatusOf(const talvera::korvane::Failure& failure);

/// The status for a hand that wasn't opened. A refusal doesn't say whether another model answers or
/// several hands do: asks again who is there.
ExitStatus StatusOfOpening(const talvera::korvane::Failure& failure,
                           const talvera::korvane::HandAddress& address);

}  // namespace korvane_tool
