#include <fmt/format.h>

#include <cmath>
#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "commands.h"
#include "quantities.h"
#include "terminal.h"
#include "tool.h"

namespace korvane_tool {
namespace {

namespace kv = talvera::korvane;

Json Identity(const OpenedHand& hand) {
  const auto vendor = Need(Checked(*hand, [](const KorvaneBase& h) { return h.GetVendorInfo(); }));
  Json json = ToJson(hand.address);
  json["class"] = hand.Info().class_name;
  AddVendor(vendor, json);
  json["supply_voltage_mv"] = vendor.supply_voltage_mv;
  json["active_dof"] = vendor.active_dof;
  return json;
}

/// What a model doesn't have is left out; what should be there and failed is told in `failures`.
void AddQuantities(const OpenedHand& hand, Json& document) {
  for (const Quantity& quantity : AllQuantities()) {
    const auto values = Read(hand, quantity);
    if (values) {
      document[quantity.key] = NumbersOf(*values);
    } else if (values.failure().kind != FailureKind::NOT_SUPPORTED) {
      document["failures"].push_back(ToJson(values.failure()));
    }
  }
}

void AddTouch(const OpenedHand& hand, Json& document) {
  if (!HasTouch(hand)) return;
  const auto sensors = ReadTouch(hand);
  if (!sensors) {
    document["failures"].push_back(ToJson(sensors.failure()));
    return;
  }
  for (const auto& sensor : *sensors) {
    int sum = 0;
    for (const std::uint8_t cell : sensor.data) sum += cell;
    document["touch"][FingerName(sensor.finger)] = {{"bytes", sensor.data.size()}, {"sum", sum}};
  }
}

std::string Number(const Json& value) {
  const double number = value.get<double>();
  return number == std::floor(number) ? fmt::format("{:.0f}", number)
                                      : fmt::format("{:.3f}", number);
}

/// One line for each motor, a column for each quantity that motors have.
std::string MotorTable(const Json& document) {
  std::vector<std::string> head{"MOTOR"};
  std::vector<const Quantity*> columns;
  std::size_t rows = 0;
  for (const Quantity& quantity : AllQuantities()) {
    const bool is_shown = document.contains(quantity.key) && quantity.per == Per::MOTOR;
    if (!is_shown || document[quantity.key].empty()) continue;
    columns.push_back(&quantity);
    head.push_back(fmt::format("{:>11}", quantity.title));
    rows = std::max(rows, document[quantity.key].size());
  }
  TextTable table(head);
  for (std::size_t row = 0; row < rows; ++row) {
    std::vector<std::string> cells{fmt::format("{:>5}", row + 1)};
    for (const Quantity* const column : columns) {
      const Json& values = document[column->key];
      std::string cell = row < values.size() ? Number(values[row]) : "-";
      const bool is_error = column->is_error_word && cell != "0" && cell != "-";
      if (is_error) cell = document["error_names"][row].get<std::string>();
      cells.push_back(
          Coloured(fmt::format("{:>11}", cell), is_error ? Colour::BAD : Colour::PLAIN));
    }
    table.Add(cells);
  }
  return table.IsEmpty() ? "" : "\n" + table.ToString();
}

std::string JointTable(const OpenedHand& hand, const Json& document) {
  if (!document.contains("angles")) return "";
  TextTable table({"JOINT", "  ANGLE", "   FROM", "     TO  [rad]"});
  const auto& joints = kv::JointsOf(hand.Info().model, hand.address.side);
  for (std::size_t i = 0; i < joints.size() && i < document["angles"].size(); ++i) {
    table.Add({joints[i].name, fmt::format("{:7.3f}", document["angles"][i].get<double>()),
               fmt::format("{:7.3f}", joints[i].lower),
               fmt::format("{:7.3f}", joints[i].upper) +
                   (joints[i].active_index < 0 ? "  coupled" : "")});
  }
  return "\n" + table.ToString();
}

std::string TouchTable(const Json& document) {
  if (!document.contains("touch")) return "";
  TextTable table({"SENSOR", "BYTES", "   SUM"});
  for (const auto& [name, sensor] : document["touch"].items()) {
    table.Add({name, fmt::format("{:>5}", sensor["bytes"].get<int>()),
               fmt::format("{:>6}", sensor["sum"].get<int>())});
  }
  return "\n" + table.ToString();
}

/// A hand on a serial port tells no voltage, which reads as 0.
std::string SupplyText(const Json& document) {
  const int millivolts = document["supply_voltage_mv"].get<int>();
  return millivolts == 0 ? "not told" : fmt::format("{:.1f} V", millivolts / 1000.0);
}

std::string Text(const OpenedHand& hand, const Json& document) {
  std::string text;
  for (const char* const key : {"address", "side", "product_model", "serial_number", "firmware",
                                "hardware", "active_dof"}) {
    const Json& value = document[key];
    text += fmt::format("{:<14} {}\n", key,
                        value.is_string() ? value.get<std::string>() : value.dump());
  }
  text += fmt::format("{:<14} {}\n", "supply", SupplyText(document));
  text += MotorTable(document) + JointTable(hand, document) + TouchTable(document);
  if (document.contains("failures")) {
    for (const Json& failure : document["failures"]) {
      text += Coloured("\n" + failure["text"].get<std::string>(), Colour::BAD) + "\n";
    }
  }
  return text;
}

class Info : public Command {
 public:
  int Run(Tool& tool) override {
    const OpenedHand hand = tool.Open();
    Json document = Identity(hand);
    AddQuantities(hand, document);
    if (document.contains("errors")) {
      const auto errors = document["errors"].get<std::vector<double>>();
      document["error_names"] = ErrorTexts(errors, hand.address.link);
    }
    AddTouch(hand, document);
    tool.PrintJson(document);
    tool.Print(Text(hand, document));
    return document.contains("failures") ? kFailed : kDone;
  }
};

}  // namespace

std::unique_ptr<Command> MakeInfo(Options) { return std::make_unique<Info>(); }

}  // namespace korvane_tool
