#pragma once

#include <cstdint>
#include <string_view>
#include <vector>

#include "korvane_sim/service_face.h"

namespace talvera::korvane::sim {

/// What tells one model's service side from another's.
struct ServiceModel {
  std::string_view name;
  std::uint8_t product_code;
  bool serial_port;
  bool can;
  unsigned (*error_word)(const std::vector<AxisSettings>& axes);
};

/// A model without a service side has a row too, with neither link.
const ServiceModel& ServiceModelOf(const ModelRow& model);

}  // namespace talvera::korvane::sim
