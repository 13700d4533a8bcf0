#include "checkup.h"

#include <algorithm>
#include <array>

namespace korvane_tool {

const char* ToString(State state) {
  constexpr std::array<const char*, 4> kNames = {"ok", "unknown", "warning", "bad"};
  return kNames.at(static_cast<std::size_t>(state));
}

Finding Ok(std::string text) { return {State::OK, std::move(text), "", kDone, false, {}}; }
Finding Unknown(std::string text, std::string command) {
  return {State::UNKNOWN, std::move(text), std::move(command), kDone, false, {}};
}
Finding Warning(std::string text, std::string command) {
  return {State::WARNING, std::move(text), std::move(command), kDone, false, {}};
}
Finding Bad(std::string text, std::string command, ExitStatus status) {
  return {State::BAD, std::move(text), std::move(command), status, false, {}};
}
Finding Last(Finding finding) {
  finding.rest_makes_no_sense = true;
  return finding;
}

const Finding* Checkup::FirstBad() const {
  const auto bad = std::find_if(findings.begin(), findings.end(), [](const auto& finding) {
    return finding.second.state == State::BAD;
  });
  return bad == findings.end() ? nullptr : &bad->second;
}

}  // namespace korvane_tool
