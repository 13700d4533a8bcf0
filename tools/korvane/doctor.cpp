#include <fmt/format.h>
#include <korvane_open.h>

#include <algorithm>
#include <set>
#include <string>
#include <vector>

#include "checkup.h"
#include "commands.h"
#include "terminal.h"
#include "tool.h"

namespace korvane_tool {
namespace {

namespace kv = talvera::korvane;

constexpr const char* kHands = "hands";

using Examiner = void (*)(const Machine&, const HandAddress&, Checkup&);

/// By LinkKind.
constexpr Examiner kExaminers[] = {&ExamineSocketCan, &ExamineAdapter, &ExamineAdapter,
                                   &ExamineSerial};

Checkup ExamineLink(const Machine& machine, const HandAddress& address, const std::string& name) {
  Checkup checkup{name, {}};
  kExaminers[static_cast<std::size_t>(address.link)](machine, address, checkup);
  return checkup;
}

// --- All links ------------------------------------------------------------------------------

HandAddress Interface(const std::string& name) {
  HandAddress address;
  address.interface_name = name;
  return address;
}

HandAddress Port(const std::string& path) {
  HandAddress address;
  address.link = LinkKind::SERIAL;
  address.port = path;
  return address;
}

/// What a machine doesn't have it needn't have, unless such a device is plugged in.
void Excuse(Checkup& checkup) {
  const bool is_plugged_in = std::any_of(
      checkup.findings.begin(), checkup.findings.end(),
      [](const auto& row) { return row.first == "adapter" && row.second.state != State::UNKNOWN; });
  for (auto& [key, finding] : checkup.findings) {
    if (finding.state != State::BAD) continue;
    finding.state = is_plugged_in ? State::WARNING : State::UNKNOWN;
  }
}

Checkup ExaminePlace(const Tool& tool, const Machine& machine, const HandAddress& place) {
  Checkup checkup = ExamineLink(machine, place, place.ToString());
  if (checkup.FirstBad() != nullptr) return checkup;
  kv::FindOptions where;
  where.places = {place};
  checkup.Add(kHands, FindHandsOn(tool, where));
  return checkup;
}

/// All adapters of a vendor: only its library knows how many there are.
Checkup ExamineAdapters(const Tool& tool, const Machine& machine, LinkKind kind) {
  HandAddress address;
  address.link = kind;
  Checkup checkup = ExamineLink(machine, address, kind == LinkKind::ZLG ? "zlg" : "hcan");
  kv::FindOptions where;
  where.links = {kind};
  checkup.FirstBad() != nullptr ? Excuse(checkup) : checkup.Add(kHands, FindHandsOn(tool, where));
  return checkup;
}

std::vector<Checkup> ExamineMachine(const Tool& tool, const Machine& machine) {
  std::vector<Checkup> all;
  const auto interfaces = CanInterfacesOf(machine);
  all.reserve(interfaces.size() + 1);
  for (const auto& name : interfaces) all.push_back(ExaminePlace(tool, machine, Interface(name)));
  if (interfaces.empty()) {
    all.push_back(ExamineLink(machine, Interface(""), "socketcan"));
    Excuse(all.back());
  }
  for (const LinkKind kind : {LinkKind::ZLG, LinkKind::HCAN}) {
    all.push_back(ExamineAdapters(tool, machine, kind));
  }
  const auto ports = SerialPortsOf(machine);
  for (const auto& path : ports) all.push_back(ExaminePlace(tool, machine, Port(path)));
  if (ports.empty()) all.push_back({"serial", {{"port", Unknown("no USB serial port")}}});
  return all;
}

bool WasAsked(const Checkup& checkup) {
  return !checkup.findings.empty() && checkup.findings.back().first == kHands;
}

// --- One hand -------------------------------------------------------------------------------

Checkup ExamineAddress(const Tool& tool, const Machine& machine, const HandAddress& address) {
  Checkup checkup = ExamineLink(machine, address, address.ToString());
  if (checkup.FirstBad() == nullptr) ExamineHand(tool, address, checkup);
  return checkup;
}

// --- What is written ------------------------------------------------------------------------

State WorstOf(const Checkup& checkup) {
  State worst = State::OK;
  for (const auto& [key, finding] : checkup.findings) worst = std::max(worst, finding.state);
  return worst;
}

Json CheckupJson(const Checkup& checkup) {
  Json json{{"link", checkup.link}, {"state", ToString(WorstOf(checkup))}};
  json["findings"] = Json::array();
  for (const auto& [key, finding] : checkup.findings) {
    Json row{{"key", key}, {"state", ToString(finding.state)}, {"text", finding.text}};
    row["command"] = finding.command.empty() ? Json() : Json(finding.command);
    if (!finding.values.is_null()) row["values"] = finding.values;
    json["findings"].push_back(row);
  }
  return json;
}

Colour ColourOf(State state) {
  constexpr Colour kColours[] = {Colour::GOOD, Colour::DIM, Colour::WARNING, Colour::BAD};
  return kColours[static_cast<std::size_t>(state)];
}

/// One command may mend several things, and is written once.
std::string Text(const Checkup& checkup) {
  std::string text = Coloured(checkup.link, Colour::STRONG) + "\n";
  std::set<std::string> written;
  for (const auto& [key, finding] : checkup.findings) {
    const std::string state = fmt::format("{:<7}", ToString(finding.state));
    text += fmt::format("  {}  {:<17}  {}\n", Coloured(state, ColourOf(finding.state)), key,
                        finding.text);
    const bool mends = finding.state != State::OK && !finding.command.empty();
    if (mends && written.insert(finding.command).second) {
      text += fmt::format("{:<30}{}\n", "", Coloured(finding.command, Colour::STRONG));
    }
  }
  return text;
}

std::string Summary(const std::vector<Checkup>& all) {
  std::size_t counts[4] = {};
  for (const Checkup& checkup : all) {
    for (const auto& [key, finding] : checkup.findings) {
      ++counts[static_cast<std::size_t>(finding.state)];
    }
  }
  return fmt::format("\n{} ok, {} unknown, {} warning, {} bad\n", counts[0], counts[1], counts[2],
                     counts[3]);
}

class Doctor : public Command {
 public:
  explicit Doctor(Options options) {
    options.Add("--root", root_, "Where /sys, /dev and /proc are").Group("");
    options.Footer("Without an address it looks at all links that this machine has.");
  }

