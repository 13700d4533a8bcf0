#pragma once

#include <memory>
#include <string>
#include <vector>

#include "can/can_bus_device.h"
#include "korvane_types.h"

namespace talvera::korvane {

/// The connection of a hand to its transport. Without a transport requests fail with "no
/// transport", settings do nothing and read as 0.
class CanLink {
 public:
  explicit CanLink(std::unique_ptr<CanBusDeviceBase> device) : transport(std::move(device)) {}

  bool IsInit() const { return transport && transport->IsInit(); }
  bool ReceivesByEvents() const { return transport && transport->by_events_; }

  /// The reply to `frame`. Throws std::runtime_error.
  CanfdFrame Request(const CanfdFrame& frame, int priority) const;

  /// As CanBusDeviceBase::RequestFrames. Throws std::runtime_error only if there is no transport.
  CanBusDeviceBase::GatheredFrames RequestFrames(const CanfdFrame& frame,
                                                 std::uint8_t expected) const;

  /// -1 if the frame couldn't be sent. Throws std::runtime_error if there is no transport.
  int Send(const CanfdFrame& frame) const;

  /// How a Send that gave -1 failed. For the thread that called it, right after that.
  LinkError SendError(const std::string& text) const { return Transport().SendError(text); }

  /// Records that the link couldn't be opened, as an operation of the thread that made the hand.
  void RecordOpening() const;
  /// Records in silence that there is no open link, and why, as far as it is known.
  void RecordNoLink() const;

  void ShowDataDetails(bool on) const;
  void SetRequestInterval(int ms);
  int GetRequestInterval() const;
  void SetFrameRecvTimeout(int ms);
  int GetFrameRecvTimeout() const;
  void SetFrameSendTimeout(int ms);
  int GetFrameSendTimeout() const;

  std::unique_ptr<CanBusDeviceBase> transport;
  HandDiagnostics diagnostics;

 protected:
  /// Destroys the transport, which joins the receive thread. What stands on a link and hears of
  /// frames calls it first of all in its destructor. Until the thread has ended the pointer stays
  /// as it is, since a frame that comes late may make that thread send.
  void Close();

 private:
  CanBusDeviceBase* TransportOrFailure() const;
  CanBusDeviceBase& Transport() const;
};

/// What every hand on CAN is too: gives its link, whatever its model.
class CanLinkOwner {
 public:
  virtual CanLink& Link() = 0;

 protected:
  ~CanLinkOwner() = default;
};

/// The adapters that factories ask for. The result is null for a kind of adapter or link that
/// doesn't exist.
std::unique_ptr<CanBusDeviceBase> MakeAdapter(ECanDeviceType type, std::uint8_t adapter_index,
                                              std::uint8_t channel, std::uint8_t product_type);
std::unique_ptr<CanBusDeviceBase> MakeAdapter(ECanDeviceType type, const std::string& serial_number,
                                              std::uint8_t channel, std::uint8_t product_type);
std::unique_ptr<CanBusDeviceBase> MakeSocketCan(const std::string& interface_name);
/// Null, after a line that says why.
std::unique_ptr<CanBusDeviceBase> RefuseTcp(const char* class_name);

}  // namespace talvera::korvane
