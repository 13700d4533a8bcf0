#include "update_advice.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>

namespace korvane_tool {
namespace {

using talvera::korvane::OtaProgressStatus;

/// The serial link reports so a hand that refused, too; what was recorded tells the two apart.
constexpr int kNotAcknowledged = -4;
constexpr int kBadChecksum = -7;
/// A check that failed is reported as this status of the hand when the update ends.
constexpr int kBadChecksumAtEnd = 1;

struct CodeRow {
  int code;
  const char* advice;
};

constexpr std::array<CodeRow, 7> kByCode{{
    {-1,
     "This hand can't be updated over this link, or the link isn't open: update it over "
     "another one."},
    {-2, "Nothing was sent: the file can't be opened any more. Check its path and permissions."},
    {-3, "Nothing was sent: the file is empty or can't be read any more. Get it once more."},
    {kNotAcknowledged,
     "The hand didn't acknowledge the request. Switch it off and on, look with `korvane info`, "
     "and update once more."},
    {-5,
     "The hand holds the image and didn't say that it restarts. Switch it off and on and look "
     "at its version with `korvane info`."},
    {-6,
     "Packets weren't acknowledged in time. Check cable and bus, measure losses with `korvane "
     "bench`, and update once more."},
    {kBadChecksum,
     "A packet failed the hand's check: the file isn't for this hand, or the link "
     "spoils bytes. Check the file and the cable, and update once more."},
}};

struct KindRow {
  FailureKind kind;
  const char* advice;
};

constexpr std::array<KindRow, 7> kByKind{{
    {FailureKind::BAD_ARGUMENT, "Nothing was sent. Check the file."},
    {FailureKind::NOT_SUPPORTED, "This model can't be updated over this link."},
    {FailureKind::NO_LINK, "The link is gone. Plug it in again and update once more."},
    {FailureKind::SEND_FAILED,
     "The link takes no frames. Check cable, adapter and bus, and update "
     "once more."},
    {FailureKind::NO_REPLY,
     "The hand fell silent. Switch it off and on, look with `korvane info`, "
     "and update once more."},
    {FailureKind::BAD_REPLY,
     "The hand answered something else. Leave only one program on the link "
     "and update once more."},
    {FailureKind::REFUSED,
     "The hand refused. Check that the file is for this model and hardware, "
     "and update once more."},
}};

}  // namespace

void Take(UpdateState& state, int current, int total, OtaProgressStatus status) {
  if (total > 0) state.total = total;
  switch (status) {
    case OtaProgressStatus::FAILED:
      if (!(current == kBadChecksumAtEnd && state.code == kBadChecksum)) state.code = current;
      break;
    case OtaProgressStatus::REQUESTING_UPGRADE:
      state.asked = true;
      break;
    case OtaProgressStatus::UPGRADE_ACCEPTED:
      state.accepted = true;
      break;
    case OtaProgressStatus::PACKET_ACKNOWLEDGED:  // the links count differently
      state.accepted = true;
      state.done = std::min(state.done + 1, state.total);
      break;
    case OtaProgressStatus::FINISH_ACKNOWLEDGED:
    case OtaProgressStatus::RESTART_ACKNOWLEDGED:
    case OtaProgressStatus::RECONNECTING:
      state.whole = true;
      break;
    case OtaProgressStatus::COMPLETE:
      state.complete = true;
      break;
    default:
      break;
  }
}

std::string StateOfHand(const UpdateState& state) {
  if (state.whole) {
    return "The hand was sent the whole image and may restart with it; `korvane info` tells which "
           "version it runs.";
  }
  if (state.accepted) {
    return fmt::format(
        "The hand took {} of {} packets: it may be without firmware until the update is done again "
        "to its end.",
        state.done, state.total);
  }
  if (state.asked) {
    return "The hand was asked for an update and took no packet; `korvane info` tells whether it "
           "still runs.";
  }
  return "Nothing was sent: the hand runs what it ran before.";
}

std::string WhatToDo(const UpdateState& state, FailureKind kind) {
  const bool refused = kind == FailureKind::REFUSED;
  if (refused && state.complete) {
    return "The hand holds the image and refuses to restart. Switch it off and on and look at its "
           "version with `korvane info`.";
  }
  const bool tells_more = refused && state.code == kNotAcknowledged;
  const auto code = std::find_if(kByCode.begin(), kByCode.end(),
                                 [&](const CodeRow& row) { return row.code == state.code; });
  if (code != kByCode.end() && !tells_more) return code->advice;
  if (state.code != 0 && !tells_more) {
    return fmt::format(
        "The hand refused with status {}. Check that the file is for this model and "
        "hardware, switch the hand off and on, and update once more.",
        state.code);
  }
  const auto row = std::find_if(kByKind.begin(), kByKind.end(),
                                [&](const KindRow& r) { return r.kind == kind; });
  return row == kByKind.end() ? "Look at the hand with `korvane info`, and update once more."
                              : row->advice;
}

}  // namespace korvane_tool
