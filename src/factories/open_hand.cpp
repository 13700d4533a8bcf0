#include <algorithm>

#include "can/hcan_device.h"
#include "factories/asked_link.h"
#include "factories/bus_probe.h"
#include "factories/known_models.h"
#include "factories/product_types.h"
#include "factories/serial_probe.h"
#include "protocol/can/korvane_brisa_can_impl.h"
#include "protocol/can/korvane_lumen_can_impl.h"
#include "protocol/can/korvane_quill_can_impl.h"
#include "protocol/can/korvane_tessel_can_impl.h"
#include "protocol/can/korvane_vanta_can_impl.h"
#include "protocol/serial/korvane_brisa_serial_impl.h"
#include "util/text.h"

namespace talvera::korvane {
namespace {

using Hand = std::unique_ptr<KorvaneBase>;

constexpr std::chrono::milliseconds kBusAnswerTime(100);
constexpr std::chrono::milliseconds kSerialAnswerTime(500);

template <class Impl>
Hand Make(HandType side, std::uint8_t id, std::unique_ptr<CanBusDeviceBase> bus) {
  return std::make_unique<Impl>(side, id, std::move(bus));
}

using Maker = Hand (*)(HandType, std::uint8_t, std::unique_ptr<CanBusDeviceBase>);

/// By model.
constexpr Maker kMakers[] = {&Make<KorvaneBrisaCanImpl>, &Make<KorvaneTesselCanImpl>,
                             &Make<KorvaneQuillCanImpl>, &Make<KorvaneLumenCanImpl>,
                             &Make<KorvaneVantaCanImpl>};

/// A hand on a bus, and which model it is, if it is one.
struct Candidate {
  BusHand hand;
  std::optional<Model> model;
};

bool IsGone(const BusHand& hand) { return hand.vendor_failure.has_value(); }

std::string Describe(const Candidate& candidate) {
  std::string what = "unknown " + Describe(candidate.hand.vendor);
  if (IsGone(candidate.hand)) what = "one that told no more";
  if (candidate.model) what = ToString(*candidate.model);
  return Compose(what, " with id ", candidate.hand.id);
}

std::string List(const std::vector<Candidate>& candidates) {
  std::string text;
  for (const Candidate& candidate : candidates) {
    text += (text.empty() ? "" : ", ") + Describe(candidate);
  }
  return text;
}

std::string Wanted(const HandAddress& address) {
  std::string text = address.model ? ToString(*address.model) : "hand";
  if (address.id) text += Compose(" with id ", *address.id);
  return text;
}

Failure Nobody(const HandAddress& address, const std::optional<Failure>& send_failure) {
  const std::string where = LinkText(address);
  if (send_failure) {
    Failure failure = *send_failure;
    failure.text = Compose(where, ": ", send_failure->text);
    return failure;
  }
  const std::string with_id = address.id ? Compose(" with id ", *address.id) : "";
  return {FailureKind::NO_REPLY, "", where + ": no hand" + with_id + " answers"};
}

Failure NotWanted(const HandAddress& address, const std::vector<Candidate>& all) {
  bool known = false;
  for (const Candidate& candidate : all) known = known || candidate.model;
  const auto kind = known ? FailureKind::REFUSED : FailureKind::BAD_REPLY;
  return {kind, "",
          Compose(LinkText(address), ": no ", Wanted(address), "; what answers is: ", List(all)),
          0};
}

Failure Several(const HandAddress& address, const std::vector<Candidate>& all) {
  HandAddress first = address;
  first.model = all.front().model;
  first.id = all.front().hand.id;
  return {FailureKind::REFUSED, "",
          Compose(LinkText(address), ": several hands answer: ", List(all), "; name one, such as ",
                  first.ToString())};
}

/// The one that the address means.
Outcome<Candidate> Choose(const HandAddress& address, const BusAnswers& answers) {
  if (answers.hands.empty()) return Nobody(address, answers.send_failure);
  if (std::all_of(answers.hands.begin(), answers.hands.end(), &IsGone)) {
    return answers.hands.front().VanishedOn(LinkText(address));
  }
  std::vector<Candidate> all;
  for (const BusHand& hand : answers.hands) all.push_back({hand, hand.KnownModel()});
  std::vector<Candidate> meant;
  for (const Candidate& candidate : all) {
    if (!address.model || candidate.model == address.model) meant.push_back(candidate);
  }
  if (meant.size() > 1) return Several(address, meant);
  if (meant.empty() || !meant.front().model) return NotWanted(address, all);
  if (meant.front().hand.rival) return meant.front().hand.SharedOn(LinkText(address));
  return meant.front();
}

/// An HCAN adapter runs with the bit timing of the model; the others do with that of any.
std::optional<Failure> FitTiming(AskedLink& link, const HandAddress& address, Model model,
                                 std::uint8_t asked_as) {
  const std::uint8_t product = CodeOf(model);
  const bool fits = HasTesselTiming(product) == HasTesselTiming(asked_as);
  if (address.link != LinkKind::HCAN || fits) return std::nullopt;
  return link.Open(address, product);
}

Outcome<Hand> OpenOnCan(const HandAddress& address) {
  AskedLink link;
  std::uint8_t product = 0;
  BusAnswers answers;
  for (const std::uint8_t candidate : ProductTypesFor(address)) {
    product = candidate;
    if (auto failure = link.Open(address, product)) return *failure;
    answers = address.id ? AskId(link.Bus(), *address.id, address.model)
                         : AskBus(link.Bus(), EveryId(), kBusAnswerTime);
    if (!answers.hands.empty()) break;
  }
  const auto chosen = Choose(address, answers);
  if (!chosen) return chosen.failure();
  const Model model = *chosen->model;
  if (auto failure = FitTiming(link, address, model, product)) return *failure;
  // The object that asked carries the hand from here on: a ZLG channel that was closed in between
  // would not open again.
  return kMakers[static_cast<std::size_t>(model)](address.side, chosen->hand.id, link.Release());
}

Outcome<Hand> OpenOnSerial(const HandAddress& address) {
  if (address.model && address.model != Model::BRISA) {
    return Failure{FailureKind::NOT_SUPPORTED, "",
                   Compose(LinkText(address), ": a ", ToString(*address.model),
                           " isn't to be had on a serial link; only a brisa is")};
  }
  auto answer = AskPort(address, kSerialAnswerTime);
  if (!answer) return answer.failure();
  const Candidate found{{answer->hand->device_id, Known(Model::BRISA).family, answer->vendor},
                        ModelOf(answer->vendor, Known(Model::BRISA).family)};
  HandAddress wanted = address;
  wanted.model = Model::BRISA;
  if (found.model != Model::BRISA) return NotWanted(wanted, {found});
  return Hand(std::move(answer->hand));
}

Failure Named(Failure failure) {
  failure.operation = "OpenHand";
  return failure;
}

}  // namespace

Outcome<Hand> OpenHand(const HandAddress& address) {
  const auto checked = HandAddress::Parse(address.ToString());
  if (!checked) return Named(checked.failure());
  auto hand = address.link == LinkKind::SERIAL ? OpenOnSerial(address) : OpenOnCan(address);
  if (!hand) return Named(hand.failure());
  return hand;
}

Outcome<Hand> OpenHand(const std::string& text) {
  const auto address = HandAddress::Parse(text);
  if (!address) return Named(address.failure());
  return OpenHand(*address);
}

}  // namespace talvera::korvane
