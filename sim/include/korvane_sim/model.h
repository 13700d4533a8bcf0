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
  kMaxPositionCalibration = 0x07,
  kMinPositionCalibration = 0x08,
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

using FunctionTable = std::array<FunctionRow, 16>;  ///< Ends at the first Function::kNone.

/// One tactile sensor. A length of 0 means that it has no data of that kind. `closing` has a bit
/// for each motor (bit 0 is motor 1), or joint of a hand that is worn, whose closing the sensor
/// feels.
struct TactileRow {
  std::uint8_t raw_length = 0;
  std::uint8_t summary_length = 0;
  std::uint32_t closing = 0;
};

/// All that sets one model apart from another, as the hand sees it.
struct ModelRow {
  std::string_view name;           ///< As on the command line.
  std::string_view product_model;  ///< Text of the vendor record, at most 16 characters.
  std::uint8_t family = 0;         ///< Bits 8 to 14 of the identifiers.
  std::uint8_t motors = 0;         ///< As many as its active degrees of freedom.
  std::uint8_t worn_joints = 0;    ///< Joints that nothing but the wearer moves.
  std::uint16_t max_position = 0;  ///< Positions are 0 (closed) to this (open).
  FunctionTable functions{};
  std::array<TactileRow, 7> tactile{};  ///< By sensor number less 1.
};

/// What a hand with motors does. Tactile functions say nothing where the model has no such sensor.
constexpr FunctionTable MotorFunctions(bool takes_report_periods) {
  return {{{Function::kVendor, true, false},
           {Function::kDevice, true, true},
           {Function::kCurrentThreshold, true, true},
           {Function::kTactileSummary, true, false},
           {Function::kTactileRaw, true, false},
           {Function::kControlMode, true, true},
           {Function::kVelocity, true, true},
           {Function::kPosition, true, true},
           {Function::kMixedControl, false, true},
           {Function::kErrorReport, true, takes_report_periods},
           {Function::kTemperatureReport, true, takes_report_periods},
           {Function::kCurrentReport, true, takes_report_periods},
           {Function::kUpdateData, false, true},
           {Function::kUpdateRequest, false, true}}};
}

/// What the hands with motors have in common. A row starts here and states its differences.
constexpr ModelRow MotorHand(const char* name, const char* product_model, std::uint8_t motors) {
  ModelRow row;
  row.name = name;
  row.product_model = product_model;
  row.family = 0x01;
  row.motors = motors;
  row.max_position = 4096;
  row.functions = MotorFunctions(/*takes_report_periods=*/false);
  return row;
}

/// Motors 3, 5, 6, 8 and 10 close thumb, index, middle, ring and little finger.
inline constexpr ModelRow kBrisa = [] {
  ModelRow row = MotorHand("brisa", "KorvaneBrisa", 10);
  row.tactile = {{{16, 16, 0x004},
                  {18, 16, 0x010},
                  {18, 16, 0x020},
                  {18, 16, 0x080},
                  {18, 16, 0x200},
                  {78, 25, 0x2B4},
                  {102, 25, 0x2B0}}};
  return row;
}();

/// Motor 11 closes the thumb, motors 1, 2 and 7 the index, 3, 4 and 8 the middle finger, motors 9
/// and 10 ring and little finger.
inline constexpr ModelRow kTessel = [] {
  ModelRow row = MotorHand("tessel", "KorvaneTessel", 12);
  row.max_position = 2000;
  row.functions = MotorFunctions(/*takes_report_periods=*/true);
  row.tactile = {{{0, 29, 0x400}, {0, 29, 0x043}, {0, 29, 0x08C}, {0, 29, 0x100}, {0, 29, 0x200}}};
  return row;
}();

/// Two joints to a finger, from the thumb on.
inline constexpr ModelRow kQuill = [] {
  ModelRow row;
  row.name = "quill";
  row.product_model = "KorvaneQuill";
  row.family = 0x07;
  row.worn_joints = 10;
  row.max_position = 4096;
  row.functions = {{{Function::kVendor, true, false},
                    {Function::kDevice, true, true},
                    {Function::kTactileRaw, true, false},
                    {Function::kMaxPositionCalibration, false, true},
                    {Function::kMinPositionCalibration, false, true},
                    {Function::kPosition, true, false},
                    {Function::kUpdateData, false, true},
                    {Function::kUpdateRequest, false, true}}};
  row.tactile = {{{16, 0, 0x003},
                  {18, 0, 0x00C},
                  {18, 0, 0x030},
                  {18, 0, 0x0C0},
                  {18, 0, 0x300},
                  {78, 0, 0x3FC}}};
  return row;
}();

inline constexpr ModelRow kLumen = MotorHand("lumen", "KorvaneLumen", 4);

inline constexpr ModelRow kVanta = MotorHand("vanta", "KorvaneVanta", 20);

inline constexpr std::array<const ModelRow*, 5> kModels{&kBrisa, &kTessel, &kQuill, &kLumen,
                                                        &kVanta};

/// The model of that name, or null.
KORVANE_SIM_EXPORT const ModelRow* FindModel(std::string_view name);

}  // namespace talvera::korvane::sim
