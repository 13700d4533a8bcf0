#include "exit_status.h"

#include <korvane_model.h>

#include <algorithm>

namespace korvane_common {

namespace kv = talvera::korvane;
using kv::Failure;
using kv::FailureKind;
using kv::FoundHand;
using kv::HandAddress;

namespace {

/// The status of a refusal, by the hands at `place` that the refused one can be taken for.
template <class IsMeant>
ExitStatus StatusOfRefusal(const HandAddress& place, IsMeant is_meant) {
  kv::FindOptions options;
  options.places = {place};
  // A machine that is busy was so a moment ago, too.
  options.answer_time *= 2;
  const auto [hands, not_asked] = FindHands(options);
  const bool share_id = std::any_of(not_asked.begin(), not_asked.end(), [](const Failure& why) {
    return why.kind == FailureKind::REFUSED;
  });
  return share_id || std::count_if(hands.begin(), hands.end(), is_meant) > 1 ? kSeveral
                                                                             : kOtherModel;
}

}  // namespace

ExitStatus StatusOfOpening(const Failure& failure, const HandAddress& address) {
  if (failure.kind != FailureKind::REFUSED) return StatusOf(failure);
  return StatusOfRefusal(address, [&](const FoundHand& hand) {
    return !address.model || hand.model == *address.model;
  });
}

ExitStatus StatusOfOpeningService(const Failure& failure, HandAddress address) {
  if (failure.kind != FailureKind::REFUSED) return StatusOf(failure);
  // Its requests name no hand: all of the bus that have the interface take them.
  address.model.reset();
  address.id.reset();
  return StatusOfRefusal(address,
                         [](const FoundHand& hand) { return kv::InfoOf(hand.model).has_service; });
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

}  // namespace korvane_common
