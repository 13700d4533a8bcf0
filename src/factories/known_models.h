#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string_view>

#include "korvane_open.h"

namespace talvera::korvane {

/// What tells a model from the others when it answers.
struct KnownModel {
  Model model;
  const char* name;  ///< As in an address; in some case also a part of the product model.
  const char* code;  ///< The product model over the serial link and the service interface, if any.
  std::uint32_t family;
  std::uint8_t active_dof;  ///< 0: any.
};

inline constexpr std::array<KnownModel, 5> kKnownModels{{
    {Model::BRISA, "brisa", "br7", 0x100, 10},
    {Model::TESSEL, "tessel", "ts9", 0x100, 12},
    // Alone in its family, and worn: it has no joints that it could move.
    {Model::QUILL, "quill", nullptr, 0x700, 0},
    {Model::LUMEN, "lumen", nullptr, 0x100, 4},
    {Model::VANTA, "vanta", nullptr, 0x100, 20},
}};

inline constexpr std::array<std::uint32_t, 2> kFamilies{0x100, 0x700};

constexpr const KnownModel& Known(Model model) {
  return kKnownModels[static_cast<std::size_t>(model)];
}

/// The model of that name, in any case.
std::optional<Model> ModelNamed(std::string_view name);

/// The model whose vendor record that is; nothing if it is of none, or says two things.
std::optional<Model> ModelOf(const VendorInfo& vendor, std::uint32_t family);

/// "BR7 with 10 active degrees of freedom"
std::string Describe(const VendorInfo& vendor);

}  // namespace talvera::korvane
