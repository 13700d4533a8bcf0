#pragma once

#include "protocol/can/korvane_brisa_can_impl.h"
#include "protocol/can/korvane_lumen_can_impl.h"
#include "protocol/can/korvane_quill_can_impl.h"
#include "protocol/can/korvane_tessel_can_impl.h"
#include "protocol/can/korvane_vanta_can_impl.h"
#include "support/capture.h"
#include "support/recording_device.h"

namespace talvera::korvane::test {

/// A model over CAN, to run one test as each of them; not taken from the tables of the library.
struct TestedHand {
  std::string class_name;
  int model_code;
  std::uint8_t motors;
  std::uint32_t family;
  Rig<KorvaneBase>::Maker make;

  /// What its usual failure lines begin with.
  std::string OfClass() const { return "[ERROR][" + class_name + "]"; }
};

template <class Hand>
TestedHand Tested(const char* name, int model_code, std::uint8_t motors, std::uint32_t family) {
  return {name, model_code, motors, family, &MakeHand<Hand, KorvaneBase>};
}

inline const auto kBrisa = Tested<KorvaneBrisaCanImpl>("KorvaneBrisaCanImpl", 0, 10, 0x100);
inline const auto kTessel = Tested<KorvaneTesselCanImpl>("KorvaneTesselCanImpl", 1, 12, 0x100);
inline const auto kQuill = Tested<KorvaneQuillCanImpl>("KorvaneQuillCanImpl", 2, 10, 0x700);
inline const auto kLumen = Tested<KorvaneLumenCanImpl>("KorvaneLumenCanImpl", 3, 4, 0x100);
inline const auto kVanta = Tested<KorvaneVantaCanImpl>("KorvaneVantaCanImpl", 4, 20, 0x100);

/// Names tests too, by testing::PrintToStringParamName.
inline void PrintTo(const TestedHand& hand, std::ostream* out) { *out << hand.class_name; }

inline constexpr std::uint8_t kId = 0x27;

/// A hand whose frames are recorded, and one without a transport.
template <class Hand>
struct HandPair {
  explicit HandPair(typename Rig<Hand>::Maker make = &MakeHand<Hand>)
      : rig_(kId, HandType::RIGHT, true, make),
        without_transport_(make(HandType::RIGHT, kId, nullptr)) {}

  const Rig<Hand> rig_;
  const std::unique_ptr<Hand> without_transport_;
  Hand& hand_ = *rig_.hand;
  RecordingDevice& device_ = *rig_.device;
  Hand* const both_[2] = {rig_.hand.get(), without_transport_.get()};
};

/// What `action` writes to the standard error stream.
template <class Action>
std::string Told(const Action& action) {
  return CaptureStreams(action).err;
}

}  // namespace talvera::korvane::test
