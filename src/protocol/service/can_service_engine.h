#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "can/can_link.h"
#include "private_korvane.h"
#include "protocol/service/reading_rows.h"
#include "protocol/service/service_update.h"
#include "util/models.h"

namespace talvera::korvane {

/// What one hand does differently from another in the service protocol over CAN.
struct ServiceModel {
  const char* class_name;
  Model model;
  std::uint8_t motors;
  /// The axes of a reply that has room for more limits than the hand has motors.
  std::uint8_t most_limits;
  /// The shortest reply to a command for all motors that counts. One hand's may lack the last byte,
  /// which then reads 0.
  std::size_t positions_reply;
  /// A reply to SetAllAxisPos without room for all of its blocks still tells the positions.
  bool takes_positions_alone = false;
  /// There is a firmware update over this protocol.
  bool has_update = false;
  /// There is a constructor for a TCP link, which is refused.
  bool has_tcp_form = true;
};

/// The service protocol over CAN, carried out for any model by its row: one identifier, a command
/// byte, a payload. A reply counts by its length alone, which CAN FD rounds up.
///
/// Every operation is silent while the link isn't open. What fails on the link is logged in one
/// line. Both are recorded.
class CanServiceEngine : public CanLink {
 public:
  using UpdateState = ServiceUpdateState;
  using Reply = std::optional<CanfdFrame>;

  static void LogNoSuchAdapter(const ServiceModel& model, ECanDeviceType type);

  CanServiceEngine(const ServiceModel& model, Korvane& hand, ServiceUpdateState& update_state,
                   std::unique_ptr<CanBusDeviceBase> transport);

  /// The receive thread uses what the engine and the hand hold, so it ends first.
  ~CanServiceEngine() { Close(); }

  /// Sets the common members of the hand and binds the callbacks to the transport.
  void Start(HandType hand_type, std::uint8_t device_id);

  /// The link is open. If it isn't, that is the operation's failure.
  bool CheckReady() const;

  /// One operation on the hand, for as long as what this returns lives. Every operation has one, so
  /// that its failure is recorded under its name.
  OperationScope Operation(const char* name) const { return {diagnostics, name}; }

  /// Logs "[class] operation: text" on the standard error stream, and records that as the failure.
  void LogAndRecord(FailureKind kind, const char* operation, const std::string& text) const;
  /// Records a failure for which there is no line.
  void FailSilently(FailureKind kind, const std::string& text) const {
    RecordFailure(diagnostics, kind, text);
  }

  /// The reply to any command. Throws std::runtime_error, which is recorded.
  CanfdFrame RequestOrThrow(const char* operation, const CanfdFrame& frame) const;

  /// Calls `send`, which waits for no reply, as an operation with that name. A `send` that returns
  /// false or throws is recorded as the operation's failure; an exception is passed on.
  void SendOrThrow(const char* operation, const std::function<bool()>& send) const;

  Reply RequestOrLog(const char* operation, ServiceCommand command,
                     const ServicePayload& payload = {}) const;

  /// The hand took the command.
  bool IsAcknowledged(const char* operation, ServiceCommand command,
                      const ServicePayload& payload) const;
  /// What a reply of at least that length holds behind the command. Null if there is no reply, or a
  /// shorter one, which is recorded.
  const std::uint8_t* DataOf(const Reply& reply, std::size_t least) const;
  std::uint8_t ReadByte(const char* operation, ServiceCommand command,
                        const ServicePayload& payload = {}) const;
  /// A position, behind the axis that it belongs to.
  std::optional<std::uint16_t> RequestPosition(const char* operation, ServiceCommand command,
                                               const ServicePayload& payload) const;
  /// One value for each motor from a reply of at least that length, otherwise nothing.
  template <class Value>
  std::vector<Value> RequestPositions(const char* operation, ServiceCommand command,
                                      const ServicePayload& payload, std::size_t least) const;
  template <class Value>
  std::vector<Value> Read(const ServiceReading& reading) const;

  SetAllAxisPosResponse RequestAxisResponse(const char* operation, ServiceCommand command,
                                            const ServicePayload& payload,
                                            bool positions_alone) const;
  AxisLimitPos ReadLimits() const;
  ProductSerialNumber ReadSerialNumber() const;
  FwVersion ReadFwVersion() const;
  VendorInfo ReadVendorInfo() const;
  DeviceInfo ReadDeviceInfo() const;

  const ServiceModel& model;
  ServiceUpdate update_run;

 private:
  /// "[class] operation: text"
  std::string LineOf(const char* operation, const std::string& text) const;

  Korvane& hand_;
};

}  // namespace talvera::korvane
