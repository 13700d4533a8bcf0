#include "held_hand.h"

#include <korvane_link.h>
#include <private_korvane_brisa.h>
#include <private_korvane_lumen.h>

#include <utility>

namespace korvane_python {
namespace {

namespace kv = talvera::korvane;
using kv::Failure;
using kv::FailureKind;
using kv::HandAddress;
using kv::LinkKind;
using Made = std::unique_ptr<kv::KorvaneBase>;

/// Longer than the 50 ms of the library: a hand that stores settings answers late.
constexpr int kServiceReplyMs = 200;

template <class Hand>
Made MakeOnCan(const HandAddress& where) {
  if (where.link == LinkKind::SOCKET_CAN) {
    return Hand::createHandSocketCan(where.side, *where.id, where.interface_name);
  }
  const auto make = [&](const auto& adapter) -> Made {
    return where.link == LinkKind::HCAN
               ? Hand::createHandByHcan(where.side, *where.id, adapter, where.channel)
               : Hand::createHandByZlgcan(where.side, *where.id, adapter, where.channel);
  };
  return where.adapter_index ? make(*where.adapter_index) : make(where.adapter_serial);
}

Made MakeService(const HandAddress& where) {
  if (where.link == LinkKind::SERIAL) {
    return kv::PrivateKorvaneBrisa::createHandByUsb(where.side, *where.id, where.port, where.baud);
  }
  return *where.model == kv::Model::LUMEN ? MakeOnCan<kv::PrivateKorvaneLumen>(where)
                                          : MakeOnCan<kv::PrivateKorvaneBrisa>(where);
}

/// The hands on a bus that would take requests of the service interface, with commas if there are
/// several. Before a hand is open: the search leaves alone what this process uses.
std::string SeveralOnBus(HandAddress where) {
  if (where.link == LinkKind::SERIAL) return "";
  where.model.reset();
  where.id.reset();
  kv::FindOptions options;
  options.places = {where};
  std::string speakers;
  int count = 0;
  for (const kv::FoundHand& found : FindHands(options).hands) {
    if (!kv::InfoOf(found.model).has_service) continue;
    speakers += (count++ == 0 ? "" : ", ") + found.address.ToString();
  }
  return count > 1 ? speakers : "";
}

Failure Refusal(FailureKind kind, const std::string& text) { return {kind, "Open", text, 0}; }

/// What keeps the hand from being used; of kind NONE if nothing does.
Failure WhyNoService(const OpenedHand& opened) {
  if (!opened.hand->connected) return LastFailure(*opened.hand);
  const auto answers = IdentifyHand(*opened.hand);
  if (!answers) return answers.failure();
  if (*answers == *opened.address.model) return {};
  return Refusal(FailureKind::REFUSED, std::string("a ") + ToString(*answers) +
                                           " answers on the service interface: leave only one hand "
                                           "on the bus");
}

}  // namespace

kv::Outcome<OpenedHand> Open(const std::string& address) {
  const auto where = HandAddress::Parse(address);
  if (!where) return where.failure();
  auto hand = kv::OpenHand(*where);
  if (!hand) return hand.failure();
  OpenedHand opened{*where, nullptr, *std::move(hand)};
  opened.address.model = static_cast<kv::Model>(opened.hand->model_code);
  opened.address.id = opened.hand->device_id;
  return opened;
}

kv::Outcome<OpenedHand> OpenService(const std::string& address) {
  const auto where = HandAddress::Parse(address);
  if (!where) return where.failure();
  const std::string several = SeveralOnBus(*where);
  if (!several.empty()) {
    return Refusal(FailureKind::REFUSED,
                   several +
                       ": requests of the service interface don't name a hand, and these "
                       "would all take them: leave only one on the bus");
  }
  auto opened = Open(address);
  if (!opened) return opened;
  const kv::ModelInfo& info = kv::InfoOf(*opened->address.model);
  if (!info.has_service) {
    return Refusal(FailureKind::NOT_SUPPORTED,
                   std::string("a ") + info.name + " has no service interface");
  }
  opened->face = std::move(opened->hand);
  if (opened->address.link == LinkKind::SERIAL) opened->face.reset();  // a port has one object
  opened->hand = MakeService(opened->address);
  opened->hand->SetFrameRecvTimeout(kServiceReplyMs);
  const Failure why_not = WhyNoService(*opened);
  if (why_not.kind != FailureKind::NONE) return why_not;
  return opened;
}

}  // namespace korvane_python
