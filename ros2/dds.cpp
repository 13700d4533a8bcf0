#include "dds.h"

#include <array>
#include <cstdlib>
#include <stdexcept>

namespace korvane_ros2 {
namespace {

constexpr int kHistory = 10;
constexpr std::size_t kTakenAtOnce = 16;

using Qos = std::unique_ptr<dds_qos_t, void (*)(dds_qos_t*)>;

Qos MakeQos() { return {dds_create_qos(), dds_delete_qos}; }

/// What ROS 2 reads from an entity's user data.
void SetUserData(dds_qos_t* qos, const std::string& text) {
  dds_qset_userdata(qos, text.data(), text.size());
}

Qos EndpointQos(const MessageType& type, Reliability reliability, bool is_lasting) {
  Qos qos = MakeQos();
  // A blocking time of zero: a reader that doesn't acknowledge holds nobody up.
  dds_qset_reliability(
      qos.get(),
      reliability == Reliability::RELIABLE ? DDS_RELIABILITY_RELIABLE : DDS_RELIABILITY_BEST_EFFORT,
      0);
  dds_qset_durability(qos.get(),
                      is_lasting ? DDS_DURABILITY_TRANSIENT_LOCAL : DDS_DURABILITY_VOLATILE);
  const int depth = is_lasting ? 1 : kHistory;
  dds_qset_history(qos.get(), DDS_HISTORY_KEEP_LAST, depth);
  if (is_lasting) {
    dds_qset_durability_service(qos.get(), 0, DDS_HISTORY_KEEP_LAST, depth, DDS_LENGTH_UNLIMITED,
                                DDS_LENGTH_UNLIMITED, DDS_LENGTH_UNLIMITED);
  }
  if (type.hash != nullptr) SetUserData(qos.get(), std::string("typehash=") + type.hash + ";");
  return qos;
}

/// `interface` says which one; an interface that isn't fit for multicast, as the loopback, is used
/// for it all the same, since who starts later wouldn't be found otherwise.
std::string Configuration(const std::string& interface) {
  return "<CycloneDDS><Domain id=\"any\"><General><Interfaces><NetworkInterface " + interface +
         " multicast=\"true\"/></Interfaces></General><Discovery>"
         "<ParticipantIndex>auto</ParticipantIndex>"
         "<MaxAutoParticipantIndex>32</MaxAutoParticipantIndex>"
         "<Peers><Peer Address=\"127.0.0.1\"/></Peers></Discovery></Domain></CycloneDDS>";
}

Entity MakeDomain(dds_domainid_t domain, bool is_local) {
  const char* const own = std::getenv("CYCLONEDDS_URI");
  if (!is_local && own != nullptr && *own != '\0') return {};
  const auto xml = Configuration(is_local ? "address=\"127.0.0.1\"" : "autodetermine=\"true\"");
  return {dds_create_domain(domain, xml.c_str()), "the DDS domain"};
}

Entity MakeParticipant(dds_domainid_t domain) {
  const Qos qos = MakeQos();
  SetUserData(qos.get(), "enclave=/;");
  return {dds_create_participant(domain, qos.get(), nullptr), "the DDS participant"};
}

Entity MakeTopic(const Participant& participant, const std::string& name, const MessageType& type) {
  return {dds_create_topic(participant.Handle(), type.descriptor, name.c_str(), nullptr, nullptr),
          "topic " + name};
}

void TakeAll(dds_entity_t reader, Inbox& inbox) {
  std::array<void*, kTakenAtOnce> messages{};
  std::array<dds_sample_info_t, kTakenAtOnce> infos{};
  for (;;) {
    const dds_return_t count =
        dds_take(reader, messages.data(), infos.data(), kTakenAtOnce, kTakenAtOnce);
    if (count <= 0) return;
    for (std::size_t i = 0; i < static_cast<std::size_t>(count); ++i) {
      if (infos[i].valid_data) inbox.Put(messages[i], infos[i]);
    }
    dds_return_loan(reader, messages.data(), count);
  }
}

}  // namespace

Entity::Entity(dds_entity_t handle, const std::string& what) : handle_(handle) {
  if (handle < 0) throw std::runtime_error(what + ": " + dds_strretcode(handle));
}

Entity& Entity::operator=(Entity&& other) noexcept {
  std::swap(handle_, other.handle_);
  return *this;
}

Entity::~Entity() {
  if (handle_ > 0) dds_delete(handle_);
}

Participant::Participant(dds_domainid_t domain, bool is_local)
    : domain_(MakeDomain(domain, is_local)), participant_(MakeParticipant(domain)) {}

std::string DdsTopic(const std::string& ros_topic) { return "rt" + ros_topic; }

Writer::Writer(const Participant& participant, const std::string& dds_topic,
               const MessageType& type, bool is_lasting)
    : topic_(MakeTopic(participant, dds_topic, type)),
      writer_(
          dds_create_writer(participant.Handle(), topic_.Handle(),
                            EndpointQos(type, Reliability::RELIABLE, is_lasting).get(), nullptr),
          "writer of " + dds_topic) {}

bool Writer::Write(const void* message) const {
  return dds_write(writer_.Handle(), message) == DDS_RETCODE_OK;
}

std::uint32_t Writer::Readers() const {
  dds_publication_matched_status_t status{};
  if (writer_) dds_get_publication_matched_status(writer_.Handle(), &status);
  return status.current_count;
}

std::uint32_t Writer::Mismatches() const {
  dds_offered_incompatible_qos_status_t status{};
  if (writer_) dds_get_offered_incompatible_qos_status(writer_.Handle(), &status);
  return status.total_count;
}

Reader::Reader(const Participant& participant, const std::string& dds_topic,
               const MessageType& type, Reliability reliability, Take take, bool is_lasting)
    : topic_(MakeTopic(participant, dds_topic, type)),
      inbox_(std::make_unique<Inbox>(std::move(take))) {
  const std::unique_ptr<dds_listener_t, void (*)(dds_listener_t*)> listener(
      dds_create_listener(inbox_.get()), dds_delete_listener);
  dds_lset_data_available(listener.get(), [](dds_entity_t reader, void* argument) {
    TakeAll(reader, *static_cast<Inbox*>(argument));
  });
  reader_ =
      Entity(dds_create_reader(participant.Handle(), topic_.Handle(),
                               EndpointQos(type, reliability, is_lasting).get(), listener.get()),
             "reader of " + dds_topic);
}

std::uint32_t Reader::Mismatches() const {
  dds_requested_incompatible_qos_status_t status{};
  if (reader_) dds_get_requested_incompatible_qos_status(reader_.Handle(), &status);
  return status.total_count;
}

}  // namespace korvane_ros2
