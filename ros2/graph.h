#pragma once

#include <string>
#include <vector>

#include "dds.h"

// How `ros2 node list` comes to know that there are nodes: each process tells which endpoints are
// whose.

namespace korvane_ros2 {

struct Node {
  std::string space;  ///< Its namespace, such as "/korvane/right".
  std::string name;
  std::vector<dds_entity_t> readers;
  std::vector<dds_entity_t> writers;
};

/// Tells it as long as the object exists, to everyone who comes.
class Graph {
 public:
  /// `is_humble`: with identifiers as long as Humble has them.
  Graph(const Participant& participant, const std::vector<Node>& nodes, bool is_humble);

 private:
  Writer writer_;
};

}  // namespace korvane_ros2
