#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "korvane_sim/export.h"
#include "korvane_sim/firmware_partition.h"
#include "korvane_sim/frame.h"
#include "korvane_sim/model.h"
#include "korvane_sim/motor.h"
#include "korvane_sim/worn_joint.h"

namespace talvera::korvane::sim {

/// What a hand tells about itself. Texts longer than their field (16 and 14 bytes) are cut.
struct Identity {
  std::string product_model;
  std::string serial_number;
  std::array<std::uint8_t, 4> hardware_version{};
  std::array<std::uint8_t, 4> software_version{};
  std::int16_t supply_voltage_mv = 0;
  std::uint8_t active_dof = 0;
};

/// One hand as seen from the bus: frames in, frames out, with the time given by the caller.
///
/// A state machine without threads, clocks or input and output, and not thread-safe; VirtualBus
/// puts hands on a bus. Frames that aren't for this hand or make no sense are ignored.
class KORVANE_SIM_EXPORT SimulatedHand {
 public:
  using TimePoint = std::chrono::steady_clock::time_point;

  /// `model` must outlive the hand; the low seven bits of `device_id` count.
  SimulatedHand(const ModelRow& model, std::uint8_t device_id);

  /// The replies to a frame that arrives at `now`, none if the hand ignores it.
  std::vector<Frame> Handle(const Frame& frame, TimePoint now);

  /// The periodic frames that are due at `now`. A report whose time passed several times is sent
  /// once.
  std::vector<Frame> TakeDue(TimePoint now);

  /// When TakeDue has something to give next, if ever.
  std::optional<TimePoint> NextEvent() const;

  /// Lets motors and joints move up to `now`. Handle and TakeDue do that themselves.
  void Advance(TimePoint now);

  const ModelRow& Model() const { return *model_; }
  std::uint8_t DeviceId() const { return device_id_; }
  void SetDeviceId(std::uint8_t device_id);  ///< Its low seven bits count.
  Identity& GetIdentity() { return identity_; }
  const Identity& GetIdentity() const { return identity_; }

  /// Motor `index`, counted from 1. Throws std::out_of_range for one that the hand lacks.
  Motor& JointMotor(std::size_t index) { return motors_.at(index - 1); }
  const Motor& JointMotor(std::size_t index) const { return motors_.at(index - 1); }

  /// The same for a joint of a hand that is worn.
  WornJoint& Joint(std::size_t index) { return joints_.at(index - 1); }

  FirmwarePartition& Firmware() { return firmware_; }

  /// Goes down for the restart time and comes back with its motors at rest, and with the new
  /// firmware if there is some.
  void Restart(TimePoint now);
  /// How often it has gone down so far, for whatever reason.
  unsigned Restarts() const { return restarts_; }
  /// While it restarts.
  bool IsSilent(TimePoint now) const { return silent_until_ && now < *silent_until_; }

  /// Presses on a tactile sensor (counted from 1), 0 to 1, in addition to what closing the hand
  /// does to it.
  void SetContact(std::size_t sensor, double pressure);

  /// All bytes of a tactile sensor as they stand, `length` of them.
  std::vector<std::uint8_t> TactileBytes(std::size_t sensor, std::size_t length) const;

 private:
  struct Request {
    Function function;
    std::uint8_t index;
    bool write;
    const Frame& frame;
  };
  struct Handler {
    Function function;
    std::vector<Frame> (SimulatedHand::*answer)(const Request&);
  };
  struct Report {
    std::chrono::milliseconds period{0};
    TimePoint due;
  };

  static const std::array<Handler, 16> kHandlers;

  std::optional<Request> Parse(const Frame& frame) const;
  bool Knows(Function function, bool write) const;
  double Closure(std::uint32_t closing) const;
  Frame Reply(Function function, std::uint8_t index) const;
  std::vector<Frame> Echo(const Request& request, std::size_t length) const;
  Frame QuantityFrame(Function function, std::uint8_t index) const;

  std::vector<Frame> AnswerVendor(const Request& request);
  std::vector<Frame> AnswerDevice(const Request& request);
  std::vector<Frame> AnswerTactileSummary(const Request& request);
  std::vector<Frame> AnswerTactileRaw(const Request& request);
  std::vector<Frame> AnswerQuantity(const Request& request);
  std::vector<Frame> AnswerCalibration(const Request& request);
  std::vector<Frame> AnswerMixedControl(const Request& request);
  std::vector<Frame> AnswerUpdateRequest(const Request& request);
  std::vector<Frame> AnswerUpdateData(const Request& request);
  std::vector<Frame> UpdateReplies(const Request& request,
                                   const std::vector<FirmwarePartition::Reply>& replies);
  void SetReportPeriod(const Request& request);

  const ModelRow* model_;
  std::uint8_t device_id_;
  Identity identity_;
  std::vector<Motor> motors_;
  std::vector<WornJoint> joints_;
  std::array<double, 7> contact_{};
  std::map<std::uint16_t, Report> reports_;  ///< By function code and index.
  FirmwarePartition firmware_;
  unsigned restarts_ = 0;
  std::optional<TimePoint> silent_until_;  ///< While it restarts.
  std::optional<TimePoint> time_;          ///< Up to where motors and joints have moved.
};

}  // namespace talvera::korvane::sim
