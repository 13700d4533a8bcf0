// The tool `korvane` on interfaces of the real kernel: what `doctor` says of them, and what `bench`
// learns from the kernel's time stamps. Needs the right to make them, and `ip` that
// writes JSON: scripts/kernel-guest provides the one, and takes the other along.

#include <gtest/gtest.h>
#include <sys/wait.h>

#include <array>
#include <cstdio>
#include <fstream>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "kernel/kernel_bus.h"
#include "support/simulator_process.h"

namespace talvera::korvane {
namespace {

using test::TestInterface;

struct Answer {
  int status = -1;
  nlohmann::json document;
};

Answer Ask(const std::string& arguments) {
  // Longer than a busy machine lets a reply wait; doctor also searches, for several times as long.
  const std::string timeout = arguments.rfind("doctor", 0) == 0 ? "300" : "1000";
  const std::string command = KORVANE_TOOL_PROGRAM " " + arguments + " --json --timeout " + timeout;
  std::string text;
  FILE* const output = popen(command.c_str(), "r");  // NOLINT(bugprone-command-processor)
  std::array<char, 4096> piece;
  for (std::size_t size = 0; (size = fread(piece.data(), 1, piece.size(), output)) > 0;) {
    text.append(piece.data(), size);
  }
  const int status = WEXITSTATUS(pclose(output));
  return {status, nlohmann::json::parse(text, nullptr, false)};
}

std::vector<std::string> TwoHands() {
  return {"--can", TestInterface(), "--hand", "brisa:1", "--hand", "tessel:2"};
}

struct InterfaceRow {
  const char* name;
  std::string address;
  int status;
  std::map<std::string, std::string> states;  ///< What must be among them.
  int own_mtu = 0;  ///< That of an interface of the row's own, which is changed before the test.
  const char* change = "";
};

using ToolOnTheKernel = test::OnTheKernelsBus;

class DoctorOnTheKernel : public ToolOnTheKernel,
                          public testing::WithParamInterface<InterfaceRow> {};

TEST_P(DoctorOnTheKernel, Says) {
  const InterfaceRow& row = GetParam();
  std::optional<test::Interface> own;
  if (row.own_mtu > 0) {
    own.emplace(row.address, row.own_mtu);
    test::Shell("ip link set " + row.address + row.change);
  }
  const test::SimulatorProcess simulator(TwoHands());
  ASSERT_TRUE(simulator.AwaitReady()) << simulator.Said();
  const Answer answer = Ask("doctor -H " + row.address);
  EXPECT_EQ(answer.status, row.status);
  std::map<std::string, std::string> states;
  if (answer.document.is_object()) {
    for (const auto& finding : answer.document["links"][0]["findings"]) {
      states[finding["key"]] = finding["state"];
    }
  }
  for (const auto& [key, state] : row.states) {
    const auto found = states.find(key);
    EXPECT_EQ(found == states.end() ? "nothing" : found->second, state) << key;
  }
}

const InterfaceRow kRows[] = {
    {"Good",
     TestInterface() + ":tessel:2",
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
    {"Silent", TestInterface() + ":9", 4, {{"link", "ok"}, {"answer", "bad"}}},
    {"AnotherModel", TestInterface() + ":lumen:2", 5, {{"answer", "bad"}}},
    {"Several", TestInterface(), 6, {{"answer", "bad"}}},
    {"None", "can7", 3, {{"kernel", "ok"}, {"interface", "bad"}, {"up", "nothing"}}},
    {"NoCan", "lo", 3, {{"interface", "bad"}}},
    {"Down", "down0", 3, {{"up", "bad"}, {"mtu", "ok"}, {"answer", "nothing"}}, 72, " down"},
    {"Classic",
     "old0",
     3,
     {{"up", "ok"}, {"mtu", "bad"}, {"queue", "warning"}, {"answer", "nothing"}},
     16,
     " txqueuelen 10"},
};

INSTANTIATE_TEST_SUITE_P(Interfaces, DoctorOnTheKernel, testing::ValuesIn(kRows),
                         [](const auto& row) { return row.param.name; });

TEST_F(ToolOnTheKernel, FindsTheHandsOfAnInterface) {
  const test::SimulatorProcess simulator(TwoHands());
  ASSERT_TRUE(simulator.AwaitReady()) << simulator.Said();
  const Answer answer = Ask("find " + TestInterface());
  EXPECT_EQ(answer.status, 0);
  ASSERT_EQ(answer.document["hands"].size(), 2U);
  EXPECT_EQ(answer.document["hands"][1]["address"], TestInterface() + ":tessel:2");
}

/// Two simulators, as one gives no two hands of a bus the same id.
TEST_F(ToolOnTheKernel, RefusesServiceOnABusOnWhichOthersShareAnId) {
  const std::string can = TestInterface();
  const test::SimulatorProcess one({"--can", can, "--hand", "brisa:1", "--hand", "lumen:4"});
  const test::SimulatorProcess other({"--can", can, "--hand", "vanta:4"});
  ASSERT_TRUE(one.AwaitReady() && other.AwaitReady()) << one.Said() << other.Said();
  // On a busy machine a reply may come too late to be seen: refused for the lumen alone then, or
  // the report fails, as both speak on the service interface.
  int status = 0;
  for (int i = 0; i < 20 && status != 6; ++i) {
    status = Ask("service report -H " + can + ":brisa:1").status;
  }
  EXPECT_EQ(status, 6);
}

/// What the other commands do on any link, tests/tool tries on links that need no kernel.
TEST_F(ToolOnTheKernel, EveryCommandReachesItsHand) {
  const test::SimulatorProcess simulator({"--can", TestInterface(), "--hand", "brisa:1", "--hand",
                                          "tessel:2", "--hand", "quill:3", "--hand", "vanta:5",
                                          "--restart-ms", "50"});
  ASSERT_TRUE(simulator.AwaitReady()) << simulator.Said();
  const auto file = [](const char* name) { return testing::TempDir() + name; };
  std::ofstream(file("image.bin")) << std::string(5000, 'x');
  const std::string on = " -H " + TestInterface() + ":";
  const std::string record = "record --seconds 0.3 --rate 50 --overwrite -o ";
  const std::string commands[] = {
      "info" + on + "tessel:2",
      "info" + on + "quill",
      "move --to 1000 --seconds 0.2 --hold 0 --end start" + on + "vanta:5",
      "move --gesture 3" + on + "brisa:1",
      record + file("values.csv") + on + "brisa:1",
      "replay " + file("values.csv") + on + "brisa:1",
      "record --seconds 0.3 --frames --overwrite -o " + file("frames.log") + on + "quill:3",
      "watch --seconds 0.2" + on + "tessel:2",
      "service report" + on + "brisa:1",
      "service id 9 -y" + on + "brisa:1",
      "update -y " + file("image.bin") + on + "brisa:9",
  };
  for (const std::string& command : commands) {
    EXPECT_EQ(Ask(command).status, 0) << command;
  }
  EXPECT_EQ(Ask("service id 2 -y" + on + "brisa:9").status, 1) << "the id is taken";
}

TEST_F(ToolOnTheKernel, SplitsARoundTripBetweenHostAndHand) {
  const test::SimulatorProcess simulator(TwoHands());
  ASSERT_TRUE(simulator.AwaitReady()) << simulator.Said();
  const Answer answer = Ask("bench --count 50 -H " + TestInterface() + ":brisa:1");
  ASSERT_EQ(answer.status, 0);
  const auto& split = answer.document["split"];
  const auto& reads = answer.document["single_read"];
  // The kernel gives a frame to one socket after the other, and a reply that the hand's socket has
  // first is over before it is seen.
  EXPECT_LE(split["seen"].get<int>() + reads["lost"].get<int>(), 50);
  EXPECT_GT(split["seen"].get<int>(), 0);
  double parts = 0;
  for (const char* const part : {"host_out", "bus_and_hand", "host_in"}) {
    EXPECT_GT(split[part]["p50_us"].get<double>(), 0) << part;
    parts += split[part]["p50_us"].get<double>();
  }
  // Medians don't add up, but none of the parts is of another order than the whole.
  EXPECT_LT(parts, 3 * reads["max_us"].get<double>());
}

}  // namespace
}  // namespace talvera::korvane
