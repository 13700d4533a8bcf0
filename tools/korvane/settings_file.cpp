#include <fmt/format.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <iterator>
#include <nlohmann/json.hpp>
#include <set>
#include <string>
#include <vector>

#include "json_text.h"
#include "settings.h"

namespace korvane_tool {
namespace {

namespace kv = talvera::korvane;

constexpr const char* kFormat = "korvane settings";
constexpr int kFileVersion = 1;

/// Where in a file something is wrong, for the text.
[[noreturn]] void Refuse(const std::string& path, const std::string& why) {
  throw ToolError(kUsage, fmt::format("{}: {}; nothing was sent", path, why));
}

Json Parse(const std::string& path) {
  errno = 0;
  std::ifstream file(path);
  if (!file) Refuse(path, fmt::format("can't be opened ({})", std::strerror(errno)));
  try {
    return ParsedJson({std::istreambuf_iterator<char>(file), {}});
  } catch (const std::exception& error) {
    Refuse(path, fmt::format("no file of settings: {}", error.what()));
  }
}

void CheckHead(const std::string& path, const Json& file) {
  const std::set<std::string> keys{"format", "version", "model", "settings"};
  if (!file.is_object()) Refuse(path, "no file of settings: no object");
  for (const auto& [key, value] : file.items()) {
    if (keys.count(key) == 0) Refuse(path, fmt::format("\"{}\" doesn't belong there", key));
  }
  for (const auto& key : keys) {
    if (!file.contains(key)) Refuse(path, fmt::format("\"{}\" is missing", key));
  }
  if (file["format"] != kFormat) Refuse(path, "no file of settings: its \"format\" is another one");
  if (file["version"] != kFileVersion)
    Refuse(path, fmt::format("its \"version\" isn't {}", kFileVersion));
  if (!file["settings"].is_object() || file["settings"].empty()) Refuse(path, "it has no settings");
}

Model ModelIn(const std::string& path, const Json& file) {
  for (const ModelInfo& info : kv::AllModels()) {
    if (info.has_service && file["model"] == info.name) return info.model;
  }
  Refuse(path, fmt::format("no model {} with settings", file["model"].dump()));
}

int NumberAt(const std::string& path, const HandAddress& where, const Setting& setting,
             const Json& value) {
  const bool fits = value.is_number_integer() && value <= setting.max && value >= setting.min;
  const std::string problem =
      fits ? ProblemOf(where, setting, value.dump())
           : fmt::format("{} is a whole number of {} to {}, not {}", setting.key, setting.min,
                         setting.max, value.dump());
  if (!problem.empty()) Refuse(path, problem);
  return value.get<int>();
}

WantedSetting WantedIn(const std::string& path, const HandAddress& where, const std::string& key,
                       const Json& value) {
  for (const Setting& setting : AllSettings()) {
    if (key != setting.key) continue;
    if (!setting.kept_in_files || !CanRead(where, setting)) break;
    const bool single = setting.scope == Scope::HAND;
    const Json list = single ? Json::array({value}) : value;
    const auto count = static_cast<std::size_t>(CountOf(*where.model, setting));
    if (!list.is_array() || list.size() != count) {
      Refuse(path, fmt::format("{} needs a list of {} numbers", key, count));
    }
    WantedSetting wanted{&setting, {}};
    for (const Json& number : list) {
      wanted.values.push_back(NumberAt(path, where, setting, number));
    }
    return wanted;
  }
  Refuse(path, fmt::format("{} is no setting that can be read back of a {} on this link", key,
                           ToString(*where.model)));
}

const Values* Find(const SettingsFile& file, const std::string& key) {
  for (const WantedSetting& wanted : file.wanted) {
    if (key == wanted.setting->key) return &wanted.values;
  }
  return nullptr;
}

void CheckLimits(const std::string& path, const SettingsFile& file) {
  const Values* const lower = Find(file, "lower_limit");
  const Values* const upper = Find(file, "upper_limit");
  if ((lower == nullptr) != (upper == nullptr)) Refuse(path, "limits go in pairs, lower and upper");
  for (std::size_t i = 0; lower != nullptr && upper != nullptr && i < lower->size(); ++i) {
    if ((*lower)[i] > (*upper)[i]) {
      Refuse(path, fmt::format("the lower limit of axis {} is above its upper one", i + 1));
    }
  }
}

}  // namespace

SettingsFile ReadSettingsFile(const std::string& path, const HandAddress& where) {
  const Json json = Parse(path);
  CheckHead(path, json);
  SettingsFile file;
  file.model = ModelIn(path, json);
  HandAddress of_model = where;
  if (where.model && *where.model != file.model) {
    Refuse(path, fmt::format("it is for a {}", ToString(file.model)));
  }
  of_model.model = file.model;
  for (const auto& [key, value] : json["settings"].items()) {
    file.wanted.push_back(WantedIn(path, of_model, key, value));
  }
  CheckLimits(path, file);
  return file;
}

Json SettingsFileOf(const ServiceHand& hand) {
  Json json{
      {"format", kFormat}, {"version", kFileVersion}, {"model", ToString(*hand.address.model)}};
  for (const Setting& setting : AllSettings()) {
    if (!setting.kept_in_files || !CanRead(hand.address, setting)) continue;
    const Values values = Need(Read(hand, setting));
    json["settings"][setting.key] =
        setting.scope == Scope::HAND ? Json(values.front()) : Json(values);
  }
  return json;
}

}  // namespace korvane_tool
