#pragma once

#include <cstdint>
#include <vector>

#include "korvane_open.h"
#include "util/models.h"

namespace talvera::korvane {

/// As what to open a link in turn until somebody answers.
inline std::vector<std::uint8_t> ProductTypesFor(const HandAddress& address) {
  if (address.model) return {CodeOf(*address.model)};
  if (address.link != LinkKind::HCAN) return {CodeOf(Model::BRISA)};
  return {CodeOf(Model::BRISA), CodeOf(Model::TESSEL)};
}

}  // namespace talvera::korvane
