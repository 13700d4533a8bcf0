// Reads the limits of a hand's axes by its service interface, moves the lower one of the first axis
// and puts it back.
//
//   service_limits can0:lumen:1
//
// Nothing else may speak to the hand meanwhile. `korvane service` reads and sets everything.

#include <korvane_open_service.h>

#include "example.h"

namespace {

namespace kv = talvera::korvane;
using examples::Explain;

constexpr std::uint8_t kAxis = 1;
constexpr int kStep = 100;

kv::Outcome<kv::AxisLimitPos> ReadLimits(const kv::ServiceHand& hand) {
  return Checked(*hand.hand, [&](auto&) { return hand.Service().GetAxisLimitPos(); });
}

/// Sets the limit and reads it back.
kv::Outcome<bool> SetLower(const kv::ServiceHand& hand, int limit) {
  const auto value = static_cast<std::uint16_t>(limit);
  const auto taken =
      Checked(*hand.hand, [&](auto&) { return hand.Service().SetAxisMinPos(kAxis, value); });
  if (!taken) return taken.failure();
  const auto limits = ReadLimits(hand);
  if (!limits) return limits.failure();
  return *taken && limits->lower.size() >= kAxis && limits->lower[kAxis - 1] == value;
}

}  // namespace

int main(int argc, char** argv) {
  examples::Begin(argc, 1, "service_limits ADDRESS");
  const auto hand = kv::OpenServiceHand(argv[1]);
  if (!hand) return Explain(hand.failure());
  hand->hand->SetFrameRecvTimeout(examples::kReplyTimeMs);
  const auto limits = ReadLimits(*hand);
  if (!limits) return Explain(limits.failure());
  if (limits->lower.size() < kAxis || limits->upper.size() != limits->lower.size()) {
    std::fprintf(stderr, "The hand told only a part of its limits.\n");
    return EXIT_FAILURE;
  }
  for (std::size_t axis = 0; axis < limits->lower.size(); ++axis) {
    std::printf("axis %2zu: %5d to %5d\n", axis + 1, limits->lower[axis], limits->upper[axis]);
  }
  const int before = limits->lower[kAxis - 1];
  const auto moved = SetLower(*hand, before + kStep);
  const auto restored = SetLower(*hand, before);  // whatever became of the other
  if (!moved) return Explain(moved.failure());
  if (!restored) return Explain(restored.failure());
  std::printf("axis %d: lower limit %s, %s\n", kAxis, *moved ? "moved" : "NOT moved",
              *restored ? "put back" : "NOT PUT BACK");
  return *moved && *restored ? EXIT_SUCCESS : EXIT_FAILURE;
}
