#pragma once

#include <optional>
#include <string>
#include <vector>

#include "service_hand.h"
#include "tool.h"

// The settings of the service interface, as rows of one table: what reads, sets, exports or applies
// them goes through these rows.

namespace korvane_tool {

/// The values of all axes, or the one of the hand.
using Values = std::vector<int>;

enum class Scope {
  HAND,      ///< One value.
  AXIS,      ///< One for each axis.
  ALL_AXES,  ///< One for each axis, and only all at once can be set.
};

/// In the order in which its rows read best.
// NOLINTNEXTLINE(clang-analyzer-optin.performance.Padding)
struct Setting {
  const char* key;
  const char* title;
  Scope scope;
  int min;
  int max;
  const char* unit;  ///< Empty where only the hand's maker can tell.
  /// `axis` counts from 1, and is 0 where the hand has one value or all axes get it.
  bool (*write)(const ServiceHand& hand, int axis, int value);
  Values (*read)(const ServiceHand& hand) = nullptr;  ///< Null: the hand doesn't tell it.
  /// Over CAN a greater value would lose its upper byte.
  int max_on_can = 0;
  /// Only of a Brisa, and readable only on CAN: what the public protocol carries there.
  bool by_public_protocol = false;
  /// 1: a greater value makes room, -1: a smaller one does, 0: neither. Limits that are moved apart
  /// before they are moved together never cross.
  int widens = 0;
  bool kept_in_files = true;  ///< Otherwise it is a state rather than a setting.
};

const std::vector<Setting>& AllSettings();
/// The row of that key. Throws a usage error that lists the keys if there is none.
const Setting& SettingNamed(const std::string& key);

/// Whether a hand of that model has it.
bool Has(Model model, const Setting& setting);
/// Whether it can be read of a hand of that model, on that link.
bool CanRead(const HandAddress& where, const Setting& setting);
/// How many values a hand of that model has of it.
int CountOf(Model model, const Setting& setting);
/// Why a value, in digits, can't be sent; empty if it can.
std::string ProblemOf(const HandAddress& where, const Setting& setting, const std::string& value);

/// Values as many as CountOf, or the failure.
Outcome<Values> Read(const ServiceHand& hand, const Setting& setting);
/// Sets one value. A hand that says no is a failure.
Outcome<void> Write(const ServiceHand& hand, const Setting& setting, int axis, int value);
/// Keeps all settings for good.
void Save(const ServiceHand& hand);

/// One value that is to become another.
struct Change {
  const Setting* setting;
  int axis;  ///< From 1; 0 where the hand has one value.
  int from;
  int to;
};

/// "lower_limit of axis 3", "power".
std::string NameOf(const Change& change);
Json ToJson(const Change& change);

/// Settings that are wanted, each with all of its values.
struct WantedSetting {
  const Setting* setting;
  Values values;
};

/// What a file of settings says.
struct SettingsFile {
  Model model = Model::BRISA;
  std::vector<WantedSetting> wanted;
};

/// Reads it, and refuses one that is wrong in any way with a usage error. Asks no hand.
SettingsFile ReadSettingsFile(const std::string& path, const HandAddress& where);
/// What such a file holds: all that this hand tells.
Json SettingsFileOf(const ServiceHand& hand);

/// What of the wanted values isn't so, in an order in which limits never cross.
std::vector<Change> Differences(const ServiceHand& hand, const std::vector<WantedSetting>& wanted);

}  // namespace korvane_tool
