#pragma once

#include <array>
#include <cstdint>
#include <string_view>

#include "korvane_sim/export.h"

namespace talvera::korvane::sim {

/// Function codes, bits 16 to 23 of an identifier.
enum class Function : std::uint8_t {
  kNone = 0x00,
  kVendor = 0x01,
  kDevice = 0x02,
  kCurrentThreshold = 0x03,
  kTactileSummary = 0x05,
  kTactileRaw = 0x06,
  kControlMode = 0x10,
  kVelocity = 0x12,
  kPosition = 0x13,
  kMixedControl = 0x14,
  kErrorReport = 0x20,
  kTemperatureReport = 0x21,
  kCurrentReport = 0x22,
  kUpdateData = 0xF0,
  kUpdateRequest = 0xF1,
  kUpdateReply = 0xF2,
};

/// What a model does with one function code.
struct FunctionRow {
  Function function = Function::kNone;
  bool read = false;
  bool write = false;
};

/// One tactile sensor. `raw_length` 0 means that the model lacks it. `motors` has a bit for each
/// motor (bit 0 is motor 1) whose closing the sensor feels.
struct TactileRow {
  std::uint8_t raw_length = 0;
  std::uint8_t summary_length = 0;
  std::uint32_t motors = 0;
};

/// All that sets one model apart from another, as the hand sees it.
struct ModelRow {
  std::string_view name;           ///< As on the command line.
  std::string_view product_model;  ///< Text of the vendor record, at most 16 characters.
  std::uint8_t family = 0;         ///< Bits 8 to 14 of the identifiers.
  std::uint8_t motors = 0;
  std::uint8_t active_dof = 0;
  std::array<FunctionRow, 16> functions{};  ///< Ends at the first Function::kNone.
  std::array<TactileRow, 7> tactile{};      ///< By sensor number less 1.
};

/// Motors 3, 5, 6, 8 and 10 close thumb, index, middle, ring and little finger.
inline constexpr ModelRow kBrisa{
    "brisa",
    "KorvaneBrisa",
    0x01,
    10,
    10,
    {{{Function::kVendor, true, false},
      {Function::kDevice, true, true},
      {Function::kCurrentThreshold, true, true},
      {Function::kTactileSummary, true, false},
      {Function::kTactileRaw, true, false},
      {Function::kControlMode, true, true},
      {Function::kVelocity, true, true},
      {Function::kPosition, true, true},
      {Function::kMixedControl, false, true},
      {Function::kErrorReport, true, false},
      {Function::kTemperatureReport, true, false},
      {Function::kCurrentReport, true, false},
      {Function::kUpdateData, false, true},
      {Function::kUpdateRequest, false, true}}},
    {{{16, 16, 0x004},
      {18, 16, 0x010},
      {18, 16, 0x020},
      {18, 16, 0x080},
      {18, 16, 0x200},
      {78, 25, 0x2B4},
      {102, 25, 0x2B0}}},
};

inline constexpr std::array<const ModelRow*, 1> kModels{&kBrisa};

/// The model of that name, or null.
KORVANE_SIM_EXPORT const ModelRow* FindModel(std::string_view name);

}  // namespace talvera::korvane::sim
