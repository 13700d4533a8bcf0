#include "korvane_can_factories.h"
#include "protocol/can/broadcast_query.h"
#include "protocol/can/korvane_brisa_can_impl.h"
#include "protocol/can/korvane_lumen_can_impl.h"
#include "protocol/can/korvane_quill_can_impl.h"
#include "protocol/can/korvane_tessel_can_impl.h"
#include "protocol/can/korvane_vanta_can_impl.h"
#include "protocol/service/korvane_brisa_can_private_impl.h"
#include "protocol/service/korvane_lumen_can_private_impl.h"

// The factories of all models, and what each of them builds.

namespace talvera::korvane {

// Never called: only their types count.
KorvaneBrisaCanImpl* ImplementationOf(KorvaneBrisa*);
KorvaneTesselCanImpl* ImplementationOf(KorvaneTessel*);
KorvaneQuillCanImpl* ImplementationOf(KorvaneQuill*);
KorvaneLumenCanImpl* ImplementationOf(KorvaneLumen*);
KorvaneVantaCanImpl* ImplementationOf(KorvaneVanta*);
KorvaneBrisaCanPrivateImpl* ImplementationOf(PrivateKorvaneBrisa*);
KorvaneLumenCanPrivateImpl* ImplementationOf(PrivateKorvaneLumen*);

namespace {

template <class Hand>
using CanImplementation =
    std::remove_pointer_t<decltype(ImplementationOf(static_cast<Hand*>(nullptr)))>;

template <class Hand, class... Arguments>
std::unique_ptr<Hand> MakeHand(const Arguments&... arguments) {
  return std::make_unique<CanImplementation<Hand>>(arguments...);
}

template <class Hand>
const char* BroadcastPrefix() {
  return CanImplementation<Hand>::RowType::kModel.wording->broadcast_prefix;
}

}  // namespace

template <class Hand>
std::unique_ptr<Hand> CanFactories<Hand>::createHandByZlgcan(HandType hand, std::uint8_t device_id,
                                                             std::uint8_t adapter_index,
                                                             std::uint8_t channel) {
  return MakeHand<Hand>(hand, device_id, adapter_index, channel, ECanDeviceType::ZLG_USBCANFD);
}

template <class Hand>
std::unique_ptr<Hand> CanFactories<Hand>::createHandByHcan(HandType hand, std::uint8_t device_id,
                                                           std::uint8_t adapter_index,
                                                           std::uint8_t channel) {
  return MakeHand<Hand>(hand, device_id, adapter_index, channel, ECanDeviceType::HCAN);
}

template <class Hand>
std::unique_ptr<Hand> CanFactories<Hand>::createHandByZlgcan(HandType hand, std::uint8_t device_id,
                                                             const std::string& serial_number,
                                                             std::uint8_t channel) {
  return MakeHand<Hand>(hand, device_id, serial_number, channel, ECanDeviceType::ZLG_USBCANFD);
}

template <class Hand>
std::unique_ptr<Hand> CanFactories<Hand>::createHandByHcan(HandType hand, std::uint8_t device_id,
                                                           const std::string& serial_number,
                                                           std::uint8_t channel) {
  return MakeHand<Hand>(hand, device_id, serial_number, channel, ECanDeviceType::HCAN);
}

template <class Hand>
std::unique_ptr<Hand> CanFactories<Hand>::createHandSocketCan(HandType hand, std::uint8_t device_id,
                                                              const std::string& interface_name) {
  return MakeHand<Hand>(hand, device_id, interface_name);
}

template <class Hand>
DeviceInfo CanBroadcasts<Hand>::GetDeviceInfoFromBroadcast(std::uint8_t adapter_index,
                                                           std::uint8_t channel) {
  return QueryZlgBus(adapter_index, channel, BroadcastPrefix<Hand>());
}

template <class Hand>
DeviceInfo CanBroadcasts<Hand>::GetDeviceInfoFromBroadcast(const std::string& serial_number,
                                                           std::uint8_t channel) {
  return QueryZlgBus(serial_number, channel, BroadcastPrefix<Hand>());
}

template <class Hand>
DeviceInfo CanBroadcasts<Hand>::GetDeviceInfoFromBroadcastSocketCan(
    const std::string& interface_name) {
  return QuerySocketCanBus(interface_name, BroadcastPrefix<Hand>());
}

template class CanFactories<KorvaneBrisa>;
template class CanFactories<KorvaneTessel>;
template class CanFactories<KorvaneQuill>;
template class CanFactories<KorvaneLumen>;
template class CanFactories<KorvaneVanta>;
template class CanFactories<PrivateKorvaneBrisa>;
template class CanFactories<PrivateKorvaneLumen>;

// The KorvaneQuill has none, and neither have the service classes.
template class CanBroadcasts<KorvaneBrisa>;
template class CanBroadcasts<KorvaneTessel>;
template class CanBroadcasts<KorvaneLumen>;
template class CanBroadcasts<KorvaneVanta>;

}  // namespace talvera::korvane
