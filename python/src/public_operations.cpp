#include <ibr7_tactile_sensor_1d.h>
#include <korvane_brisa.h>
#include <korvane_brisa_solver.h>
#include <korvane_quill.h>
#include <korvane_tessel.h>
#include <korvane_tessel_solver.h>

#include <iterator>

#include "definitions.h"

namespace korvane_python {
namespace {

using kv::Finger;
using kv::IBR7TactileSensor1D;
using kv::KorvaneBase;
using kv::KorvaneBrisa;
using kv::KorvaneTessel;
using kv::LinkKind;
using Touch = std::vector<kv::TactileSensorData>;

// --- Positions ---------------------------------------------------------------------------------

short CheckedPosition(const Handle& handle, const char* name, double position) {
  const kv::ModelInfo& info = handle.Info();
  if (!(position >= 0 && position <= info.position_max)) {
    handle.RaiseHere(kv::FailureKind::BAD_ARGUMENT, name,
                     "position " + py::str(py::cast(position)).cast<std::string>() +
                         " is beyond the limits of a " + info.name + ", 0 to " +
                         std::to_string(info.position_max));
  }
  return static_cast<short>(std::lround(position));
}

py::object SetPositions(const Handle& handle, const std::vector<double>& positions) {
  const char* const name = "SetAllJointMotorPosi";
  std::vector<short> pose;
  if (handle.Info().has_motors) {
    RequireOneForEachMotor(handle, name, positions.size());
    pose.reserve(positions.size());
    for (const double position : positions) {
      pose.push_back(CheckedPosition(handle, name, position));
    }
  }
  return Returned<KorvaneBase>::From(handle, name,
                                     Call<KorvaneBase>(handle, name, [&](KorvaneBase& hand) {
                                       return hand.SetAllJointMotorPosi(pose);
                                     }));
}

int SetPosition(const Handle& handle, std::int64_t motor, double position) {
  const char* const name = "SetJointMotorPosi";
  const auto index = Narrow<std::uint8_t>(handle, name, motor);
  const short checked =
      handle.Info().has_motors ? CheckedPosition(handle, name, position) : short{0};
  return Call<KorvaneBase>(
      handle, name, [&](KorvaneBase& hand) { return hand.SetJointMotorPosi(index, checked); });
}

/// A motor's targets, of which those that the mode doesn't use may be missing.
using Target =
    std::tuple<std::int64_t, std::optional<double>, std::optional<double>, std::optional<double>>;

void SetTargets(const Handle& handle, int mode, const std::vector<Target>& targets) {
  const char* const name = "MixCtrlJointMotor";
  const auto given = [&](const std::optional<double>& value) {
    return value ? std::optional<short>(Narrow<short>(handle, name, *value)) : std::nullopt;
  };
  std::vector<kv::MixCtrl> mixed;
  mixed.reserve(targets.size());
  for (const auto& [motor, position, velocity, current] : targets) {
    kv::MixCtrl target{};
    target.joint_index = Narrow<std::uint8_t>(handle, name, motor) & 0x1FU;
    target.mix_mode = static_cast<std::uint8_t>(mode) & 0x7U;
    if (position) target.position = CheckedPosition(handle, name, *position);
    target.velocity = given(velocity);
    target.current = given(current);
    mixed.push_back(target);
  }
  Call<KorvaneBase>(handle, name, [&](KorvaneBase& hand) { hand.MixCtrlJointMotor(mixed); });
}

// --- Kinematics, which ask nobody --------------------------------------------------------------

/// Calls `brisa` or `tessel` with the solver of the hand.
template <class Brisa, class Tessel>
auto WithSolver(const Handle& handle, const Brisa& brisa, const Tessel& tessel) {
  const auto held = handle.Borrow();
  const KorvaneBase& hand = held->For<KorvaneBase>();
  if (const auto* const known = dynamic_cast<const KorvaneBrisa*>(&hand))
    return brisa(*known->solver);
  if (const auto* const known = dynamic_cast<const KorvaneTessel*>(&hand))
    return tessel(*known->solver);
  handle.RaiseHere(kv::FailureKind::NOT_SUPPORTED, "",
                   std::string("the joint angles of a ") + handle.Info().name + " aren't known");
}

std::vector<int> ToPositions(const Handle& handle, const std::vector<double>& angles) {
  return WithSolver(
      handle, [&](const auto& solver) { return solver.ActiveJointPos2ActuatorInput(angles); },
      [&](const auto& solver) { return solver.ConvertJoint2Actuator(angles); });
}

std::vector<double> ToAngles(const Handle& handle, const std::vector<int>& positions) {
  return WithSolver(
      handle, [&](const auto& solver) { return solver.ActuatorInput2ActiveJointPos(positions); },
      [&](const auto& solver) { return solver.ConvertActuator2Joint(positions); });
}

std::vector<int> GesturePositions(const Handle& handle, int gesture) {
  const auto pose = [&](const auto& solver) { return solver.SetHandGesture(gesture); };
  return WithSolver(handle, pose, pose);
}

/// Angles brought within limits that depend on each other.
std::vector<double> HeldAngles(const Handle& handle, std::vector<double> angles) {
  WithSolver(
      handle, [&](const auto& solver) { solver.ClampJointPos(angles); },
      [&](const auto& solver) { solver.CheckJointPos(angles); });
  return angles;
}

// --- Touch -------------------------------------------------------------------------------------

/// Replies of several frames reach a hand on SocketCAN and ZLG only.
bool CarriesArrays(LinkKind link) { return link == LinkKind::SOCKET_CAN || link == LinkKind::ZLG; }

std::vector<std::uint8_t> ReadFingertip(const KorvaneTessel& hand, Finger finger) {
  const auto record = hand.GetTactileSensor3DData(finger);
  return {std::begin(record.data), std::end(record.data)};
}

Touch ReadFingertips(const KorvaneTessel& hand) {
  constexpr int kFingers = 5;
  Touch sensors;
  sensors.reserve(kFingers);
  for (int number = 1; number <= kFingers; ++number) {
    const auto finger = static_cast<Finger>(number);
    sensors.push_back({finger, ReadFingertip(hand, finger)});
  }
  return sensors;
}

/// Sensor by sensor, those whose array fits into one frame.
Touch ReadSmallArrays(const IBR7TactileSensor1D& hand) {
  constexpr std::size_t kFrameData = 62;
  Touch sensors;
  for (const Finger finger : hand.GetSensorOrder()) {
    if (hand.GetSensorDataLength(finger) > kFrameData) continue;
    sensors.push_back(hand.GetTactileSensorDataRaw(finger));
  }
  return sensors;
}

/// The whole arrays, or a summary of each where the link cuts arrays short or isn't made for them.
Touch ReadTouch(const KorvaneBase& hand, LinkKind link) {
  if (const auto* const tessel = dynamic_cast<const KorvaneTessel*>(&hand)) {
    return ReadFingertips(*tessel);
  }
  if (const auto* const brisa = dynamic_cast<const KorvaneBrisa*>(&hand);
      brisa != nullptr && !CarriesArrays(link)) {
    return brisa->GetAllTactileSensorData();
  }
  const auto& sensors = dynamic_cast<const IBR7TactileSensor1D&>(hand);
  return CarriesArrays(link) ? sensors.GetAllTactileSensorDataRaw() : ReadSmallArrays(sensors);
}

py::list ToList(const Touch& sensors) {
  py::list list;
  for (const auto& sensor : sensors) {
    list.append(py::make_tuple(static_cast<int>(sensor.finger), ToArray(sensor.data)));
  }
  return list;
}

py::list ReadAllTouch(const Handle& handle) {
  const bool has_touch =
      handle.Info().model != kv::Model::LUMEN && handle.Info().model != kv::Model::VANTA;
  if (!has_touch) {
    handle.RaiseHere(kv::FailureKind::NOT_SUPPORTED, "",
                     std::string("a ") + handle.Info().name + " has no touch sensors");
  }
  return ToList(Call<KorvaneBase>(handle, "touch", [&](const KorvaneBase& hand) {
    return ReadTouch(hand, handle.Address().link);
  }));
}

/// `read(hand, finger)` for a class of hands that has such sensors.
template <class Face, class Read>
auto Sensor(const char* name, Read read) {
  return [name, read](const Handle& handle, int finger) {
    return ToArray(Call<Face>(handle, name,
                              [&](Face& hand) { return read(hand, static_cast<Finger>(finger)); }));
  };
}

void DefineTouch(py::class_<Handle>& hand) {
  hand.def("touch", &ReadAllTouch);
  hand.def("touch_array",
           Sensor<IBR7TactileSensor1D>("GetTactileSensorDataRaw", [](auto& sensors, Finger finger) {
             return sensors.GetTactileSensorDataRaw(finger).data;
           }));
  hand.def("touch_summary",
           Sensor<KorvaneBrisa>("GetTactileSensorData", [](auto& sensors, Finger finger) {
             return sensors.GetTactileSensorData(finger);
           }));
  hand.def("fingertip", Sensor<KorvaneTessel>("GetTactileSensor3DData", ReadFingertip));
}

// --- The rest ----------------------------------------------------------------------------------

void DefineMotors(py::class_<Handle>& hand) {
  const Operations<KorvaneBase> def(hand);
  def("position", "GetJointMotorPosi", &KorvaneBase::GetJointMotorPosi);
  def("positions", "GetAllJointMotorPosi", &KorvaneBase::GetAllJointMotorPosi);
  def("set_active_joint_angles", "SetAllActiveJointAngles", &KorvaneBase::SetAllActiveJointAngles);
  def("active_joint_angles", "GetAllActiveJointAngles", &KorvaneBase::GetAllActiveJointAngles);
  def("joint_angles", "GetAllJointAngles", &KorvaneBase::GetAllJointAngles);
  def("complete_angles", "GetAllJointPos", &KorvaneBase::GetAllJointPos);
  def("velocity", "GetJointMotorVelo", &KorvaneBase::GetJointMotorVelo);
  def("velocities", "GetAllJointMotorVelo", &KorvaneBase::GetAllJointMotorVelo);
  def("set_velocity", "SetJointMotorVelo", &KorvaneBase::SetJointMotorVelo);
  def("set_velocities", "SetAllJointMotorVelo", &KorvaneBase::SetAllJointMotorVelo);
  def("control_mode", "GetControlMode", &KorvaneBase::GetControlMode);
  def("control_modes", "GetAllControlMode", &KorvaneBase::GetAllControlMode);
  def("set_control_mode", "SetControlMode", &KorvaneBase::SetControlMode);
  def("set_control_modes", "SetAllControlMode", &KorvaneBase::SetAllControlMode);
  def("current_threshold", "GetCurrentThreshold", &KorvaneBase::GetCurrentThreshold);
  def("current_thresholds", "GetAllCurrentThreshold", &KorvaneBase::GetAllCurrentThreshold);
  def("set_current_threshold", "SetCurrentThreshold", &KorvaneBase::SetCurrentThreshold);
  def("set_current_thresholds", "SetAllCurrentThreshold", &KorvaneBase::SetAllCurrentThreshold);
  def("gesture", "SetHandGesture", &KorvaneBase::SetHandGesture);
}

void DefineReports(py::class_<Handle>& hand) {
  const Operations<KorvaneBase> def(hand);
  def("error", "GetErrorReport", &KorvaneBase::GetErrorReport);
  def("errors", "GetAllErrorReport", &KorvaneBase::GetAllErrorReport);
  def("set_error_period", "SetErrorReportPeriod", &KorvaneBase::SetErrorReportPeriod);
  def("set_error_periods", "SetAllErrorReportPeriod", &KorvaneBase::SetAllErrorReportPeriod);
  def("temperature", "GetTemperatureReport", &KorvaneBase::GetTemperatureReport);
  def("temperatures", "GetAllTemperatureReport", &KorvaneBase::GetAllTemperatureReport);
  def("set_temperature_period", "SetTemperReportPeriod", &KorvaneBase::SetTemperReportPeriod);
  def("set_temperature_periods", "SetAllTemperReportPeriod",
      &KorvaneBase::SetAllTemperReportPeriod);
  def("current", "GetCurrentReport", &KorvaneBase::GetCurrentReport);
  def("currents", "GetAllCurrentReport", &KorvaneBase::GetAllCurrentReport);
  def("set_current_period", "SetCurrentReportPeriod", &KorvaneBase::SetCurrentReportPeriod);
  def("set_current_periods", "SetAllCurrentReportPeriod", &KorvaneBase::SetAllCurrentReportPeriod);
}

void DefineQuill(py::class_<Handle>& hand) {
  using kv::KorvaneQuill;
  const Operations<KorvaneQuill> def(hand);
  using All = void (KorvaneQuill::*)();
  using One = void (KorvaneQuill::*)(std::uint8_t);
  def("calibrate_min", "SetMinPositionCalibration", All(&KorvaneQuill::SetMinPositionCalibration));
  def("calibrate_max", "SetMaxPositionCalibration", All(&KorvaneQuill::SetMaxPositionCalibration));
  def("calibrate_joint_min", "SetMinPositionCalibration",
      One(&KorvaneQuill::SetMinPositionCalibration));
  def("calibrate_joint_max", "SetMaxPositionCalibration",
      One(&KorvaneQuill::SetMaxPositionCalibration));
}

py::tuple ReadVendor(const Handle& handle) {
  return ToTuple(Call<KorvaneBase>(handle, "GetVendorInfo",
                                   [](const KorvaneBase& hand) { return hand.GetVendorInfo(); }));
}

int ReadId(const Handle& handle) {
  return Call<KorvaneBase>(handle, "GetDeviceInfo",
                           [](const KorvaneBase& hand) { return hand.GetDeviceInfo(); })
      .device_id;
}

std::string Identify(const Handle& handle) {
  const auto model = Call<KorvaneBase>(
      handle, "IdentifyHand", [](const KorvaneBase& hand) { return kv::IdentifyHand(hand); });
  if (!model) Raise(model.failure(), handle.Name());
  return ToString(*model);
}

/// Of both objects, where the service interface is one of its own.
void SetReplyTimeout(const Handle& handle, int ms) {
  const auto held = handle.Borrow();
  held->For<KorvaneBase>().SetFrameRecvTimeout(ms);
  held->For<kv::PrivateKorvane>().SetFrameRecvTimeout(ms);
}

py::dict Statistics(const Handle& handle) {
  const auto held = handle.Borrow();
  const kv::LinkStatistics counts = kv::StatisticsOf(held->For<KorvaneBase>());
  return py::dict(py::arg("requests") = counts.requests, py::arg("replies") = counts.replies,
                  py::arg("send_failures") = counts.send_failures,
                  py::arg("timeouts") = counts.timeouts,
                  py::arg("bad_replies") = counts.bad_replies,
                  py::arg("unmatched_frames") = counts.unmatched_frames,
                  py::arg("link_lost") = counts.link_lost);
}

}  // namespace

py::tuple ToTuple(const kv::VendorInfo& vendor) {
  return py::make_tuple(kv::PlainText(vendor.product_model), kv::PlainText(vendor.serial_number),
                        ToPython(vendor.hardware_version), ToPython(vendor.software_version),
                        vendor.supply_voltage_mv, vendor.active_dof);
}

void DefinePublicOperations(py::class_<Handle>& hand) {
  hand.def("set_position", &SetPosition);
  hand.def("set_positions", &SetPositions);
  hand.def("set_targets", &SetTargets);
  hand.def("to_positions", &ToPositions);
  hand.def("to_angles", &ToAngles);
  hand.def("gesture_positions", &GesturePositions);
  hand.def("held_angles", &HeldAngles);
  hand.def("vendor", &ReadVendor);
  hand.def("asked_id", &ReadId);
  hand.def("identify", &Identify);
  hand.def("statistics", &Statistics);
  hand.def("set_reply_timeout", &SetReplyTimeout);
  const Operations<kv::Korvane> def(hand);
  def("set_id", "SetDeviceId", &kv::Korvane::SetDeviceId);
  def("show_frames", "ShowDataDetails", &kv::Korvane::ShowDataDetails);
  def("request_interval", "GetRequestInterval", &kv::Korvane::GetRequestInterval);
  def("set_request_interval", "SetRequestInterval", &kv::Korvane::SetRequestInterval);
  def("reply_timeout", "GetFrameRecvTimeout", &kv::Korvane::GetFrameRecvTimeout);
  def("send_timeout", "GetFrameSendTimeout", &kv::Korvane::GetFrameSendTimeout);
  def("set_send_timeout", "SetFrameSendTimeout", &kv::Korvane::SetFrameSendTimeout);
  DefineMotors(hand);
  DefineReports(hand);
  DefineQuill(hand);
  DefineTouch(hand);
}

}  // namespace korvane_python
