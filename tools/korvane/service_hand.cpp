#include "service_hand.h"

#include <utility>

namespace korvane_tool {
namespace {

/// Longer than the 50 ms of the library: a hand that stores settings answers late.
constexpr int kReplyTimeMs = 200;

}  // namespace

ServiceHand OpenService(const Tool& tool) {
  const HandAddress where = tool.Address();
  auto hand = OpenServiceHand(where);
  if (!hand) throw ToolError(StatusOfOpeningService(hand.failure(), where), hand.failure());
  const int asked_for = tool.options.timeout_ms;
  hand->hand->SetFrameRecvTimeout(asked_for != 0 ? asked_for : kReplyTimeMs);
  return *std::move(hand);
}

}  // namespace korvane_tool
