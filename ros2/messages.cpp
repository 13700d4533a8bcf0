#include "messages.h"

#include <ctime>

#include "ros2.h"

namespace korvane_ros2 {

// The hashes are those of the descriptions of the types, by the rule of ROS 2's type versioning;
// the tests work them out anew.
namespace types {
const MessageType kJointState{
    &sensor_msgs_msg_dds__JointState__desc,
    "RIHS01_a13ee3a330e346c9d87b5aa18d24e11690752bd33a0350f11c5882bc9179260e"};
const MessageType kFloat64MultiArray{
    &std_msgs_msg_dds__Float64MultiArray__desc,
    "RIHS01_1025ddc6b9552d191f89ef1a8d2f60f3d373e28b283d8891ddcc974e8c55397f"};
const MessageType kUInt8MultiArray{
    &std_msgs_msg_dds__UInt8MultiArray__desc,
    "RIHS01_5687e861b8d307a5e48b7515467ae7a5fc2daf805bd0ce6d8e9e604bade9f385"};
const MessageType kDiagnosticArray{
    &diagnostic_msgs_msg_dds__DiagnosticArray__desc,
    "RIHS01_5a8a36efb05fb25070fa0fb3810290c0e6cd4862b54a8fb975a1ee8dc55a333e"};
}  // namespace types

namespace {

constexpr std::int64_t kSecond = 1'000'000'000;
/// More than any hand has of anything.
constexpr std::uint32_t kMostValues = 64;

/// A sequence that shows the elements of a vector, which must outlive it. DDS only reads it.
template <class Sequence, class Element>
Sequence View(const std::vector<Element>& elements) {
  Sequence sequence{};
  sequence._length = sequence._maximum = static_cast<std::uint32_t>(elements.size());
  sequence._buffer = const_cast<Element*>(elements.data());
  return sequence;
}

/// Texts are read too, though the generated types can't say so.
char* View(const std::string& text) { return const_cast<char*>(text.c_str()); }

std::vector<char*> ViewAll(const std::vector<std::string>& texts) {
  std::vector<char*> views;
  views.reserve(texts.size());
  for (const std::string& text : texts) views.push_back(View(text));
  return views;
}

builtin_interfaces_msg_dds__Time_ ToTime(std::int64_t ns) {
  return {static_cast<std::int32_t>(ns / kSecond), static_cast<std::uint32_t>(ns % kSecond)};
}

template <class Message, class Element>
bool PublishArray(const Writer& writer, const char* label, const std::vector<Element>& values) {
  const auto size = static_cast<std::uint32_t>(values.size());
  const std::string name = label;
  const std::vector<std_msgs_msg_dds__MultiArrayDimension_> dimensions{{View(name), size, size}};
  Message message{};
  message.layout.dim = View<decltype(message.layout.dim)>(dimensions);
  message.data = View<decltype(message.data)>(values);
  return writer.Write(&message);
}

std::vector<diagnostic_msgs_msg_dds__KeyValue_> ViewValues(const Status& status) {
  std::vector<diagnostic_msgs_msg_dds__KeyValue_> values;
  for (const auto& [key, value] : status.values) values.push_back({View(key), View(value)});
  return values;
}

Command FromJointState(const sensor_msgs_msg_dds__JointState_& message) {
  Command command;
  command.has_velocity_or_effort = message.velocity._length > 0 || message.effort._length > 0;
  command.is_too_large =
      message.name._length > kMostValues || message.position._length > kMostValues;
  if (command.is_too_large) return command;
  command.names.assign(message.name._buffer, message.name._buffer + message.name._length);
  command.values.assign(message.position._buffer,
                        message.position._buffer + message.position._length);
  return command;
}

Command FromArray(const std_msgs_msg_dds__Float64MultiArray_& message) {
  Command command;
  command.is_too_large = message.data._length > kMostValues;
  if (command.is_too_large) return command;
  command.values.assign(message.data._buffer, message.data._buffer + message.data._length);
  return command;
}

}  // namespace

std::int64_t WallClock() {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  return now.tv_sec * kSecond + now.tv_nsec;
}

bool Publish(const Writer& writer, const JointStates& states) {
  const auto names = ViewAll(states.names);
  sensor_msgs_msg_dds__JointState_ message{};
  message.header = {ToTime(states.stamp_ns), View(states.frame_id)};
  message.name = View<decltype(message.name)>(names);
  message.position = View<decltype(message.position)>(states.positions);
  return writer.Write(&message);
}

bool Publish(const Writer& writer, const char* label, const std::vector<double>& values) {
  return PublishArray<std_msgs_msg_dds__Float64MultiArray_>(writer, label, values);
}

bool Publish(const Writer& writer, const char* label, const std::vector<std::uint8_t>& values) {
  return PublishArray<std_msgs_msg_dds__UInt8MultiArray_>(writer, label, values);
}

bool Publish(const Writer& writer, const std::vector<Status>& statuses) {
  const std::string frame_id;
  std::vector<std::vector<diagnostic_msgs_msg_dds__KeyValue_>> values;
  values.reserve(statuses.size());
  std::vector<diagnostic_msgs_msg_dds__DiagnosticStatus_> views;
  for (const Status& status : statuses) {
    values.push_back(ViewValues(status));
    diagnostic_msgs_msg_dds__DiagnosticStatus_ view{};
    view.level = static_cast<std::uint8_t>(status.level);
    view.name = View(status.name);
    view.message = View(status.message);
    view.hardware_id = View(status.hardware_id);
    view.values = View<decltype(view.values)>(values.back());
    views.push_back(view);
  }
  diagnostic_msgs_msg_dds__DiagnosticArray_ message{};
  message.header = {ToTime(WallClock()), View(frame_id)};
  message.status = View<decltype(message.status)>(views);
  return writer.Write(&message);
}

Command ToCommand(Space space, const void* message) {
  Command command =
      space == Space::JOINTS
          ? FromJointState(*static_cast<const sensor_msgs_msg_dds__JointState_*>(message))
          : FromArray(*static_cast<const std_msgs_msg_dds__Float64MultiArray_*>(message));
  command.space = space;
  return command;
}

}  // namespace korvane_ros2
