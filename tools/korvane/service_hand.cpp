#include "service_hand.h"

#include <algorithm>
#include <utility>

namespace korvane_tool {
namespace {

namespace kv = talvera::korvane;

/// Longer than the 50 ms of the library: a hand that stores settings answers late.
constexpr int kReplyTimeMs = 200;

/// Whether several hands of that bus would take the requests.
bool HasRivals(HandAddress bus) {
  bus.model.reset();
  bus.id.reset();
  kv::FindOptions options;
  options.places = {bus};
  const auto found = FindHands(options).hands;
  return std::count_if(found.begin(), found.end(), [](const kv::FoundHand& hand) {
           return kv::InfoOf(hand.model).has_service;
         }) > 1;
}

}  // namespace

ServiceHand OpenService(const Tool& tool) {
  const HandAddress where = tool.Address();
  auto hand = OpenServiceHand(where);
  if (!hand) {
    const bool refused = hand.failure().kind == FailureKind::REFUSED;
    if (refused && HasRivals(where)) throw ToolError(kSeveral, hand.failure());
    throw ToolError(StatusOfOpening(hand.failure(), where), hand.failure());
  }
  const int asked_for = tool.options.timeout_ms;
  hand->hand->SetFrameRecvTimeout(asked_for != 0 ? asked_for : kReplyTimeMs);
  return *std::move(hand);
}

}  // namespace korvane_tool
