// The other end of korvane-ros2 on Fast DDS, set up as ROS 2's default middleware sets it up: the
// orders and the JSON lines of ../peer.cpp, as far as the tests of this folder need them.
//
//   peer DOMAIN TOPIC[=TYPE]...    topics to read, types "joints", "array", "diagnostics",
//                                  "nodes" and "humble_nodes"; a leading "-" reads with best effort
//
//   orders:  writer NAME TOPIC joints reliable|best_effort  makes a writer
//            joints NAME AGE_MS name=value...               writes a JointState, as old as that
//            repeat NAME HZ                                 the last again and again, stamped anew
//            stop NAME                                      no more
#include <algorithm>
#include <atomic>
#include <chrono>
#include <fastdds/dds/domain/DomainParticipant.hpp>
#include <fastdds/dds/domain/DomainParticipantFactory.hpp>
#include <fastdds/dds/domain/DomainParticipantListener.hpp>
#include <fastdds/dds/publisher/DataWriter.hpp>
#include <fastdds/dds/publisher/DataWriterListener.hpp>
#include <fastdds/dds/publisher/Publisher.hpp>
#include <fastdds/dds/subscriber/DataReader.hpp>
#include <fastdds/dds/subscriber/DataReaderListener.hpp>
#include <fastdds/dds/subscriber/SampleInfo.hpp>
#include <fastdds/dds/subscriber/Subscriber.hpp>
#include <iostream>
#include <map>
#include <memory>
#include <mutex>
#include <nlohmann/json.hpp>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "ros2PubSubTypes.h"

namespace {

namespace fast = eprosima::fastdds::dds;
namespace rtps = eprosima::fastrtps::rtps;
using nlohmann::json;
using JointState = sensor_msgs::msg::dds_::JointState_;
using JointStateType = sensor_msgs::msg::dds_::JointState_PubSubType;
using Array = std_msgs::msg::dds_::Float64MultiArray_;
using Diagnostics = diagnostic_msgs::msg::dds_::DiagnosticArray_;
using Nodes = rmw_dds_common::msg::dds_::ParticipantEntitiesInfo_;
using NodesType = rmw_dds_common::msg::dds_::ParticipantEntitiesInfo_PubSubType;
using HumbleNodes = humble::msg::dds_::ParticipantEntitiesInfo_;

constexpr int kHistory = 10;

std::mutex g_output;

void Say(const json& line) {
  const std::lock_guard<std::mutex> lock(g_output);
  std::cout << line.dump() << std::endl;
}

template <class Made>
Made* Checked(Made* made, const std::string& what) {
  if (made == nullptr) throw std::runtime_error("Fast DDS doesn't make " + what);
  return made;
}

std::int64_t WallClock() {
  return std::chrono::nanoseconds(std::chrono::system_clock::now().time_since_epoch()).count();
}

json ToJson(const JointState& message) {
  return {{"names", message.name()},
          {"positions", message.position()},
          {"velocities", message.velocity().size()},
          {"stamp", message.header().stamp().sec()},
          {"frame", message.header().frame_id()}};
}

json ToJson(const Array& message) { return {{"data", message.data()}}; }

json ToJson(const Diagnostics& message) {
  json statuses = json::array();
  for (const auto& status : message.status()) {
    json one = {{"level", status.level()}, {"name", status.name()}, {"message", status.message()}};
    for (const auto& value : status.values()) one[value.key()] = value.value();
    statuses.push_back(one);
  }
  return {{"status", statuses}};
}

template <class Info>
json ToJson(const Info& message) {
  json nodes = json::array();
  for (const auto& node : message.node_entities_info_seq()) {
    nodes.push_back(node.node_namespace() + "/" + node.node_name());
    nodes.push_back(node.reader_gid_seq().size());
    nodes.push_back(node.writer_gid_seq().size());
  }
  return {{"nodes", nodes}};
}

std::string ToText(const std::vector<rtps::octet>& data) { return {data.begin(), data.end()}; }

/// Tells what others announce beside their messages.
class Discovery : public fast::DomainParticipantListener {
  void on_participant_discovery(fast::DomainParticipant*,
                                rtps::ParticipantDiscoveryInfo&& info) override {
    if (info.status != rtps::ParticipantDiscoveryInfo::DISCOVERED_PARTICIPANT) return;
    Say({{"participant", ToText(info.info.m_userData)}});
  }

