#include "definitions.h"

namespace korvane_python {
namespace {

using kv::PrivateKorvane;

void DefineMotion(const Operations<PrivateKorvane>& def) {
  def("service_set_axis_homing", "SetAxisHoming", &PrivateKorvane::SetAxisHoming);
  def("service_set_single_axis_pos", "SetSingleAxisPos", &PrivateKorvane::SetSingleAxisPos);
  def("service_single_axis_pos", "GetSingleAxisPos", &PrivateKorvane::GetSingleAxisPos);
  def("service_set_all_axis_pos", "SetAllAxisPos", &PrivateKorvane::SetAllAxisPos);
  def("service_all_axis_pos", "GetAllAxisPos", &PrivateKorvane::GetAllAxisPos);
  def("service_set_single_actual_axis_pos", "SetSingleActualAxisPos",
      &PrivateKorvane::SetSingleActualAxisPos);
  def("service_single_actual_axis_pos", "GetSingleActualAxisPos",
      &PrivateKorvane::GetSingleActualAxisPos);
  def("service_set_all_actual_axis_pos", "SetAllActualAxisPos",
      &PrivateKorvane::SetAllActualAxisPos);
  def("service_all_actual_axis_pos", "GetAllActualAxisPos", &PrivateKorvane::GetAllActualAxisPos);
  def("service_set_pos_speed_cur_data", "SetPosSpeedCurData", &PrivateKorvane::SetPosSpeedCurData);
  def("service_set_all_run_speed", "SetAllRunSpeed", &PrivateKorvane::SetAllRunSpeed);
  def("service_set_run_mode", "SetRunMode", &PrivateKorvane::SetRunMode);
  def("service_play_action", "PlayAction", &PrivateKorvane::PlayAction);
}

void DefineReadings(const Operations<PrivateKorvane>& def) {
  def("service_all_axis_current", "GetAllAxisCurrent", &PrivateKorvane::GetAllAxisCurrent);
  def("service_all_axis_velocity", "GetAllAxisVelocity", &PrivateKorvane::GetAllAxisVelocity);
  def("service_all_axis_temp", "GetAllAxisTemp", &PrivateKorvane::GetAllAxisTemp);
  def("service_all_load_data", "GetAllLoadData", &PrivateKorvane::GetAllLoadData);
  def("service_set_all_axis_cvp_upload_interval", "SetAllAxisCvpUploadInterval",
      &PrivateKorvane::SetAllAxisCvpUploadInterval);
  def("service_all_axis_cvp", "GetAllAxisCvp", &PrivateKorvane::GetAllAxisCvp);
  def("service_error_code", "GetErrorCode", &PrivateKorvane::GetErrorCode);
  def("service_clear_error", "ClearError", &PrivateKorvane::ClearError);
  def("service_fingertip_sensor", "GetFingertipSensor", &PrivateKorvane::GetFingertipSensor);
  def("service_all_fingertip_sensor_a", "GetAllFingertipSensorA",
      &PrivateKorvane::GetAllFingertipSensorA);
  def("service_all_fingertip_sensor_b", "GetAllFingertipSensorB",
      &PrivateKorvane::GetAllFingertipSensorB);
  def("service_all_fingertip_sensor_c", "GetAllFingertipSensorC",
      &PrivateKorvane::GetAllFingertipSensorC);
  def("service_finger_tactile_force", "GetFingerTactileForce",
      &PrivateKorvane::GetFingerTactileForce);
}

void DefineLimits(const Operations<PrivateKorvane>& def) {
  def("service_set_axis_min_pos", "SetAxisMinPos", &PrivateKorvane::SetAxisMinPos);
  def("service_set_axis_max_pos", "SetAxisMaxPos", &PrivateKorvane::SetAxisMaxPos);
  def("service_axis_limit_pos", "GetAxisLimitPos", &PrivateKorvane::GetAxisLimitPos);
  def("service_all_axis_pos_range", "GetAllAxisPosRange", &PrivateKorvane::GetAllAxisPosRange);
  def("service_clear_all_limit_pos", "ClearAllLimitPos", &PrivateKorvane::ClearAllLimitPos);
  def("service_set_overload_torque", "SetOverloadTorque", &PrivateKorvane::SetOverloadTorque);
  def("service_set_overload_protection_time", "SetOverloadProtectionTime",
      &PrivateKorvane::SetOverloadProtectionTime);
  def("service_set_protected_torque", "SetProtectedTorque", &PrivateKorvane::SetProtectedTorque);
  def("service_set_min_torque", "SetMinTorque", &PrivateKorvane::SetMinTorque);
  def("service_set_protective_current", "SetProtectiveCurrent",
      &PrivateKorvane::SetProtectiveCurrent);
  def("service_set_temperature_threshold", "SetTemperatureThreshold",
      &PrivateKorvane::SetTemperatureThreshold);
}

void DefineDevice(const Operations<PrivateKorvane>& def) {
  def("service_set_power_state", "SetPowerState", &PrivateKorvane::SetPowerState);
  def("service_power_state", "GetPowerState", &PrivateKorvane::GetPowerState);
  def("service_set_id", "SetId", &PrivateKorvane::SetId);
  def("service_set_right_or_left", "SetRightOrLeft", &PrivateKorvane::SetRightOrLeft);
  def("service_set_control_source", "SetControlSource", &PrivateKorvane::SetControlSource);
  def("service_control_source", "GetControlSource", &PrivateKorvane::GetControlSource);
  def("service_save_param", "SaveParam", &PrivateKorvane::SaveParam);
  def("service_all_electric_motor_id", "GetAllElectricMotorId",
      &PrivateKorvane::GetAllElectricMotorId);
  def("service_all_sensor_id", "GetAllSensorId", &PrivateKorvane::GetAllSensorId);
  def("service_set_product_serial_number", "SetProductSerialNumber",
      &PrivateKorvane::SetProductSerialNumber);
  def("service_product_serial_number", "GetProductSerialNumber",
      &PrivateKorvane::GetProductSerialNumber);
  def("service_fw_version", "GetFwVersion", &PrivateKorvane::GetFwVersion);
}

}  // namespace

py::object ToPython(const kv::AxisLimitPos& limits) {
  return py::make_tuple(ToArray(limits.lower), ToArray(limits.upper));
}

py::object ToPython(const kv::SetAllAxisPosResponse& reply) {
  return py::make_tuple(ToArray(reply.pos), ToArray(reply.second), ToArray(reply.third),
                        ToArray(reply.fourth));
}

py::object ToPython(const kv::ProductSerialNumber& number) {
  return py::bytes(reinterpret_cast<const char*>(&number), sizeof(number));
}

py::object ToPython(const kv::FwVersion& version) {
  return py::make_tuple(ToPython(version.first), ToPython(version.firmware),
                        ToPython(version.hardware), version.last);
}

void DefineServiceOperations(py::class_<Handle>& hand) {
  const Operations<PrivateKorvane> def(hand);
  DefineMotion(def);
  DefineReadings(def);
  DefineLimits(def);
  DefineDevice(def);
}

}  // namespace korvane_python
