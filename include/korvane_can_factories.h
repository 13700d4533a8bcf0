#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "korvane_export.h"
#include "korvane_types.h"

namespace talvera::korvane {

/// The ways to a hand over CAN FD, as static operations of the model class `Hand`: an interface of
/// Linux (createHandSocketCan), or a USB adapter by ZLG or HCAN.
///
/// A factory opens the link, which takes milliseconds, sends nothing, and never fails on a missing
/// device: look at `connected`. Factories may be called from several threads at once.
///
/// `device_id` is 1 to 127. Adapters and their channels are counted from 0; a number that isn't
/// there gives a hand that isn't connected.
template <class Hand>
class KORVANE_EXPORT CanFactories {
 public:
  /// A hand on channel `channel` of the ZLG USBCANFD adapter number `adapter_index` (0 to 7).
  static std::unique_ptr<Hand> createHandByZlgcan(HandType hand, std::uint8_t device_id,
                                                  std::uint8_t adapter_index = 0,
                                                  std::uint8_t channel = 0);

  /// The same on the HCAN adapter number `adapter_index`.
  static std::unique_ptr<Hand> createHandByHcan(HandType hand, std::uint8_t device_id,
                                                std::uint8_t adapter_index = 0,
                                                std::uint8_t channel = 0);

  /// The same on the first ZLG adapter whose serial number contains `serial_number`.
  static std::unique_ptr<Hand> createHandByZlgcan(HandType hand, std::uint8_t device_id,
                                                  const std::string& serial_number,
                                                  std::uint8_t channel = 0);

  /// The same on the first HCAN adapter whose serial number contains `serial_number`.
  static std::unique_ptr<Hand> createHandByHcan(HandType hand, std::uint8_t device_id,
                                                const std::string& serial_number,
                                                std::uint8_t channel = 0);

  /// A hand on a SocketCAN interface, which must be up and carry CAN FD frames. Its receive thread
  /// polls without a pause, which takes one core for each hand, unless the hand receives by events
  /// (korvane_link.h).
  static std::unique_ptr<Hand> createHandSocketCan(HandType hand, std::uint8_t device_id,
                                                   const std::string& interface_name = "can0");

 protected:
  ~CanFactories() = default;
};

/// Queries that need no hand object, as static operations of the model class `Hand`. Each asks
/// every hand on a bus who it is, of whatever model, and returns the first answer; all zero if
/// there is none. Blocks for the opening of the adapter and up to about 51 ms.
template <class Hand>
class KORVANE_EXPORT CanBroadcasts {
 public:
  /// On a ZLG adapter, found as by CanFactories::createHandByZlgcan. Not on a channel that a hand
  /// object of this process uses: the query opens the channel anew and stops it when it is done,
  /// and that hand then hears nothing more until it is made anew.
  static DeviceInfo GetDeviceInfoFromBroadcast(std::uint8_t adapter_index, std::uint8_t channel);

  /// The same on the first ZLG adapter whose serial number contains `serial_number`.
  static DeviceInfo GetDeviceInfoFromBroadcast(const std::string& serial_number,
                                               std::uint8_t channel);

  /// On a SocketCAN interface.
  static DeviceInfo GetDeviceInfoFromBroadcastSocketCan(const std::string& interface_name);

 protected:
  ~CanBroadcasts() = default;
};

class KORVANE_EXPORT KorvaneBrisa;
class KORVANE_EXPORT KorvaneTessel;
class KORVANE_EXPORT KorvaneQuill;
class KORVANE_EXPORT KorvaneLumen;
class KORVANE_EXPORT KorvaneVanta;
class KORVANE_EXPORT PrivateKorvaneBrisa;
class KORVANE_EXPORT PrivateKorvaneLumen;

// These are in the library, and there are no others.
extern template class CanFactories<KorvaneBrisa>;
extern template class CanFactories<KorvaneTessel>;
extern template class CanFactories<KorvaneQuill>;
extern template class CanFactories<KorvaneLumen>;
extern template class CanFactories<KorvaneVanta>;
extern template class CanFactories<PrivateKorvaneBrisa>;
extern template class CanFactories<PrivateKorvaneLumen>;

extern template class CanBroadcasts<KorvaneBrisa>;
extern template class CanBroadcasts<KorvaneTessel>;
extern template class CanBroadcasts<KorvaneLumen>;
extern template class CanBroadcasts<KorvaneVanta>;

}  // namespace talvera::korvane