  void on_publisher_discovery(fast::DomainParticipant*, rtps::WriterDiscoveryInfo&& info) override {
    if (info.status != rtps::WriterDiscoveryInfo::DISCOVERED_WRITER) return;
    Say({{"announced", info.info.topicName().to_string()},
         {"type", info.info.typeName().to_string()},
         {"user_data", ToText(info.info.m_qos.m_userData)}});
  }
};

class Endpoints {
 public:
  explicit Endpoints(fast::DomainId_t domain) {
    fast::DomainParticipantQos qos;
    const std::string enclave = "enclave=/;";
    qos.user_data().setValue({enclave.begin(), enclave.end()});
    auto& builtin = qos.wire_protocol().builtin;
    builtin.readerHistoryMemoryPolicy = rtps::PREALLOCATED_WITH_REALLOC_MEMORY_MODE;
    builtin.writerHistoryMemoryPolicy = rtps::PREALLOCATED_WITH_REALLOC_MEMORY_MODE;
    participant_ = Checked(fast::DomainParticipantFactory::get_instance()->create_participant(
                               domain, qos, &discovery_, fast::StatusMask::none()),
                           "a participant");
    publisher_ = participant_->create_publisher(fast::PUBLISHER_QOS_DEFAULT);
    subscriber_ = participant_->create_subscriber(fast::SUBSCRIBER_QOS_DEFAULT);
  }
  Endpoints(const Endpoints&) = delete;
  Endpoints& operator=(const Endpoints&) = delete;
  ~Endpoints() {
    participant_->delete_contained_entities();
    fast::DomainParticipantFactory::get_instance()->delete_participant(participant_);
  }

  /// `type` becomes the property of Fast DDS. No type objects, as in ROS 2.
  fast::Topic* TopicOf(const std::string& name, fast::TopicDataType* type) {
    type->auto_fill_type_object(false);
    type->auto_fill_type_information(false);
    const std::string type_name = type->getName();
    fast::TypeSupport(type).register_type(participant_);
    auto* const existing = static_cast<fast::Topic*>(participant_->lookup_topicdescription(name));
    if (existing != nullptr) return existing;
    return Checked(participant_->create_topic(name, type_name, fast::TOPIC_QOS_DEFAULT), name);
  }

  fast::DataWriter* MakeWriter(fast::Topic* topic, bool is_reliable,
                               fast::DataWriterListener* listener) {
    fast::DataWriterQos qos;
    SetCommon(qos, is_reliable, false);
    qos.publish_mode().kind = fast::SYNCHRONOUS_PUBLISH_MODE;
    return Checked(publisher_->create_datawriter(topic, qos, listener), "a writer");
  }

  void MakeReader(fast::Topic* topic, bool is_reliable, bool is_lasting,
                  fast::DataReaderListener* listener) {
    fast::DataReaderQos qos;
    SetCommon(qos, is_reliable, is_lasting);
    Checked(subscriber_->create_datareader(topic, qos, listener), "a reader");
  }

 private:
  template <class Qos>
  static void SetCommon(Qos& qos, bool is_reliable, bool is_lasting) {
    qos.endpoint().history_memory_policy = rtps::PREALLOCATED_WITH_REALLOC_MEMORY_MODE;
    qos.data_sharing().off();
    qos.reliability().kind =
        is_reliable ? fast::RELIABLE_RELIABILITY_QOS : fast::BEST_EFFORT_RELIABILITY_QOS;
    qos.durability().kind =
        is_lasting ? fast::TRANSIENT_LOCAL_DURABILITY_QOS : fast::VOLATILE_DURABILITY_QOS;
    qos.history().kind = fast::KEEP_LAST_HISTORY_QOS;
    qos.history().depth = is_lasting ? 1 : kHistory;
  }

  Discovery discovery_;
  fast::DomainParticipant* participant_ = nullptr;
  fast::Publisher* publisher_ = nullptr;
  fast::Subscriber* subscriber_ = nullptr;
};

template <class Message>
class Listener : public fast::DataReaderListener {
 public:
  explicit Listener(std::string topic) : topic_(std::move(topic)) {}

  void on_data_available(fast::DataReader* reader) override {
    Message message;
    fast::SampleInfo info;
    while (reader->take_next_sample(&message, &info) == ReturnCode_t::RETCODE_OK) {
      if (!info.valid_data) continue;
      json line = ToJson(message);
      line["topic"] = topic_;
      line["late_us"] = static_cast<double>(WallClock() - info.source_timestamp.to_ns()) / 1e3;
      Say(line);
    }
  }

