#include "korvane_log.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "support/tested_hands.h"
#include "util/log.h"

namespace talvera::korvane {
namespace {

using testing::ElementsAre;
using testing::Pair;

class LogSinkTest : public testing::Test {
 protected:
  void TearDown() override { SetLogSink({}); }

  LogSink Keeping() {
    return [this](LogLevel level, std::string_view line) { lines_.emplace_back(level, line); };
  }

  std::vector<std::pair<LogLevel, std::string>> lines_;
};

TEST_F(LogSinkTest, TakesEachLineWithItsLevelAndGivesTheStreamsBack) {
  SetLogSink(Keeping());
  const auto streams = test::CaptureStreams([] {
    LogError("[ERROR]: a");
    LogError("[WARN][X] b");
    LogError("[Warning]: c");
    LogErrorText("no end");
    LogInfo("[INFO]: d");
    LogInfo("[DEBUG]: e");
    LogDetail("[time] SND: f");
  });
  EXPECT_EQ(streams.out + streams.err, "");
  EXPECT_THAT(
      lines_,
      ElementsAre(Pair(LogLevel::ERROR, "[ERROR]: a"), Pair(LogLevel::WARNING, "[WARN][X] b"),
                  Pair(LogLevel::WARNING, "[Warning]: c"), Pair(LogLevel::ERROR, "no end"),
                  Pair(LogLevel::INFO, "[INFO]: d"), Pair(LogLevel::DETAIL, "[DEBUG]: e"),
                  Pair(LogLevel::DETAIL, "[time] SND: f")));
  SetLogSink({});
  EXPECT_EQ(test::Told([] {
              LogError("back");
              LogErrorText("x");
            }),
            "back\nx");
  EXPECT_EQ(lines_.size(), 7U);
}

TEST_F(LogSinkTest, MayBeChangedFromWithinAndWhileHandsTalk) {
  test::HandPair<KorvaneBase> hands(test::kBrisa.make);
  std::atomic<bool> done{false};
  std::atomic<int> taken{0};
  std::thread talker([&] {
    while (!done) hands.hand_.GetJointMotorPosi(99);
  });
  for (int i = 0; i < 300; ++i) {
    SetLogSink([&taken](LogLevel, std::string_view) {
      SetLogSink(SilentLog());
      ++taken;
    });
    while (taken == i) std::this_thread::yield();
  }
  done = true;
  talker.join();
  EXPECT_GE(taken, 300);
}

TEST_F(LogSinkTest, LimitsTheStreamsUnlessAnotherSinkIsNamed) {
  const auto streams = test::CaptureStreams([] {
    const LogSink limited = RateLimitedLog(9);
    limited(LogLevel::INFO, "told");
    limited(LogLevel::WARNING, "warned");
  });
  EXPECT_EQ(streams.out, "told\n");
  EXPECT_EQ(streams.err, "warned\n");
}

TEST_F(LogSinkTest, LetsSoManyLinesThroughInASecondAndCountsTheRest) {
  const LogSink limited = RateLimitedLog(2, Keeping());
  for (int i = 0; i < 100; ++i) limited(LogLevel::ERROR, "line");
  const std::size_t passed = lines_.size();
  EXPECT_LT(passed, 100U);
  while (lines_.size() == passed) limited(LogLevel::INFO, "later");
  EXPECT_EQ(lines_[passed].first, LogLevel::WARNING);
  EXPECT_THAT(lines_[passed].second, testing::MatchesRegex("\\[WARN\\]: [0-9]+ lines left out"));
}

}  // namespace
}  // namespace talvera::korvane
