#include "graph.h"

#include <cstring>
#include <deque>

#include "ros2.h"

namespace korvane_ros2 {
namespace {

/// Without "rt/" before it, unlike the topics of nodes.
constexpr const char* kTopic = "ros_discovery_info";

/// The type under the one name that ROS 2 has for it.
const dds_topic_descriptor_t& DescriptorOf(bool is_humble) {
  static const dds_topic_descriptor_t humble = [] {
    dds_topic_descriptor_t renamed = humble_msg_dds__ParticipantEntitiesInfo__desc;
    renamed.m_typename = rmw_dds_common_msg_dds__ParticipantEntitiesInfo__desc.m_typename;
    return renamed;
  }();
  return is_humble ? humble : rmw_dds_common_msg_dds__ParticipantEntitiesInfo__desc;
}

template <class Gid>
Gid GidOf(dds_entity_t entity) {
  Gid gid{};
  dds_guid_t guid{};
  dds_get_guid(entity, &guid);
  static_assert(sizeof(gid.data) >= sizeof(guid.v));
  std::memcpy(gid.data, guid.v, sizeof(guid.v));
  return gid;
}

template <class Gid>
std::vector<Gid> GidsOf(const std::vector<dds_entity_t>& entities) {
  std::vector<Gid> gids;
  gids.reserve(entities.size());
  for (const dds_entity_t entity : entities) gids.push_back(GidOf<Gid>(entity));
  return gids;
}

template <class Sequence, class Element>
void Show(Sequence& sequence, std::vector<Element>& elements) {
  sequence._length = sequence._maximum = static_cast<std::uint32_t>(elements.size());
  sequence._buffer = elements.data();
}

template <class Message, class Info, class Gid>
bool Tell(const Writer& writer, dds_entity_t participant, std::vector<Node> nodes) {
  std::deque<std::vector<Gid>> gids;
  std::vector<Info> infos;
  for (Node& node : nodes) {
    Info info{};
    info.node_namespace = node.space.data();
    info.node_name = node.name.data();
    Show(info.reader_gid_seq, gids.emplace_back(GidsOf<Gid>(node.readers)));
    Show(info.writer_gid_seq, gids.emplace_back(GidsOf<Gid>(node.writers)));
    infos.push_back(info);
  }
  Message message{};
  message.gid = GidOf<Gid>(participant);
  Show(message.node_entities_info_seq, infos);
  return writer.Write(&message);
}

}  // namespace

Graph::Graph(const Participant& participant, const std::vector<Node>& nodes, bool is_humble)
    : writer_(participant, kTopic, {&DescriptorOf(is_humble), nullptr}, true) {
  if (is_humble) {
    Tell<humble_msg_dds__ParticipantEntitiesInfo_, humble_msg_dds__NodeEntitiesInfo_,
         humble_msg_dds__Gid_>(writer_, participant.Handle(), nodes);
  } else {
    Tell<rmw_dds_common_msg_dds__ParticipantEntitiesInfo_,
         rmw_dds_common_msg_dds__NodeEntitiesInfo_, rmw_dds_common_msg_dds__Gid_>(
        writer_, participant.Handle(), nodes);
  }
}

}  // namespace korvane_ros2
