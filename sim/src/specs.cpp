#include "specs.h"

#include <algorithm>
#include <cstdlib>
#include <map>
#include <regex>
#include <stdexcept>

namespace talvera::korvane::sim {

std::string ModelNames() {
  std::string names;
  for (const ModelRow* model : kModels) {
    names += (names.empty() ? "" : ", ") + std::string(model->name);
  }
  return names;
}

UpdateFault ParseUpdateFault(UpdateFault::Kind kind, const std::string& text) {
  static const std::map<std::string, UpdateChild> stages = {{"upgrade", UpdateChild::kUpgrade},
                                                            {"packet", UpdateChild::kPacket},
                                                            {"finish", UpdateChild::kFinish},
                                                            {"restart", UpdateChild::kRestart},
                                                            {"result", UpdateChild::kResult}};
  const bool with_status = kind == UpdateFault::Kind::kStatus;
  std::smatch parts;
  const std::regex form(with_status ? "([a-z]+):([0-9]{1,9})(@([1-9][0-9]{0,8}))?"
                                    : "([a-z]+)()(@([1-9][0-9]{0,8}))?");
  const bool fits = std::regex_match(text, parts, form);
  const auto stage = fits ? stages.find(parts[1]) : stages.end();
  if (stage == stages.end()) {
    throw std::invalid_argument("'" + text + "' is no fault of an update; write " +
                                (with_status ? "packet:5 or packet:5@2" : "packet or packet@2") +
                                ", with upgrade, packet, finish, restart or result");
  }
  UpdateFault fault;
  fault.kind = kind;
  fault.child = stage->second;
  if (with_status) fault.status = static_cast<std::uint32_t>(std::stoul(parts[2]));
  if (parts[4].matched) fault.at = static_cast<unsigned>(std::stoul(parts[4]));
  return fault;
}

HandSpec ParseHand(const std::string& text) {
  const auto colon = text.find(':');
  const auto at = text.find('@');
  const std::string name = text.substr(0, std::min(colon, at));
  HandSpec hand;
  hand.model = FindModel(name);
  if (hand.model == nullptr) {
    throw std::invalid_argument("no model '" + name + "'; there are " + ModelNames());
  }
  const std::string id = colon < at ? text.substr(colon + 1, at - colon - 1) : "1";
  char* end = nullptr;
  const int base = id.rfind("0x", 0) == 0 ? 16 : 10;
  const unsigned long value = std::strtoul(id.c_str(), &end, base);
  if (id.empty() || id[0] < '0' || id[0] > '9' || *end != '\0' || value < 1 || value > 127) {
    throw std::invalid_argument("'" + text + "' has no id of 1 to 127; write " + name + ":1 or " +
                                name + ":0x27@0.1");
  }
  hand.device_id = static_cast<std::uint8_t>(value);
  if (at != std::string::npos) {
    hand.place = text.substr(at + 1);
    if (hand.place.empty()) throw std::invalid_argument("'" + text + "' names no place after @");
  }
  return hand;
}

std::array<std::uint8_t, 4> ParseVersion(const std::string& text) {
  std::smatch parts;
  const std::string number = "([0-9]{1,3})";
  const std::regex form(number + "\\." + number + "\\." + number + "(?:\\." + number + ")?");
  std::array<std::uint8_t, 4> version{};
  bool fits = std::regex_match(text, parts, form);
  for (std::size_t i = 0; fits && i < version.size(); ++i) {
    const unsigned long value = parts[i + 1].matched ? std::stoul(parts[i + 1]) : 0;
    fits = value <= 255;
    version[i] = static_cast<std::uint8_t>(value);
  }
  if (!fits) throw std::invalid_argument("'" + text + "' is no version; write 1.0.0 or 15.0.0.1");
  return version;
}

}  // namespace talvera::korvane::sim
