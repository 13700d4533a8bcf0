#include "exit_status.h"

#include <algorithm>

namespace korvane_tool {

namespace kv = talvera::korvane;
using kv::Failure;
using kv::FailureKind;
using kv::HandAddress;

ExitStatus StatusOfOpening(const Failure& failure, const HandAddress& address) {
  if (failure.kind != FailureKind::REFUSED) return StatusOf(failure);
  kv::FindOptions options;
  options.places = {address};
  const auto [hands, not_asked] = FindHands(options);
  const auto meant = std::count_if(hands.begin(), hands.end(), [&](const kv::FoundHand& hand) {
    return !address.model || hand.model == *address.model;
  });
  const bool share_id = std::any_of(not_asked.begin(), not_asked.end(), [](const Failure& why) {
    return why.kind == FailureKind::REFUSED;
  });
  return meant > 1 || share_id ? kSeveral : kOtherModel;
}

ExitStatus StatusOf(const Failure& failure) {
  switch (failure.kind) {
    case FailureKind::NONE:
      return kDone;
    case FailureKind::BAD_ARGUMENT:
      return kUsage;
    case FailureKind::NO_LINK:
    case FailureKind::SEND_FAILED:
      return kNoLink;
    case FailureKind::NO_REPLY:
      return kNobody;
    case FailureKind::NOT_SUPPORTED:
    case FailureKind::BAD_REPLY:
    case FailureKind::REFUSED:
      return kFailed;
  }
  return kFailed;
}

}  // namespace korvane_tool
