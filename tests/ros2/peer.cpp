// The other end of korvane-ros2 for its tests: another process that reads and writes as nodes of
// ROS 2 do. Reads orders on its standard input, one a line, and tells what comes in as JSON lines.
//
//   peer DOMAIN TOPIC[=TYPE]...       topics to read, "/diagnostics=diagnostics"; a leading "-"
//   reads
//                                     with best effort
//
//   orders:  writer NAME TOPIC TYPE reliable|best_effort    makes a writer
//            joints NAME AGE_MS name=value...               writes a JointState, as old as that
//            motors NAME AGE_MS value...                    writes a Float64MultiArray
//            huge NAME COUNT                                a JointState of COUNT names
//            odd NAME NAMES POSITIONS VELOCITIES            a JointState of such lengths
//            repeat NAME HZ                                 the last again and again, with new
//            stamps
//            stop NAME                                      no more
//            drive ADDRESS MOTOR VELOCITY                   lets a motor of a hand run, as another
//            program that has the hand would
#include <dds/dds.h>
#include <korvane_log.h>
#include <korvane_open.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <iostream>
#include <map>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "dds.h"
#include "messages.h"
#include "ros2.h"

namespace {

using namespace korvane_ros2;  // its DDS is what the other end is made of

using JointState = sensor_msgs_msg_dds__JointState_;
using Array = std_msgs_msg_dds__Float64MultiArray_;
using Diagnostics = diagnostic_msgs_msg_dds__DiagnosticArray_;

std::mutex g_output;

void Say(const std::string& line) {
  const std::lock_guard<std::mutex> lock(g_output);
  std::cout << line << std::endl;
}

std::string Quoted(const std::string& text) {
  std::string quoted = "\"";
  for (const char c : text) {
    if (c == '\n') {
      quoted += "\\n";
    } else {
      quoted += (c == '"' || c == '\\' ? "\\" : "") + std::string(1, c);
    }
  }
  return quoted + '"';
}

template <class Sequence, class Text>
std::string List(const Sequence& sequence, Text text) {
  std::string list = "[";
  for (std::uint32_t i = 0; i < sequence._length; ++i) {
    list += (i == 0 ? "" : ", ") + text(sequence._buffer[i]);
  }
  return list + "]";
}

const auto kNumber = [](auto value) { return std::to_string(value); };
const auto kText = [](const char* text) { return Quoted(text); };

std::string ToJson(const JointState& message) {
  return "\"names\": " + List(message.name, kText) +
         ", \"positions\": " + List(message.position, kNumber) +
         ", \"velocities\": " + std::to_string(message.velocity._length) +
         ", \"stamp\": " + std::to_string(message.header.stamp.sec) +
         ", \"frame\": " + Quoted(message.header.frame_id);
}

std::string ToJson(const Diagnostics& message) {
  return "\"status\": " + List(message.status, [](const auto& status) {
           std::string json = "{\"level\": " + std::to_string(status.level) +
                              ", \"name\": " + Quoted(status.name) +
                              ", \"message\": " + Quoted(status.message);
           for (std::uint32_t i = 0; i < status.values._length; ++i) {
             const auto& value = status.values._buffer[i];
             json += ", " + Quoted(value.key) + ": " + Quoted(value.value);
           }
           return json + "}";
         });
}

template <class Info>
std::string ToJsonNodes(const Info& message) {
  return "\"nodes\": " + List(message.node_entities_info_seq, [](const auto& node) {
           return Quoted(std::string(node.node_namespace) + "/" + node.node_name) + ", " +
                  std::to_string(node.reader_gid_seq._length) + ", " +
                  std::to_string(node.writer_gid_seq._length);
         });
}

std::string ToJson(const std::string& type, const void* message) {
  if (type == "joints") return ToJson(*static_cast<const JointState*>(message));
  if (type == "diagnostics") return ToJson(*static_cast<const Diagnostics*>(message));
  if (type == "touch") {
    return "\"data\": " +
           List(static_cast<const std_msgs_msg_dds__UInt8MultiArray_*>(message)->data, kNumber);
  }
  if (type == "nodes") {
    return ToJsonNodes(
        *static_cast<const rmw_dds_common_msg_dds__ParticipantEntitiesInfo_*>(message));
  }
  return "\"data\": " + List(static_cast<const Array*>(message)->data, kNumber);
}

MessageType TypeOf(const std::string& name) {
  if (name == "joints") return types::kJointState;
  if (name == "diagnostics") return types::kDiagnosticArray;
  if (name == "touch") return types::kUInt8MultiArray;
  if (name == "nodes") return {&rmw_dds_common_msg_dds__ParticipantEntitiesInfo__desc, nullptr};
  return types::kFloat64MultiArray;
}

/// A writer whose last message can be sent again and again.
struct Author {
  Entity topic;
  Entity writer;
  std::vector<std::string> texts;
  std::vector<char*> names;
  std::vector<double> values;
  std::vector<double> velocities;
  JointState joints{};
  Array array{};
  const void* last = nullptr;
  std::mutex mutex;
  std::atomic<int> hz{0};
  std::thread repeater;
};

template <class Sequence, class Element>
void Show(Sequence& sequence, std::vector<Element>& elements) {
  sequence._length = sequence._maximum = static_cast<std::uint32_t>(elements.size());
  sequence._buffer = elements.data();
}

void Write(Author& author, double age_ms) {
  author.names.clear();
  for (std::string& text : author.texts) author.names.push_back(text.data());
  static char empty[] = "";
  author.joints.header.frame_id = empty;
  Show(author.joints.name, author.names);
  Show(author.joints.position, author.values);
  Show(author.joints.velocity, author.velocities);
  Show(author.array.data, author.values);
  const auto age = static_cast<std::int64_t>(age_ms * 1e6);
  dds_write_ts(author.writer.Handle(), author.last, WallClock() - age);
}

void Repeat(Author& author) {
  while (author.hz > 0) {
    {
      const std::lock_guard<std::mutex> lock(author.mutex);
      Write(author, 0);
    }
    std::this_thread::sleep_for(std::chrono::microseconds(1'000'000 / author.hz));
  }
}

void MakeWriter(const Participant& participant, Author& author, std::istream& order) {
  std::string topic;
  std::string type;
  std::string reliability;
  order >> topic >> type >> reliability;
  const MessageType message = TypeOf(type);
  author.topic = Entity(dds_create_topic(participant.Handle(), message.descriptor,
                                         DdsTopic(topic).c_str(), nullptr, nullptr),
                        topic);
  dds_qos_t* const qos = dds_create_qos();
  dds_qset_reliability(
      qos, reliability == "reliable" ? DDS_RELIABILITY_RELIABLE : DDS_RELIABILITY_BEST_EFFORT,
      DDS_SECS(1));
  author.writer =
      Entity(dds_create_writer(participant.Handle(), author.topic.Handle(), qos, nullptr), topic);
  dds_delete_qos(qos);
  author.last = type == "joints" ? static_cast<const void*>(&author.joints) : &author.array;
  std::thread([handle = author.writer.Handle(), topic] {
    dds_publication_matched_status_t status{};
    while (dds_get_publication_matched_status(handle, &status) == DDS_RETCODE_OK &&
           status.current_count == 0) {
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    Say("{\"matched\": " + Quoted(topic) + "}");
  }).detach();
}

void Fill(Author& author, std::istream& order) {
  author.texts.clear();
  author.values.clear();
  author.velocities.clear();
  for (std::string word; order >> word;) {
    const auto mark = word.find('=');
    if (mark != std::string::npos) author.texts.push_back(word.substr(0, mark));
    author.values.push_back(std::stod(word.substr(mark == std::string::npos ? 0 : mark + 1)));
  }
}

void FillOdd(Author& author, std::size_t names, std::size_t positions, std::size_t velocities) {
  author.texts.assign(names, "x");
  author.values.assign(positions, 0.1);
  author.velocities.assign(velocities, 0.1);
}

/// Past the hand's node.
void Drive(const std::string& address, std::istream& order) {
  namespace kv = talvera::korvane;
  int motor = 0;
  short velocity = 0;
  order >> motor >> velocity;
  kv::SetLogSink(kv::SilentLog());
  auto hand = kv::OpenHand(address);
  while (!hand) hand = kv::OpenHand(address);  // a busy machine may be late to answer
  (*hand)->SetFrameRecvTimeout(1000);
  const auto index = static_cast<std::uint8_t>(motor);
  (*hand)->SetControlMode(index, kv::ControlMode::VELOCITY_CURRENT);
  (*hand)->SetJointMotorVelo(index, velocity);
}

void Obey(const Participant& participant, std::map<std::string, Author>& authors,
          const std::string& line) {
  std::istringstream order(line);
  std::string what;
  std::string name;
  order >> what >> name;
  if (what == "drive") return Drive(name, order);
  Author& author = authors[name];
  if (what == "writer") return MakeWriter(participant, author, order);
  if (what == "stop") {
    author.hz = 0;
    if (author.repeater.joinable()) author.repeater.join();
    return;
  }
  const std::lock_guard<std::mutex> lock(author.mutex);
  double number = 0;
  order >> number;
  if (what == "repeat") {
    author.hz = static_cast<int>(number);
    author.repeater = std::thread([&author] { Repeat(author); });
  } else if (what == "huge") {
    FillOdd(author, static_cast<std::size_t>(number), static_cast<std::size_t>(number), 0);
    Write(author, 0);
  } else if (what == "odd") {
    std::size_t positions = 0;
    std::size_t velocities = 0;
    order >> positions >> velocities;
    FillOdd(author, static_cast<std::size_t>(number), positions, velocities);
    Write(author, 0);
  } else {
    Fill(author, order);
    Write(author, number);
  }
}

Reader MakeReader(const Participant& participant, std::string topic) {
  const bool is_reliable = topic.front() != '-';
  if (!is_reliable) topic.erase(0, 1);
  const auto mark = topic.find('=');
  const std::string name = topic.substr(0, mark);
  const std::string type = mark == std::string::npos ? "" : topic.substr(mark + 1);
  const auto say = [name, type](const void* message, const dds_sample_info_t& info) {
    const auto late = static_cast<double>(WallClock() - info.source_timestamp) / 1e3;
    Say("{\"topic\": " + Quoted(name) + ", \"late_us\": " + std::to_string(late) + ", " +
        ToJson(type, message) + "}");
  };
  return {participant,  type == "nodes" ? name : DdsTopic(name),
          TypeOf(type), is_reliable ? Reliability::RELIABLE : Reliability::BEST_EFFORT,
          say,          type == "nodes"};
}

}  // namespace

int main(int argc, char** argv) {
  const Participant participant(static_cast<dds_domainid_t>(std::stoi(argv[1])), true);
  std::vector<Reader> readers;
  for (int i = 2; i < argc; ++i) readers.push_back(MakeReader(participant, argv[i]));
  std::map<std::string, Author> authors;
  for (std::string line; std::getline(std::cin, line);) Obey(participant, authors, line);
  for (auto& [name, author] : authors) Obey(participant, authors, "stop " + name);
  std::fflush(stdout);
  std::_Exit(0);  // some threads still wait for a match
}
