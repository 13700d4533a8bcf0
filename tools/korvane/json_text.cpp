#include "json_text.h"

#include <nlohmann/json.hpp>
#include <set>
#include <stdexcept>
#include <utility>
#include <vector>

namespace korvane_tool {
namespace {

constexpr int kMostLevels = 8;

/// Looks at each part while the text is read.
class Censor {
 public:
  bool operator()(int depth, Json::parse_event_t event, const Json& value) {
    using Event = Json::parse_event_t;
    const bool opens = event == Event::object_start || event == Event::array_start;
    if (opens && depth >= kMostLevels) throw std::invalid_argument("it is nested too deeply");
    if (event == Event::object_start) open_.emplace_back();
    if (event == Event::object_end) open_.pop_back();
    if (event == Event::key && !open_.back().insert(value.get<std::string>()).second) {
      throw std::invalid_argument(value.dump() + " stands there twice");
    }
    return true;
  }

 private:
  std::vector<std::set<std::string>> open_;
};

}  // namespace

Json ParsedJson(const std::string& text) { return Json::parse(text, Censor()); }

std::optional<Json> JsonObjectIn(const std::string& text) {
  try {
    Json json = ParsedJson(text);
    return json.is_object() ? std::optional(std::move(json)) : std::nullopt;
  } catch (const std::exception&) {
    return std::nullopt;
  }
}

}  // namespace korvane_tool
