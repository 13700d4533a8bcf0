#pragma once

#include <korvane_diagnostics.h>
#include <korvane_open.h>

namespace korvane_common {

/// How the programs end.
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

/// The status for a hand that OpenHand didn't open, or OpenServiceHand. A refusal doesn't say
/// whether another model answers or several hands do: asks again who is there.
ExitStatus StatusOfOpening(const talvera::korvane::Failure& failure,
                           const talvera::korvane::HandAddress& address);
ExitStatus StatusOfOpeningService(const talvera::korvane::Failure& failure,
                                  talvera::korvane::HandAddress address);

}  // namespace korvane_common
