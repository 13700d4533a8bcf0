// What arrives on a CAN bus: any frames, those that nobody asked for, those that answer an
// operation, and those that come while an update runs.

#include "can_hands.h"
#include "operations.h"

using namespace talvera::korvane;
using namespace talvera::korvane::fuzz;

namespace {

constexpr DispatchRules kRules[] = {kSocketCanDispatch, kZlgDispatch, kHcanDispatch};

std::vector<test::HandOperation> OperationsOf(KorvaneBase& hand) {
  using test::operator+;
  const int motors = InfoOf(static_cast<Model>(hand.model_code)).positions;
  auto operations = test::HandOperations(static_cast<std::size_t>(motors));
  if (dynamic_cast<KorvaneBrisa*>(&hand) != nullptr) {
    operations = operations + test::TouchOperations();
  }
  if (dynamic_cast<PrivateKorvane*>(&hand) == nullptr) return operations;
  return operations + test::ServiceOperations(static_cast<std::uint8_t>(motors));
}

CanfdFrame FrameOf(Input& input, std::uint32_t id) {
  return test::MakeFrame(id, input.Block(kMaxPayload));
}

/// With an identifier of a report, an update reply or the service interface, or any.
CanfdFrame UnaskedFrame(Input& input) {
  const std::uint32_t part = input.Byte() & 0x1FU;
  const std::uint32_t ids[] = {9, 0xF20100 | part << 24 | kId, 0xF20700 | part << 24 | kId,
                               0x200100 | part << 16 | kId, input.Take<std::uint32_t>()};
  return FrameOf(input, input.Of(ids));
}

/// Changes a byte of a hand's reply, its length or a bit of its identifier.
void Change(Input& input, CanfdFrame& reply) {
  const std::uint32_t at = input.Byte();
  const std::uint8_t value = input.Byte();
  if (at < kMaxPayload) reply.data[at] = value;
  if (at >= kMaxPayload && at < 0x80) reply.len = value % (kMaxPayload + 1);
  if (at >= 0xE0) reply.can_id ^= 1U << (at & 0x1FU);
}

/// What comes in a wait: what a hand answers to what was sent, as it is or changed; any frame that
/// answers the last sent one; an unasked one; or nothing.
Frames Coming(CanHand& place, Input& input, const Frames& sent, std::uint32_t last_id) {
  Frames answers = place.Answers(sent);
  const std::size_t kind = input.Below(8);
  if (kind == 7 || input.IsOver()) return {};
  if (kind < 2) return {FrameOf(input, last_id & ~0x80U)};
  if (kind == 2) return {UnaskedFrame(input)};
  if (kind >= 5) {
    for (CanfdFrame& answer : answers) Change(input, answer);
  }
  return answers;
}

void Touch(KorvaneBase& hand, Finger finger) {
  if (auto* const tessel = dynamic_cast<KorvaneTessel*>(&hand)) {
    tessel->GetTactileSensor3DData(finger);
  } else if (auto* const raw = dynamic_cast<IBR7TactileSensor1D*>(&hand)) {
    raw->GetTactileSensorDataRaw(finger);
    raw->GetAllTactileSensorDataRaw();
  }
}

/// One of the steps that a hand of one of these classes has; nothing for another one.
template <class... Hands>
void TakePublicStep(KorvaneBase& hand, std::size_t which) {
  const auto take = [which](auto* stepping) {
    if (stepping == nullptr) return;
    if (which == 0) stepping->GetUpgradeResult();
    if (which == 1) stepping->SendFinishRequest();
    if (which == 2) stepping->SendRestartRequest();
  };
  (take(dynamic_cast<Hands*>(&hand)), ...);
}

void TakeServiceStep(KorvaneBrisaCanPrivateImpl& hand, std::size_t which) {
  if (which == 0) hand.SendOtaRequestSynch(1, 5000, 3);
  if (which == 1) hand.SendOtaTransmitAndData({}, 1);
  if (which == 2) hand.SendOtaFinish();
  if (which == 3) hand.SendOtaRestart();
}

/// An update, or a step of one.
void StepOfUpdate(KorvaneBase& hand, Input& input) {
  const std::uint8_t byte = input.Byte();
  if ((byte & 2U) == 0) return UpdateSomehow(hand, byte);
  const std::size_t which = byte >> 2U & 3U;
  TakePublicStep<KorvaneBrisaCanImpl, KorvaneTesselCanImpl, KorvaneQuillCanImpl,
                 KorvaneLumenCanImpl, KorvaneVantaCanImpl>(hand, which);
  if (auto* const service = dynamic_cast<KorvaneBrisaCanPrivateImpl*>(&hand)) {
    TakeServiceStep(*service, which);
  }
}

/// The link is cut or whole again, or the next updates fail.
void Disturb(CanHand& place, Input& input) {
  const std::uint8_t how = input.Byte();
  place.link->is_cut = (how & 1U) != 0;
  if ((how & 2U) != 0) place.end.hand.Firmware().AddFault(AnyUpdateFault(input));
}

void TakeStep(CanHand& place, const std::vector<test::HandOperation>& operations, Input& input) {
  const std::size_t kind = input.Below(8);
  if (kind == 0) place.link->Dispatch(UnaskedFrame(input), place.link->rules);
  if (kind == 1) Disturb(place, input);
  if (kind >= 2 && kind < 6) CallOneOf(operations, *place.hand, input);
  if (kind == 6) Touch(*place.hand, static_cast<Finger>(input.Below(9)));
  if (kind == 7) StepOfUpdate(*place.hand, input);
}

}  // namespace

void talvera::korvane::fuzz::Fuzz(Input& input) {
  static std::vector<test::HandOperation> operations[std::size(kMakers)];
  const std::size_t which = input.Byte();
  const std::size_t maker = which % std::size(kMakers);
  CanHand place(kMakers[maker]);
  if (operations[maker].empty()) operations[maker] = OperationsOf(*place.hand);
  place.link->rules = kRules[which / std::size(kMakers) % std::size(kRules)];
  std::uint32_t last_id = 0;
  place.link->on_wait = [&](const Frames& sent) {
    if (!sent.empty()) last_id = sent.back().can_id;
    return Coming(place, input, sent, last_id);
  };
  while (!input.IsOver()) {
    try {
      TakeStep(place, operations[maker], input);
    } catch (const std::exception&) {
      // How some operations refuse.
    }
  }
}
