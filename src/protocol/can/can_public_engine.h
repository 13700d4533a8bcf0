#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include "can/can_link.h"
#include "korvane.h"
#include "protocol/can/can_update.h"
#include "protocol/can/hand_model.h"
#include "protocol/can/periodic_reports.h"

namespace talvera::korvane {

/// What the reply to a vendor query says. The product model is all 16 bytes of its field, or those
/// before the first NUL.
VendorInfo LoadVendorInfo(const CanfdFrame& reply, bool product_model_ends_at_nul);

/// The public CAN protocol, carried out for any model by its row.
///
/// Every operation checks its arguments, builds a frame on the stack, asks the transport and
/// decodes the answer. A failure is logged in one line, and the row says what is returned.
class CanPublicEngine : public CanLink {
 public:
  using UpdateState = CanUpdateState;

  static void LogNoSuchAdapter(const HandModel& model, ECanDeviceType type);

  CanPublicEngine(const HandModel& model, Korvane& hand, CanUpdateState& update_state,
                  std::unique_ptr<CanBusDeviceBase> transport);

  /// The receive thread uses what the engine and the hand hold, so it ends first.
  ~CanPublicEngine() { Close(); }

  /// Sets the common members of the hand and binds the callbacks to the transport. Called once,
  /// when the hand is otherwise ready: frames may come in from here on.
  void Start(HandType hand_type, std::uint8_t device_id);

  int ReadMotor(const MotorQuantity& quantity, std::uint8_t index) const;
  ControlMode ReadControlMode(std::uint8_t index) const;
  std::vector<std::uint8_t> ReadAllControlModes() const;
  template <class Value>
  std::vector<Value> ReadAll(const MotorQuantity& quantity) const;

  /// Writes the value of one motor and returns the first value of the reply; nothing on a bad
  /// index, on failure, or if the write only sends.
  std::optional<short> WriteMotor(const MotorQuantity& quantity, std::uint8_t index,
                                  std::uint16_t value) const;
  void WriteControlMode(std::uint8_t index, ControlMode mode) const;
  void WriteAllControlModes(const std::vector<std::uint8_t>& modes) const;
  void WriteAll(const MotorQuantity& quantity, const std::vector<short>& values) const;
  std::vector<short> WriteAllPositions(const std::vector<short>& positions) const;
  void WriteMixed(const std::vector<MixCtrl>& targets) const;

  VendorInfo ReadVendorInfo() const;
  DeviceInfo ReadDeviceInfo() const;
  void WriteDeviceId(std::uint8_t new_id);

  /// Whether `size` is the number of motors. Logs the usual line if it isn't.
  bool CheckSize(std::size_t size) const;

  CanfdFrame ReadFrame(std::uint8_t function, std::uint8_t index) const;
  CanfdFrame WriteFrame(std::uint8_t function, std::uint8_t index) const;

  /// The operation that a failure line names, and the motor or finger, as "[<tag>:<number>]";
  /// without a tag the line names none.
  struct Context {
    const char* operation;
    const char* tag = nullptr;
    int number = 0;
  };
  void LogFailure(const Context& context, const std::exception& error) const;

  /// One operation on the hand, for as long as what this returns lives. Every operation that may
  /// fail has one, so that its failure is recorded under its name.
  OperationScope Operation(const char* name) const { return {diagnostics, name}; }

  /// Logs the line and records it as the failure of the operation.
  void LogAndRecord(FailureKind kind, const std::string& line, int system_error = 0) const;

  /// Sends `frame` and returns its reply; nothing after a failure, which is logged.
  std::optional<CanfdFrame> RequestOrLog(const Context& context, const CanfdFrame& frame,
                                         int priority = 0) const;

  /// The same for a reading of `size` bytes. What a shorter reply leaves out reads as 0, as it
  /// always has; that it did is recorded in silence.
  std::optional<CanfdFrame> ReadOrLog(const Context& context, const CanfdFrame& frame,
                                      std::size_t size, int priority = 0) const;
  void RecordIfShort(const CanfdFrame& reply, std::size_t size) const;

  bool Judge(std::uint32_t request_id, std::uint32_t received_id) const;
  /// Takes a frame that no request waits for, on the receive thread.
  void ProcessMessage(const CanfdFrame& frame);

  const HandModel& model;
  CanUpdate update_run;

 private:
  bool CheckIndex(std::uint8_t index) const;
  std::string MotorCount(bool in_digits) const;
  int LastReport(const MotorQuantity& quantity, std::uint8_t index) const;
  std::optional<CanfdFrame> WriteOrLog(const Context& context, const MotorQuantity& quantity,
                                       Way way, const CanfdFrame& frame) const;
  std::optional<CanfdFrame> WholeHandWrite(const MotorQuantity& quantity,
                                           const std::vector<short>& values) const;
  bool CheckMixedCount(std::uint8_t mode, std::size_t count) const;

  Korvane& hand_;
  PeriodicReports reports_;
};

}  // namespace talvera::korvane
