#include "can/can_link.h"

#include "can/can_bus_device_socket_can.h"
#include "can/hcan_device.h"
#include "can/zlg_usbcanfd_device.h"
#include "util/log.h"

namespace talvera::korvane {
namespace {

/// Both kinds of adapters are found by an index or by a serial number.
template <class Where>
std::unique_ptr<CanBusDeviceBase> MakeAdapterAt(ECanDeviceType type, const Where& where,
                                                std::uint8_t channel, std::uint8_t product_type) {
  switch (type) {
    case ECanDeviceType::ZLG_USBCANFD:
      return std::make_unique<ZlgUsbcanfdDevice>(where, channel, product_type);
    case ECanDeviceType::HCAN:
      return std::make_unique<HcanDevice>(where, channel, product_type);
  }
  return nullptr;
}

}  // namespace

void CanLink::Close() {
  // reset() would clear the pointer first.
  delete transport.get();
  static_cast<void>(transport.release());
}

CanBusDeviceBase& CanLink::Transport() const {
  if (!transport) throw LinkError(FailureKind::NO_LINK, "no transport");
  return *transport;
}

CanfdFrame CanLink::Request(const CanfdFrame& frame, int priority) const {
  return Transport().SendRequestSynch(frame, priority);
}

CanBusDeviceBase::GatheredFrames CanLink::RequestFrames(const CanfdFrame& frame,
                                                        std::uint8_t expected) const {
  return Transport().RequestFrames(frame, expected);
}

int CanLink::Send(const CanfdFrame& frame) const {
  return Transport().SendRequestWithoutReply(frame);
}

/// The transport, for a setting; null, which is recorded in silence, if there is none.
CanBusDeviceBase* CanLink::TransportOrFailure() const {
  if (!transport) RecordFailure(diagnostics, FailureKind::NO_LINK, "no transport");
  return transport.get();
}

void CanLink::RecordOpening() const {
  const OperationScope scope(diagnostics, "Open");
  RecordNoLink();
}

void CanLink::RecordNoLink() const {
  const bool told = transport && !transport->open_failure_.empty();
  RecordFailure(diagnostics, FailureKind::NO_LINK, told ? transport->open_failure_ : "no transport",
                transport ? transport->system_error_.load() : 0);
}

void CanLink::ShowDataDetails(bool on) const {
  const OperationScope scope(diagnostics, __func__);
  if (auto* const device = TransportOrFailure()) device->show_data_details_ = on;
}

void CanLink::SetRequestInterval(int ms) {
  const OperationScope scope(diagnostics, __func__);
  if (auto* const device = TransportOrFailure()) device->SetRequestInterval(ms);
}

int CanLink::GetRequestInterval() const {
  const OperationScope scope(diagnostics, __func__);
  const auto* const device = TransportOrFailure();
  return device != nullptr ? device->GetRequestInterval() : 0;
}

void CanLink::SetFrameRecvTimeout(int ms) {
  const OperationScope scope(diagnostics, __func__);
  if (auto* const device = TransportOrFailure()) device->SetFrameRecvTimeout(ms);
}

int CanLink::GetFrameRecvTimeout() const {
  const OperationScope scope(diagnostics, __func__);
  const auto* const device = TransportOrFailure();
  return device != nullptr ? device->GetFrameRecvTimeout() : 0;
}

void CanLink::SetFrameSendTimeout(int ms) {
  const OperationScope scope(diagnostics, __func__);
  if (auto* const device = TransportOrFailure()) device->SetFrameSendTimeout(ms);
}

int CanLink::GetFrameSendTimeout() const {
  const OperationScope scope(diagnostics, __func__);
  const auto* const device = TransportOrFailure();
  return device != nullptr ? device->GetFrameSendTimeout() : 0;
}

std::unique_ptr<CanBusDeviceBase> MakeAdapter(ECanDeviceType type, std::uint8_t adapter_index,
                                              std::uint8_t channel, std::uint8_t product_type) {
  return MakeAdapterAt(type, adapter_index, channel, product_type);
}

std::unique_ptr<CanBusDeviceBase> MakeAdapter(ECanDeviceType type, const std::string& serial_number,
                                              std::uint8_t channel, std::uint8_t product_type) {
  return MakeAdapterAt(type, serial_number, channel, product_type);
}

std::unique_ptr<CanBusDeviceBase> MakeSocketCan(const std::string& interface_name) {
  return std::make_unique<CanBusDeviceSocketCan>(interface_name);
}

std::unique_ptr<CanBusDeviceBase> RefuseTcp(const char* class_name) {
  LogError(Compose("[ERROR] ", class_name, ": TCP CANFD is not supported on this platform."));
  return nullptr;
}

}  // namespace talvera::korvane
