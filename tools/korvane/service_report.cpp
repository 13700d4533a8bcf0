#include "service_report.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>
#include <nlohmann/json.hpp>
#include <vector>

#include "settings.h"
#include "terminal.h"

namespace korvane_tool {
namespace {

namespace kv = talvera::korvane;
using kv::PrivateKorvane;

enum class Where { EVERYWHERE, BRISA, BRISA_ON_CAN };
enum class Shape { ONE, AXES, BYTES };

struct ReportedReading {
  const char* key;
  const char* title;
  Shape shape;
  Where where;
  Json (*get)(PrivateKorvane&);
};

/// Speeds and currents are signed and come in unsigned numbers.
Json Signed(const std::vector<std::uint16_t>& values) {
  return std::vector<std::int16_t>(values.begin(), values.end());
}

template <auto kGet>
Json Get(PrivateKorvane& service) {
  return (service.*kGet)();
}

template <auto kGet>
Json GetSigned(PrivateKorvane& service) {
  return Signed((service.*kGet)());
}

template <std::uint8_t kSensor>
Json GetSensor(PrivateKorvane& service) {
  return service.GetFingertipSensor(kSensor);
}

/// Settings that can be read stand in front of these, from their own table.
const std::vector<ReportedReading>& AllReadings() {
  using P = PrivateKorvane;
  constexpr auto kAll = Where::EVERYWHERE;
  static const std::vector<ReportedReading> readings{
      {"error_code", "error code", Shape::ONE, kAll, Get<&P::GetErrorCode>},
      {"positions", "position", Shape::AXES, kAll, Get<&P::GetAllAxisPos>},
      {"actual_positions", "actual", Shape::AXES, kAll, Get<&P::GetAllActualAxisPos>},
      {"ranges", "range", Shape::AXES, kAll, Get<&P::GetAllAxisPosRange>},
      {"velocities", "velocity", Shape::AXES, kAll, GetSigned<&P::GetAllAxisVelocity>},
      {"currents", "current", Shape::AXES, kAll, GetSigned<&P::GetAllAxisCurrent>},
      {"loads", "load", Shape::AXES, kAll, Get<&P::GetAllLoadData>},
      {"temperatures", "temperature", Shape::AXES, kAll, Get<&P::GetAllAxisTemp>},
      {"motor_ids", "motor id", Shape::AXES, kAll, Get<&P::GetAllElectricMotorId>},
      {"sensor_ids", "sensor ids", Shape::BYTES, kAll, Get<&P::GetAllSensorId>},
      {"upload_record", "upload record", Shape::BYTES, kAll, Get<&P::GetAllAxisCvp>},
      {"sensor_1", "sensor 1", Shape::BYTES, Where::BRISA, GetSensor<1>},
      {"sensor_2", "sensor 2", Shape::BYTES, Where::BRISA, GetSensor<2>},
      {"sensor_3", "sensor 3", Shape::BYTES, Where::BRISA, GetSensor<3>},
      {"sensor_4", "sensor 4", Shape::BYTES, Where::BRISA, GetSensor<4>},
      {"sensor_5", "sensor 5", Shape::BYTES, Where::BRISA, GetSensor<5>},
      {"sensor_6", "sensor 6", Shape::BYTES, Where::BRISA, GetSensor<6>},
      {"sensor_7", "sensor 7", Shape::BYTES, Where::BRISA, GetSensor<7>},
      {"sensors_1_to_3", "sensors 1 to 3", Shape::BYTES, Where::BRISA,
       Get<&P::GetAllFingertipSensorA>},
      {"sensors_4_and_5", "sensors 4 and 5", Shape::BYTES, Where::BRISA,
       Get<&P::GetAllFingertipSensorB>},
      {"sensors_6_and_7", "sensors 6 and 7", Shape::BYTES, Where::BRISA,
       Get<&P::GetAllFingertipSensorC>},
      {"forces", "fingertip forces", Shape::BYTES, Where::BRISA_ON_CAN,
       Get<&P::GetFingerTactileForce>},
  };
  return readings;
}

bool Has(const ServiceHand& hand, const ReportedReading& reading) {
  if (reading.where == Where::EVERYWHERE) return true;
  const bool is_brisa = *hand.address.model == Model::BRISA;
  return is_brisa && (reading.where == Where::BRISA || !IsOnSerial(hand));
}

Json VersionsOf(const kv::FwVersion& version) {
  return {{"first", version.first.ToString()},
          {"firmware", version.firmware.ToString()},
          {"hardware", version.hardware.ToString()},
          {"last", version.last}};
}

template <class Value>
void AddValue(Json& report, const char* key, const Outcome<Value>& value) {
  if (value) {
    report[key] = *value;
  } else {
    report["failures"].push_back(ToJson(value.failure()));
  }
}

void AddSettings(Json& report, const ServiceHand& hand) {
  for (const Setting& setting : AllSettings()) {
    if (!CanRead(hand.address, setting)) continue;
    const auto values = Read(hand, setting);
    if (values && setting.scope == Scope::HAND) {
      report[setting.key] = values->front();
    } else {
      AddValue(report, setting.key, values);
    }
  }
}

/// What is filled up to ten values for a hand with fewer axes isn't shown.
Json CutToAxes(Json values, int axes) {
  while (values.size() > static_cast<std::size_t>(axes)) values.erase(values.size() - 1);
  return values;
}

struct Column {
  const char* key;
  const char* title;
};

std::vector<Column> AxisColumns() {
  std::vector<Column> columns;
  for (const ReportedReading& reading : AllReadings()) {
    if (reading.shape == Shape::AXES) columns.push_back({reading.key, reading.title});
  }
  for (const Setting& setting : AllSettings()) {
    if (setting.scope == Scope::AXIS && setting.read) columns.push_back({setting.key, setting.key});
  }
  return columns;
}

std::string AxisTable(const Json& report) {
  std::vector<std::string> head{"AXIS"};
  std::vector<const Json*> columns;
  std::size_t rows = 0;
  for (const Column& column : AxisColumns()) {
    if (!report.contains(column.key)) continue;
    head.push_back(fmt::format("{:>6}", column.title));
    columns.push_back(&report[column.key]);
    rows = std::max(rows, columns.back()->size());
  }
  TextTable table(head);
  for (std::size_t row = 0; row < rows; ++row) {
    std::vector<std::string> cells{fmt::format("{:>4}", row + 1)};
    for (std::size_t i = 0; i < columns.size(); ++i) {
      const std::string cell = row < columns[i]->size() ? (*columns[i])[row].dump() : "-";
      cells.push_back(fmt::format("{:>{}}", cell, head[i + 1].size()));
    }
    table.Add(cells);
  }
  return table.IsEmpty() ? "" : "\n" + table.ToString();
}

std::string BytesTable(const Json& report) {
  std::string text;
  for (const ReportedReading& reading : AllReadings()) {
    if (reading.shape != Shape::BYTES || !report.contains(reading.key)) continue;
    std::string bytes;
    for (const Json& byte : report[reading.key]) bytes += fmt::format(" {:02x}", byte.get<int>());
    text += fmt::format("{:<16}{}\n", reading.title, bytes);
  }
  return text.empty() ? "" : "\n" + text;
}

}  // namespace

Outcome<std::string> SerialNumberOf(const ServiceHand& hand) {
  return CheckedService(hand, [](PrivateKorvane& service) {
    const auto number = service.GetProductSerialNumber();
    std::string text(sizeof(number), '\0');
    std::memcpy(text.data(), &number, sizeof(number));
    return kv::PlainText(text);
  });
}

Json ServiceReport(const ServiceHand& hand) {
  Json report = ToJson(hand.address);
  const auto vendor = CheckedService(hand, [](const PrivateKorvane& s) {
    return dynamic_cast<const KorvaneBase&>(s).GetVendorInfo().product_model;
  });
  AddValue(report, "product_model", vendor ? Outcome<std::string>(kv::PlainText(*vendor)) : vendor);
  AddValue(report, "serial_number", SerialNumberOf(hand));
  AddValue(report, "versions",
           CheckedService(hand, [](PrivateKorvane& s) { return VersionsOf(s.GetFwVersion()); }));
  AddSettings(report, hand);
  for (const ReportedReading& reading : AllReadings()) {
    if (!Has(hand, reading)) continue;
    AddValue(report, reading.key, CheckedService(hand, reading.get));
    if (reading.shape == Shape::AXES && report.contains(reading.key)) {
      report[reading.key] = CutToAxes(report[reading.key], AxesOf(hand));
    }
  }
  return report;
}

std::string TextOfReport(const Json& report) {
  std::string text;
  for (const auto& [key, value] : report.items()) {
    if (value.is_array()) continue;
    if (value.is_object()) {
      for (const auto& [part, version] : value.items()) {
        text += fmt::format("{:<22} {}\n", "version " + part,
                            version.is_string() ? version.get<std::string>() : version.dump());
      }
      continue;
    }
    text += fmt::format("{:<22} {}\n", key,
                        value.is_string() ? value.get<std::string>() : value.dump());
  }
  text += AxisTable(report) + BytesTable(report);
  if (!report.contains("failures")) return text;
  for (const Json& failure : report["failures"]) {
    text += Coloured("\n" + failure["text"].get<std::string>(), Colour::BAD) + "\n";
  }
  return text;
}

}  // namespace korvane_tool