 private:
  std::string topic_;
};

/// What is read of a name in the arguments.
struct Kind {
  std::unique_ptr<fast::DataReaderListener> listener;
  fast::TopicDataType* type;
};

Kind KindOf(const std::string& type, const std::string& topic) {
  if (type == "joints") return {std::make_unique<Listener<JointState>>(topic), new JointStateType};
  if (type == "array") {
    return {std::make_unique<Listener<Array>>(topic),
            new std_msgs::msg::dds_::Float64MultiArray_PubSubType};
  }
  if (type == "diagnostics") {
    return {std::make_unique<Listener<Diagnostics>>(topic),
            new diagnostic_msgs::msg::dds_::DiagnosticArray_PubSubType};
  }
  if (type == "nodes") return {std::make_unique<Listener<Nodes>>(topic), new NodesType};
  if (type != "humble_nodes") throw std::runtime_error("no such type: " + type);
  auto* const humble_type = new humble::msg::dds_::ParticipantEntitiesInfo_PubSubType;
  humble_type->setName(NodesType().getName());  // the same name in every release
  return {std::make_unique<Listener<HumbleNodes>>(topic), humble_type};
}

std::unique_ptr<fast::DataReaderListener> MakeReader(Endpoints& endpoints, std::string topic) {
  const bool is_reliable = topic.front() != '-';
  if (!is_reliable) topic.erase(0, 1);
  const auto mark = topic.find('=');
  const std::string name = topic.substr(0, mark);
  Kind kind = KindOf(topic.substr(mark + 1), name);
  const bool is_graph = name.front() != '/';
  endpoints.MakeReader(endpoints.TopicOf((is_graph ? "" : "rt") + name, kind.type), is_reliable,
                       is_graph, kind.listener.get());
  return std::move(kind.listener);
}

/// A writer whose last message can be sent again and again.
class Author : public fast::DataWriterListener {
 public:
  Author() = default;
  Author(const Author&) = delete;
  Author& operator=(const Author&) = delete;
  ~Author() override { Stop(); }

  void Make(Endpoints& endpoints, const std::string& topic, bool is_reliable) {
    topic_ = topic;
    writer_ = endpoints.MakeWriter(endpoints.TopicOf("rt" + topic, new JointStateType), is_reliable,
                                   this);
  }

  void Set(std::istream& order) {
    const std::lock_guard<std::mutex> lock(mutex_);
    message_ = {};
    for (std::string word; order >> word;) {
      const auto mark = word.find('=');
      message_.name().push_back(word.substr(0, mark));
      message_.position().push_back(std::stod(word.substr(mark + 1)));
    }
  }

  void Write(double age_ms) {
    const std::lock_guard<std::mutex> lock(mutex_);
    const std::int64_t stamp = WallClock() - static_cast<std::int64_t>(age_ms * 1e6);
    const eprosima::fastrtps::Time_t time(static_cast<std::int32_t>(stamp / 1'000'000'000),
                                          static_cast<std::uint32_t>(stamp % 1'000'000'000));
    writer_->write_w_timestamp(&message_, fast::HANDLE_NIL, time);
  }

  void Repeat(int hz) {
    hz_ = hz;
    repeater_ = std::thread([this] {
      while (hz_ > 0) {
        Write(0);
        std::this_thread::sleep_for(std::chrono::microseconds(1'000'000 / std::max(1, hz_.load())));
      }
    });
  }

  void Stop() {
    hz_ = 0;
    if (repeater_.joinable()) repeater_.join();
  }

 private:
  void on_publication_matched(fast::DataWriter*,
                              const fast::PublicationMatchedStatus& status) override {
    if (status.current_count_change > 0) Say({{"matched", topic_}});
  }

  void on_offered_incompatible_qos(fast::DataWriter*,
                                   const fast::OfferedIncompatibleQosStatus& status) override {
    Say({{"mismatch", topic_}, {"policy", status.last_policy_id}});
  }

  std::string topic_;
  fast::DataWriter* writer_ = nullptr;
  JointState message_;
  std::mutex mutex_;
  std::atomic<int> hz_{0};
  std::thread repeater_;
};

void Obey(Endpoints& endpoints, std::map<std::string, Author>& authors, const std::string& line) {
  std::istringstream order(line);
  std::string what;
  std::string name;
  order >> what >> name;
  Author& author = authors[name];
  double number = 0;
  if (what == "writer") {
    std::string topic;
    std::string type;
    std::string reliability;
    order >> topic >> type >> reliability;
    author.Make(endpoints, topic, reliability == "reliable");
  } else if (what == "joints") {
    order >> number;
    author.Set(order);
    author.Write(number);
  } else if (what == "repeat") {
    order >> number;
    author.Repeat(static_cast<int>(number));
  } else {
    author.Stop();
  }
}

}  // namespace

int main(int argc, char** argv) {
  // What Fast DDS calls back outlives what calls.
  std::vector<std::unique_ptr<fast::DataReaderListener>> listeners;
  std::map<std::string, Author> authors;
  Endpoints endpoints(static_cast<fast::DomainId_t>(std::stoul(argv[1])));
  for (int i = 2; i < argc; ++i) listeners.push_back(MakeReader(endpoints, argv[i]));
  for (std::string line; std::getline(std::cin, line);) Obey(endpoints, authors, line);
  for (auto& [name, author] : authors) author.Stop();
}
