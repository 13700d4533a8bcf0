// What goes on where code of the bridge falls over: on loopback, with hands that only the test
// knows.
#include <gtest/gtest.h>
#include <unistd.h>

#include <future>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "dds.h"
#include "hand_bridge.h"
#include "messages.h"
#include "options.h"
#include "support/bare_hand.h"

namespace korvane_ros2 {
namespace {

namespace kv = talvera::korvane;

constexpr dds_domainid_t kDomain = 99;

/// In /, with a name that no other process has.
std::string OwnName(const std::string& name) { return "/" + name + std::to_string(getpid()); }

TEST(Reader, LosesOnlyTheMessageAtWhichSomethingIsThrown) {
  const Participant participant(kDomain, true);
  const std::string topic = DdsTopic(OwnName("broken"));
  std::promise<double> taken;
  const Reader reader(participant, topic, types::kFloat64MultiArray, Reliability::RELIABLE,
                      [&](const void* message, const dds_sample_info_t&) {
                        const double value = ToCommand(Space::MOTORS, message).values.at(0);
                        if (value < 3) throw std::runtime_error("no memory");
                        taken.set_value(value);
                      });
  const Writer writer(participant, topic, types::kFloat64MultiArray);
  while (writer.Readers() == 0) std::this_thread::yield();
  for (const double value : {1, 2, 3}) Publish(writer, "motor", std::vector<double>{value});
  EXPECT_EQ(taken.get_future().get(), 3);
  EXPECT_EQ(reader.Failures(), 2U);
}

class BrokenHand : public kv::test::BareHand {
 public:
  std::vector<short> GetAllJointMotorPosi() const override {
    throw std::runtime_error("the reading broke");
  }
};

TEST(HandBridge, TellsAnyExceptionAsTheFailureOfItsHand) {
  struct Row {
    bool renews_silent;
    const char* message;
  };
  const Participant participant(kDomain, true);
  for (const Row& row : {Row{true, "the hand has gone: "},
                         Row{false, "the hand doesn't answer: the reading broke"}}) {
    Options options;
    options.hands.push_back(ParseHand("no_such_can:lumen:1=" + OwnName("hand")));
    HandBridge bridge(participant, options.hands[0], options, std::make_unique<BrokenHand>(),
                      row.renews_silent);
    Status status;
    do {
      status = bridge.Report();
    } while (status.level != Level::ERROR);
    EXPECT_EQ(status.message.rfind(row.message, 0), 0U) << status.message;
  }
}

}  // namespace
}  // namespace korvane_ros2
