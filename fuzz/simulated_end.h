#pragma once

#include <functional>

#include "korvane_sim/service_face.h"
#include "serial_frame.h"
#include "support.h"

namespace talvera::korvane::fuzz {

/// A simulated hand at the other end of a link.
struct SimulatedEnd {
  SimulatedEnd(const sim::ModelRow& model, sim::ServiceLink link)
      : has_service(sim::HasServiceOnCan(model)), hand(model, kId), face(hand, link) {}

  std::vector<sim::Frame> OnCan(const sim::Frame& frame, Clock::TimePoint now) {
    const bool service = has_service && frame.id == sim::kServiceIdentifier;
    return service ? face.Handle(hand, frame, now) : hand.Handle(frame, now);
  }
  /// The frames that answer, one behind the other, whose messages `change` may see first.
  Bytes OnSerial(const Bytes& bytes, Clock::TimePoint now,
                 const std::function<void(sim::ServiceMessage&)>& change = nullptr) {
    const auto checksum = sim::SerialChecksum(hand.GetIdentity().software_version);
    Bytes replies;
    parser.Feed(bytes);
    while (const auto frame = parser.Next(checksum)) {
      for (auto& reply : face.Handle(hand, frame->message, now)) {
        if (change) change(reply);
        const Bytes built = sim::BuildSerialFrame({kId, reply, sim::SerialTrailer::kXmodem});
        replies.insert(replies.end(), built.begin(), built.end());
      }
    }
    return replies;
  }

  bool has_service;
  sim::SimulatedHand hand;
  sim::ServiceFace face;
  sim::SerialFrameParser parser;
};

/// What goes wrong with updates, as the simulator's options have it.
inline sim::UpdateFault AnyUpdateFault(Input& input) {
  const std::uint8_t which = input.Byte();
  sim::UpdateFault fault;
  fault.kind = static_cast<sim::UpdateFault::Kind>(which % 6);
  fault.child = static_cast<sim::UpdateChild>(1 + which / 6 % 5);
  fault.status = input.Byte();
  fault.at = input.Byte() % 4U;
  return fault;
}

}  // namespace talvera::korvane::fuzz
