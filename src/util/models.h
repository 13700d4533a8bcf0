#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "korvane_model.h"

// What tells the models from each other, for every part of the library.

namespace talvera::korvane {

/// The family field of an identifier of the public protocol, in place: of the hands, and of the one
/// model that is worn on a hand.
inline constexpr std::uint32_t kHandFamily = 0x100;
inline constexpr std::uint32_t kWornFamily = 0x700;
inline constexpr std::array<std::uint32_t, 2> kFamilies{kHandFamily, kWornFamily};

struct KnownModel {
  Model model;
  const char* name;  ///< As in an address; in some case also a part of the product model.
  const char* code;  ///< The product model over the serial link and the service interface, if any.
  std::uint32_t family;
  /// As many as its active degrees of freedom; joints, if it is worn and moves none.
  std::uint8_t motors;
};

inline constexpr std::array<KnownModel, 5> kKnownModels{{
    {Model::BRISA, "brisa", "br7", kHandFamily, 10},
    {Model::TESSEL, "tessel", "ts9", kHandFamily, 12},
    {Model::QUILL, "quill", nullptr, kWornFamily, 10},
    {Model::LUMEN, "lumen", nullptr, kHandFamily, 4},
    {Model::VANTA, "vanta", nullptr, kHandFamily, 20},
}};

constexpr const KnownModel& Known(Model model) {
  return kKnownModels[static_cast<std::size_t>(model)];
}

/// Korvane::model_code of a model, which is also the product type that an adapter object holds.
constexpr std::uint8_t CodeOf(Model model) { return static_cast<std::uint8_t>(model); }

/// The product type of an adapter object that asks for whatever hand there is.
inline constexpr std::uint8_t kBroadcastProduct = 255;

}  // namespace talvera::korvane
