#include "hand_id.h"

#include <fmt/format.h>

#include <string>
#include <utility>

namespace korvane_tool {
namespace {

/// An object on a serial port listens all its life to the id of the first frame that comes, and
/// that may be the late acknowledgment under the old id: the second object hears the new one.
Outcome<std::unique_ptr<KorvaneBase>> OpenAnew(const HandAddress& where) {
  auto hand = OpenHand(where);
  return hand ? std::move(hand) : OpenHand(where);
}

Outcome<void> AskUnder(OpenedHand& hand, const HandAddress& address) {
  if (address.link == LinkKind::SERIAL) {
    hand.hand.reset();  // a port belongs to one object
    auto again = OpenAnew(address);
    if (!again) return again.failure();
    hand.hand = *std::move(again);
    return {};
  }
  hand->device_id = *address.id;
  const auto model = IdentifyHand(*hand);
  if (!model) return model.failure();
  if (*model == *address.model) return {};
  return Failure{FailureKind::BAD_REPLY, "", fmt::format("a {} answers there", ToString(*model))};
}

}  // namespace

void NeedFreeId(const OpenedHand& hand, std::uint8_t id) {
  // A serial port has one hand, which answers whatever id is asked.
  if (hand.address.link == LinkKind::SERIAL || id == *hand.address.id) return;
  hand->device_id = id;
  const auto other = IdentifyHand(*hand);
  hand->device_id = *hand.address.id;
  const FailureKind kind = other.failure().kind;
  if (kind == FailureKind::NO_REPLY) return;
  if (!other && kind != FailureKind::BAD_REPLY) throw ToolError(other.failure());
  throw ToolError(kFailed, fmt::format("the id {} is taken: {} answers under it; nothing was sent "
                                       "to the hand",
                                       id,
                                       other ? fmt::format("a {}", ToString(*other))
                                             : std::string("something unknown")));
}

void GiveId(OpenedHand& hand, std::uint8_t id) {
  const HandAddress before = hand.address;
  HandAddress after = before;
  after.id = id;
  Need(Checked(*hand, [&](KorvaneBase& h) { h.SetDeviceId(id); }));
  const auto taken = AskUnder(hand, after);
  if (!taken) {
    const bool is_old = static_cast<bool>(AskUnder(hand, before));
    throw ToolError(StatusOf(taken.failure()),
                    fmt::format("the hand doesn't answer under the id {} ({}); {}", id,
                                PlainText(taken.failure()),
                                is_old ? fmt::format("it still has the id {}", *before.id)
                                       : "nor under the one before: `korvane find` looks for it"));
  }
  hand.address = after;
}

}  // namespace korvane_tool
