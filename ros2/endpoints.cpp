#include "endpoints.h"

#include <korvane_model.h>

#include "common/touch.h"
#include "messages.h"

namespace korvane_ros2 {
namespace {

namespace kv = talvera::korvane;

constexpr const char* kNodeName = "bridge";
Reader::Take PutInto(Mailbox& mailbox, Space space) {
  return [&mailbox, space](const void* message, const dds_sample_info_t& info) {
    Command command = ToCommand(space, message);
    command.commander = info.publication_handle;
    mailbox.Put(std::move(command), info.source_timestamp);
  };
}

}  // namespace

Endpoints::Endpoints(const Participant& participant, const HandOptions& options,
                     Reliability commands, const kv::KorvaneBase& hand, Mailbox& mailbox) {
  const auto write = [&](const std::string& name, const MessageType& type) {
    return Writer(participant, DdsTopic(options.name_space + "/" + name), type);
  };
  const auto read = [&](const std::string& name, const MessageType& type, Space space) {
    return Reader(participant, DdsTopic(options.name_space + "/" + name), type, commands,
                  PutInto(mailbox, space));
  };
  const kv::ModelInfo& model = kv::InfoOf(*options.address.model);
  if (!kv::JointsOf(model.model, options.address.side).empty()) {
    joint_states = write("joint_states", types::kJointState);
    joint_commands = read("joint_commands", types::kJointState, Space::JOINTS);
  }
  motor_positions = write("motor_positions", types::kFloat64MultiArray);
  if (model.has_motors) {
    motor_currents = write("motor_currents", types::kFloat64MultiArray);
    motor_commands = read("motor_commands", types::kFloat64MultiArray, Space::MOTORS);
  }
  for (const kv::Finger finger : korvane_common::SensorsOf(hand)) {
    const std::string name = korvane_common::FingerName(finger);
    touch.push_back({finger, write("tactile/" + name, types::kUInt8MultiArray)});
  }
}

Node Endpoints::ToNode(const std::string& space) const {
  Node node{space, kNodeName, {}, {}};
  for (const Reader* reader : {&joint_commands, &motor_commands}) {
    if (*reader) node.readers.push_back(reader->Handle());
  }
  for (const Writer* writer : {&joint_states, &motor_positions, &motor_currents}) {
    if (*writer) node.writers.push_back(writer->Handle());
  }
  for (const TouchTopic& topic : touch) node.writers.push_back(topic.writer.Handle());
  return node;
}

std::uint64_t Endpoints::Mismatches() const {
  std::uint64_t mismatches = joint_commands.Mismatches() + motor_commands.Mismatches() +
                             joint_states.Mismatches() + motor_positions.Mismatches() +
                             motor_currents.Mismatches();
  for (const TouchTopic& topic : touch) mismatches += topic.writer.Mismatches();
  return mismatches;
}

}  // namespace korvane_ros2
