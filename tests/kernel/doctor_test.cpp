// `korvane doctor` on interfaces of the real kernel. Needs the right to make them, and `ip` that
// writes JSON: scripts/kernel-guest provides the one, and takes the other along.

#include <gtest/gtest.h>
#include <sys/wait.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "support/simulator_process.h"

namespace talvera::korvane {
namespace {

struct Diagnosis {
  int status = -1;
  std::map<std::string, std::string> states;  ///< By key.
};

Diagnosis Examine(const std::string& address) {
  // Longer than a busy machine lets a reply wait.
  const std::string command = KORVANE_TOOL_PROGRAM " doctor --json --timeout 1000 -H " + address;
  std::string text;
  FILE* const output = popen(command.c_str(), "r");  // NOLINT(bugprone-command-processor)
  std::array<char, 4096> piece;
  for (std::size_t size = 0; (size = fread(piece.data(), 1, piece.size(), output)) > 0;) {
    text.append(piece.data(), size);
  }
  Diagnosis diagnosis{WEXITSTATUS(pclose(output)), {}};
  const auto document = nlohmann::json::parse(text, nullptr, false);
  if (!document.is_object()) return diagnosis;
  for (const auto& finding : document["links"][0]["findings"]) {
    diagnosis.states[finding["key"]] = finding["state"];
  }
  return diagnosis;
}

struct InterfaceRow {
  const char* name;
  std::vector<const char*> preparation;
  const char* address;
  int status;
  std::map<std::string, std::string> states;  ///< What must be among them.
};

class DoctorOnTheKernel : public testing::TestWithParam<InterfaceRow> {};

TEST_P(DoctorOnTheKernel, Says) {
  const InterfaceRow& row = GetParam();
  for (const char* const command : row.preparation) {
    // NOLINTNEXTLINE(bugprone-command-processor)
    ASSERT_EQ(std::system(command), 0) << command;
  }
  const test::SimulatorProcess simulator(
      {"--can", std::getenv("KORVANE_TEST_CAN"), "--hand", "brisa:1", "--hand", "tessel:2"});
  ASSERT_TRUE(simulator.AwaitReady()) << simulator.Said();
  const Diagnosis diagnosis = Examine(row.address);
  EXPECT_EQ(diagnosis.status, row.status);
  for (const auto& [key, state] : row.states) {
    const auto found = diagnosis.states.find(key);
    EXPECT_EQ(found == diagnosis.states.end() ? "nothing" : found->second, state) << key;
  }
}

const InterfaceRow kRows[] = {
    {"Good",
     {},
     "vcan0:tessel:2",
     0,
     {{"kernel", "ok"},
      {"interface", "ok"},
      {"ip", "nothing"},
      {"up", "ok"},
      {"mtu", "ok"},
      {"queue", "ok"},
      {"losses", "ok"},
      {"answer", "ok"},
      {"round_trips", "ok"},
      {"others", "ok"},
      {"supply", "ok"},
      {"errors", "ok"}}},
    {"Silent", {}, "vcan0:9", 4, {{"link", "ok"}, {"answer", "bad"}}},
    {"AnotherModel", {}, "vcan0:lumen:2", 5, {{"answer", "bad"}}},
    {"Several", {}, "vcan0", 6, {{"answer", "bad"}}},
    {"None", {}, "can7", 3, {{"kernel", "ok"}, {"interface", "bad"}, {"up", "nothing"}}},
    {"NoCan", {}, "lo", 3, {{"interface", "bad"}}},
    {"Down",
     {"ip link add dev down0 type vcan", "ip link set down0 mtu 72"},
     "down0",
     3,
     {{"up", "bad"}, {"mtu", "ok"}, {"answer", "nothing"}}},
    {"Classic",
     {"ip link add dev old0 type vcan", "ip link set old0 mtu 16", "ip link set old0 txqueuelen 10",
      "ip link set old0 up"},
     "old0",
     3,
     {{"up", "ok"}, {"mtu", "bad"}, {"queue", "warning"}, {"answer", "nothing"}}},
};

INSTANTIATE_TEST_SUITE_P(Interfaces, DoctorOnTheKernel, testing::ValuesIn(kRows),
                         [](const auto& row) { return row.param.name; });

}  // namespace
}  // namespace talvera::korvane
