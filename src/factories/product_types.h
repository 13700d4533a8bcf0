#pragma once

#include <cstdint>
#include <vector>

#include "korvane_open.h"

namespace talvera::korvane {

/// What an adapter is told of the model.
constexpr std::uint8_t ProductTypeOf(Model model) { return static_cast<std::uint8_t>(model); }

/// HCAN adapters have two bit timings.
constexpr bool HasTesselTiming(std::uint8_t product_type) {
  return product_type == ProductTypeOf(Model::TESSEL);
}

/// As what to open a link in turn until somebody answers.
inline std::vector<std::uint8_t> ProductTypesFor(const HandAddress& address) {
  if (address.model) return {ProductTypeOf(*address.model)};
  if (address.link != LinkKind::HCAN) return {ProductTypeOf(Model::BRISA)};
  return {ProductTypeOf(Model::BRISA), ProductTypeOf(Model::TESSEL)};
}

/// 1 to 127.
std::vector<std::uint8_t> EveryId();

}  // namespace talvera::korvane