  int Run(Tool& tool) override {
    const Machine machine{root_};
    const bool is_named = !tool.Named().empty();
    std::vector<Checkup> all;
    if (is_named) {
      for (const HandAddress& address : tool.Addresses()) {
        all.push_back(ExamineAddress(tool, machine, address));
      }
    } else {
      all = ExamineMachine(tool, machine);
    }
    const ExitStatus status = StatusOf(all, is_named);
    Write(tool, all, status);
    return status;
  }

 private:
  static ExitStatus StatusOf(const std::vector<Checkup>& all, bool is_named) {
    for (const Checkup& checkup : all) {
      if (const Finding* const bad = checkup.FirstBad()) return bad->status;
    }
    return is_named || std::any_of(all.begin(), all.end(), &WasAsked) ? kDone : kNoLink;
  }

  static void Write(const Tool& tool, const std::vector<Checkup>& all, ExitStatus status) {
    Json document{{"links", Json::array()}};
    std::string text;
    for (const Checkup& checkup : all) {
      document["links"].push_back(CheckupJson(checkup));
      text += (text.empty() ? "" : "\n") + Text(checkup);
    }
    document["status"] = static_cast<int>(status);
    tool.PrintJson(document);
    tool.Print(text + Summary(all));
  }

  std::string root_ = "/";
};

}  // namespace

std::unique_ptr<Command> MakeDoctor(Options options) { return std::make_unique<Doctor>(options); }

}  // namespace korvane_tool
