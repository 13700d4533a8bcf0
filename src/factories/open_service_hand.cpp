#include "korvane_open_service.h"

#include <chrono>
#include <utility>

#include "private_korvane_brisa.h"
#include "private_korvane_lumen.h"
#include "util/text.h"

namespace talvera::korvane {
namespace {

using Hand = std::unique_ptr<KorvaneBase>;

/// A busy machine may keep a reply for a while, and a hand is refused only once.
constexpr int kCheckTimeoutMs = 200;

template <class Private>
Hand MakeOnCan(const HandAddress& where) {
  if (where.link == LinkKind::SOCKET_CAN) {
    return Private::createHandSocketCan(where.side, *where.id, where.interface_name);
  }
  const auto make = [&](const auto& adapter) -> Hand {
    return where.link == LinkKind::HCAN
               ? Private::createHandByHcan(where.side, *where.id, adapter, where.channel)
               : Private::createHandByZlgcan(where.side, *where.id, adapter, where.channel);
  };
  return where.adapter_index ? make(*where.adapter_index) : make(where.adapter_serial);
}

Hand Make(const HandAddress& where) {
  if (where.link == LinkKind::SERIAL) {
    return PrivateKorvaneBrisa::createHandByUsb(where.side, *where.id, where.port, where.baud);
  }
  return *where.model == Model::LUMEN ? MakeOnCan<PrivateKorvaneLumen>(where)
                                      : MakeOnCan<PrivateKorvaneBrisa>(where);
}

/// Before the hand is open, since the search leaves alone a ZLG adapter on which this process has
/// hands. Where it has any already the check can't be made, and nothing is opened on a guess.
Outcome<void> CheckOneOnBus(const HandAddress& address) {
  if (address.link == LinkKind::SERIAL) return {};
  FindOptions options;
  options.answer_time = std::chrono::milliseconds(kCheckTimeoutMs);
  options.places = {address};
  options.places[0].model.reset();
  options.places[0].id.reset();
  std::string speakers;
  int count = 0;
  const FindResult all = FindHands(options);
  for (const Failure& failure : all.not_asked) {
    const bool share_an_id = failure.kind == FailureKind::REFUSED;
    if (share_an_id || address.link == LinkKind::ZLG) return failure;
  }
  for (const FoundHand& found : all.hands) {
    if (!InfoOf(found.model).has_service) continue;
    speakers += (count++ == 0 ? "" : ", ") + found.address.ToString();
  }
  if (count < 2) return {};
  return Failure{FailureKind::REFUSED, "",
                 speakers +
                     ": requests of the service interface don't name a hand, and these would "
                     "all take them: leave only one on the bus"};
}

Outcome<void> CheckModel(const ServiceHand& hand) {
  const int before = hand.hand->GetFrameRecvTimeout();
  hand.hand->SetFrameRecvTimeout(kCheckTimeoutMs);
  const auto answers = IdentifyHand(*hand.hand);
  hand.hand->SetFrameRecvTimeout(before);
  if (!answers) return answers.failure();
  if (*answers == *hand.address.model) return {};
  return Failure{FailureKind::REFUSED, "",
                 Compose("a ", ToString(*answers),
                         " answers on the service interface: leave only one hand on the bus")};
}

Outcome<ServiceHand> Open(const HandAddress& address) {
  if (const auto alone = CheckOneOnBus(address); !alone) return alone.failure();
  auto face = OpenHand(address);
  if (!face) return face.failure();
  ServiceHand hand{address, *std::move(face), nullptr};
  hand.address.model = static_cast<Model>(hand.face->model_code);
  hand.address.id = hand.face->device_id;
  const ModelInfo& model = InfoOf(*hand.address.model);
  if (!model.has_service) {
    return Failure{FailureKind::NOT_SUPPORTED, "",
                   Compose("a ", model.name, " has no service interface")};
  }
  if (address.link == LinkKind::SERIAL) hand.face.reset();  // a port belongs to one object
  hand.hand = Make(hand.address);
  if (!hand.hand->connected) return LastFailure(*hand.hand);
  if (const auto same = CheckModel(hand); !same) return same.failure();
  return hand;
}

Outcome<ServiceHand> NamedOpening(Outcome<ServiceHand> outcome) {
  if (outcome) return outcome;
  Failure failure = outcome.failure();
  failure.operation = "OpenServiceHand";
  return failure;
}

}  // namespace

Outcome<ServiceHand> OpenServiceHand(const HandAddress& address) {
  return NamedOpening(Open(address));
}

Outcome<ServiceHand> OpenServiceHand(const std::string& text) {
  const auto address = HandAddress::Parse(text);
  if (!address) return NamedOpening(address.failure());
  return OpenServiceHand(*address);
}

}  // namespace talvera::korvane
