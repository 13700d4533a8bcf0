#include "korvane_brisa.h"

#include "impl/korvane_brisa_can_impl.h"
#include "model/tactile_layout.h"

namespace talvera::korvane {

KorvaneBrisa::~KorvaneBrisa() = default;

std::unique_ptr<KorvaneBrisa> KorvaneBrisa::createHandByZlgcan(HandType hand,
                                                               std::uint8_t device_id,
                                                               std::uint8_t adapter_index,
                                                               std::uint8_t channel) {
  return std::make_unique<KorvaneBrisaCanImpl>(hand, device_id, adapter_index, channel,
                                               ECanDeviceType::ZLG_USBCANFD);
}

std::unique_ptr<KorvaneBrisa> KorvaneBrisa::createHandByZlgcan(HandType hand,
                                                               std::uint8_t device_id,
                                                               const std::string& serial_number,
                                                               std::uint8_t channel) {
  return std::make_unique<KorvaneBrisaCanImpl>(hand, device_id, serial_number, channel,
                                               ECanDeviceType::ZLG_USBCANFD);
}

std::unique_ptr<KorvaneBrisa> KorvaneBrisa::createHandByHcan(HandType hand, std::uint8_t device_id,
                                                             std::uint8_t adapter_index,
                                                             std::uint8_t channel) {
  return std::make_unique<KorvaneBrisaCanImpl>(hand, device_id, adapter_index, channel,
                                               ECanDeviceType::HCAN);
}

std::unique_ptr<KorvaneBrisa> KorvaneBrisa::createHandByHcan(HandType hand, std::uint8_t device_id,
                                                             const std::string& serial_number,
                                                             std::uint8_t channel) {
  return std::make_unique<KorvaneBrisaCanImpl>(hand, device_id, serial_number, channel,
                                               ECanDeviceType::HCAN);
}

std::unique_ptr<KorvaneBrisa> KorvaneBrisa::createHandSocketCan(HandType hand,
                                                                std::uint8_t device_id,
                                                                const std::string& interface_name) {
  return std::make_unique<KorvaneBrisaCanImpl>(hand, device_id, interface_name);
}

DeviceInfo KorvaneBrisa::GetDeviceInfoFromBroadcast(std::uint8_t adapter_index,
                                                    std::uint8_t channel) {
  return KorvaneBrisaCanImpl::GetDeviceInfoFromBroadcast(adapter_index, channel);
}

DeviceInfo KorvaneBrisa::GetDeviceInfoFromBroadcast(const std::string& serial_number,
                                                    std::uint8_t channel) {
  return KorvaneBrisaCanImpl::GetDeviceInfoFromBroadcast(serial_number, channel);
}

DeviceInfo KorvaneBrisa::GetDeviceInfoFromBroadcastSocketCan(const std::string& interface_name) {
  return KorvaneBrisaCanImpl::GetDeviceInfoFromBroadcastSocketCan(interface_name);
}

void KorvaneBrisa::SetHandGesture(int gesture) {
  if (!solver) return;
  const std::vector<int> inputs = solver->SetHandGesture(gesture);
  std::vector<short> positions;
  positions.reserve(inputs.size());
  for (const int input : inputs) positions.push_back(static_cast<short>(input));
  SetAllJointMotorPosi(positions);
}

std::size_t KorvaneBrisa::GetSensorDataLength(Finger finger) const {
  return SensorDataLengthOf(finger);
}

const std::vector<Finger>& KorvaneBrisa::GetSensorOrder() const {
  // Applications may hold the reference for as long as the process runs.
  static const auto* const order =
      new std::vector<Finger>{Finger::THUMB,  Finger::INDEX, Finger::MIDDLE, Finger::RING,
                              Finger::LITTLE, Finger::PALM,  Finger::DORSUM};
  return *order;
}

}  // namespace talvera::korvane
