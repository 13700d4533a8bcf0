#include "service_hand.h"

#include <fmt/format.h>
#include <private_korvane_brisa.h>
#include <private_korvane_lumen.h>

#include <string>
#include <utility>

namespace korvane_tool {
namespace {

namespace kv = talvera::korvane;
using Made = std::unique_ptr<KorvaneBase>;

/// Longer than the 50 ms of the library: a hand that stores settings answers late.
constexpr int kReplyTimeMs = 200;

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

Made Make(const HandAddress& where) {
  if (where.link == LinkKind::SERIAL) {
    return kv::PrivateKorvaneBrisa::createHandByUsb(where.side, *where.id, where.port, where.baud);
  }
  return *where.model == Model::LUMEN ? MakeOnCan<kv::PrivateKorvaneLumen>(where)
                                      : MakeOnCan<kv::PrivateKorvaneBrisa>(where);
}

/// Before a hand is open: the search leaves alone what this process uses.
void NeedOneOnBus(HandAddress where) {
  if (where.link == LinkKind::SERIAL) return;
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
  if (count < 2) return;
  throw ToolError(kSeveral, fmt::format("{}: requests of the service interface don't name a hand, "
                                        "and these would all take them: leave only one on the bus",
                                        speakers));
}

void NeedSameModel(const ServiceHand& hand) {
  const Model answers = Need(IdentifyHand(*hand.hand));
  if (answers == *hand.address.model) return;
  throw ToolError(kOtherModel,
                  fmt::format("a {} answers on the service interface: leave only one hand on the "
                              "bus",
                              ToString(answers)));
}

}  // namespace

ServiceHand OpenService(const Tool& tool) {
  const HandAddress where = tool.Address();
  NeedOneOnBus(where);
  OpenedHand face = tool.Open(where);
  if (!face.Info().has_service) {
    throw ToolError(kFailed, fmt::format("a {} has no service interface", face.Info().name));
  }
  ServiceHand hand{face.address, std::move(face.hand), nullptr};
  if (hand.OnSerial()) hand.face.reset();  // a port belongs to one object
  hand.hand = Make(hand.address);
  if (!hand.hand->connected) throw ToolError(LastFailure(*hand.hand));
  hand.hand->SetFrameRecvTimeout(tool.options.timeout_ms != 0 ? tool.options.timeout_ms
                                                              : kReplyTimeMs);
  NeedSameModel(hand);
  return hand;
}

}  // namespace korvane_tool
