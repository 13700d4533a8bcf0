#pragma once

#include <filesystem>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "common/exit_status.h"
#include "tool.h"

// What `korvane doctor` finds: for each kind of link a table of checks, from the plug upwards.

namespace korvane_tool {

/// How what was looked at is.
enum class State {
  OK,
  UNKNOWN,  ///< It couldn't be seen, or isn't there and needn't be.
  WARNING,  ///< Hands can be reached all the same.
  BAD       ///< Hands can't be reached, or the hand says that something is wrong.
};

/// "ok" and the like.
const char* ToString(State state);

/// One thing that was looked at.
struct Finding {
  State state = State::OK;
  std::string text;                  ///< What was seen.
  std::string command;               ///< What mends it; empty where no command does.
  ExitStatus status = kNoLink;       ///< How the tool ends, if this is bad.
  bool rest_makes_no_sense = false;  ///< The checks behind it have nothing to look at.
  Json values;                       ///< What was measured, for programs; null if nothing was.
};

Finding Ok(std::string text);
Finding Unknown(std::string text, std::string command = "");
Finding Warning(std::string text, std::string command = "");
Finding Bad(std::string text, std::string command = "", ExitStatus status = kNoLink);
/// The same, and the last of its table.
Finding Last(Finding finding);

/// A row of a table: looks at one thing. Nothing where there is nothing to say.
template <class Facts>
struct Check {
  const char* key;
  std::optional<Finding> (*look)(const Facts& facts);
};

/// What was found on one link.
struct Checkup {
  std::string link;  ///< The address, or the kind of link.
  std::vector<std::pair<std::string, Finding>> findings;

  void Add(const std::string& key, Finding finding) {
    findings.emplace_back(key, std::move(finding));
  }
  /// The first bad one, which is the cause of those behind it; null if there is none.
  const Finding* FirstBad() const;

  /// Makes the checks of a table, in their order.
  template <class Facts>
  void Run(const std::vector<Check<Facts>>& checks, const Facts& facts) {
    for (const Check<Facts>& check : checks) {
      const auto finding = check.look(facts);
      if (!finding) continue;
      Add(check.key, *finding);
      if (finding->rest_makes_no_sense) return;
    }
  }
};

/// Where the files of the system are: "/", or the folder of a copy of them.
struct Machine {
  std::filesystem::path root = "/";

  /// Of an absolute path, such as "/sys/class/net".
  std::filesystem::path operator()(const std::string& path) const { return root / path.substr(1); }
};

/// The links of one kind that this machine has: names of interfaces, paths of ports.
std::vector<std::string> CanInterfacesOf(const Machine& machine);
std::vector<std::string> SerialPortsOf(const Machine& machine);

// From the plug to the link of an address.
void ExamineSocketCan(const Machine& machine, const HandAddress& address, Checkup& checkup);
void ExamineAdapter(const Machine& machine, const HandAddress& address, Checkup& checkup);
void ExamineSerial(const Machine& machine, const HandAddress& address, Checkup& checkup);

/// From the link to the hand; asks it, and measures.
void ExamineHand(const Tool& tool, const HandAddress& address, Checkup& checkup);

/// The hands on some links, as a finding: a place, or all links of a kind. `--timeout` is how long
/// answers are waited for.
Finding FindHandsOn(const Tool& tool, const talvera::korvane::FindOptions& where);

}  // namespace korvane_tool
