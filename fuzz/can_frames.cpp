// What arrives on a CAN bus: any reply to any request of any hand, and any frame that none asked
// for.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <iterator>
#include <vector>

#include "protocol/can/korvane_brisa_can_impl.h"
#include "protocol/can/korvane_lumen_can_impl.h"
#include "protocol/can/korvane_quill_can_impl.h"
#include "protocol/can/korvane_tessel_can_impl.h"
#include "protocol/can/korvane_vanta_can_impl.h"
#include "protocol/service/korvane_brisa_can_private_impl.h"
#include "protocol/service/korvane_lumen_can_private_impl.h"
#include "support/recording_device.h"

using namespace talvera::korvane;

namespace {

constexpr std::uint8_t kId = 0x27;

/// The input, cut into pieces until it is used up.
class Input {
 public:
  Input(const std::uint8_t* data, std::size_t size) : data_(data), size_(size) {}

  bool IsOver() const { return size_ == 0; }
  std::uint8_t Byte() {
    if (size_ == 0) return 0;
    --size_;
    return *data_++;
  }
  CanfdFrame Frame(std::uint32_t id) {
    CanfdFrame frame;
    frame.can_id = id;
    frame.len = Byte() % (kMaxPayload + 1);
    std::generate_n(frame.data, frame.len, [this] { return Byte(); });
    return frame;
  }

 private:
  const std::uint8_t* data_;
  std::size_t size_;
};

using Calls = std::vector<std::function<void()>>;

/// Operations that read something out of replies.
Calls PublicCalls(KorvaneBase& hand) {
  return {[&] { hand.GetVendorInfo(); },        [&] { hand.GetDeviceInfo(); },
          [&] { hand.GetAllJointMotorPosi(); }, [&] { hand.SetJointMotorPosi(1, 2); },
          [&] { hand.GetAllControlMode(); },    [&] { hand.GetAllErrorReport(); },
          [&] { hand.GetAllCurrentReport(); },  [&] { hand.GetAllActiveJointAngles(); },
          [&] { hand.GetErrorReport(2); }};
}

Calls TactileCalls(KorvaneBase& hand) {
  if (auto* const tessel = dynamic_cast<KorvaneTessel*>(&hand)) {
    return {[=] { tessel->GetTactileSensor3DData(Finger::THUMB); }};
  }
  if (auto* const sensors = dynamic_cast<IBR7TactileSensor1D*>(&hand)) {
    return {[=] { sensors->GetTactileSensorDataRaw(Finger::PALM); },
            [=] { sensors->GetAllTactileSensorDataRaw(); }};
  }
  return {};
}

Calls ServiceCalls(KorvaneBase& hand) {
  auto* const service = dynamic_cast<PrivateKorvane*>(&hand);
  if (service == nullptr) return {};
  return {[=] { service->GetAxisLimitPos(); },
          [=] { service->GetFwVersion(); },
          [=] { service->GetProductSerialNumber(); },
          [=] { service->SetAllAxisPos(std::vector<std::uint16_t>(10)); },
          [=] { service->SetAllAxisPos(std::vector<std::uint16_t>(4)); },
          [=] { service->GetAllAxisCvp(); },
          [=] { service->GetFingertipSensor(7); },
          [=] { service->GetAllAxisTemp(); },
          [=] { service->SetSingleAxisPos(1, 1); },
          [=] { service->SaveParam(); }};
}

struct Place {
  explicit Place(test::Rig<KorvaneBase>::Maker make) : rig(kId, HandType::RIGHT, true, make) {
    for (const auto& more :
         {PublicCalls(*rig.hand), TactileCalls(*rig.hand), ServiceCalls(*rig.hand)}) {
      calls.insert(calls.end(), more.begin(), more.end());
    }
    rig.hand->SetFrameRecvTimeout(10);
  }

  test::Rig<KorvaneBase> rig;
  Calls calls;
};

template <class Hand>
Place PlaceOf() {
  return Place(&test::MakeHand<Hand, KorvaneBase>);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static Place places[] = {
      PlaceOf<KorvaneBrisaCanImpl>(),       PlaceOf<KorvaneTesselCanImpl>(),
      PlaceOf<KorvaneQuillCanImpl>(),       PlaceOf<KorvaneLumenCanImpl>(),
      PlaceOf<KorvaneVantaCanImpl>(),       PlaceOf<KorvaneBrisaCanPrivateImpl>(),
      PlaceOf<KorvaneLumenCanPrivateImpl>()};
  Input input(data, size);
  Place& place = places[input.Byte() % std::size(places)];
  test::RecordingDevice& device = *place.rig.device;
  while (!input.IsOver()) {
    // Nobody asked for this one. Its identifier is that of a report or an update reply, or random.
    const std::uint8_t kind = input.Byte();
    const std::uint32_t part = input.Byte();
    const std::uint32_t ids[] = {9, 0xF20100 | part << 24 | kId, 0x1000100 | part << 16 | kId,
                                 part << kind % 24};
    const std::uint32_t id = ids[kind % std::size(ids)];
    device.Receive(input.Frame(id));
    device.script = [&](const CanfdFrame& sent) {
      return std::vector<CanfdFrame>{input.Frame(sent.can_id & ~0x80U)};
    };
    place.calls[input.Byte() % place.calls.size()]();
    device.script = [](const CanfdFrame&) { return std::vector<CanfdFrame>{}; };
    device.TakeSent();
  }
  return 0;
}
