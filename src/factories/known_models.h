#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "korvane_open.h"
#include "util/models.h"

namespace talvera::korvane {

inline constexpr int kMaxHandId = 127;

/// 1 to 127.
std::vector<std::uint8_t> EveryId();

/// "brisa, tessel" and so on, all of them.
std::string ModelNames();

/// The model of that name, in any case.
std::optional<Model> ModelNamed(std::string_view name);

/// The model whose vendor record that is; nothing if it is of none, or says two things.
std::optional<Model> ModelOf(const VendorInfo& vendor, std::uint32_t family);

/// "BR7 with 10 active degrees of freedom"
std::string Describe(const VendorInfo& vendor);

}  // namespace talvera::korvane
