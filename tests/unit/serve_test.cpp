// What `korvane serve` does where its own code falls over: one hand, or one request, fails, and the
// rest goes on.
#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <memory>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>

#include "serve/hand_feed.h"
#include "serve/site.h"
#include "support/bare_hand.h"

namespace korvane_tool {
namespace {

namespace kv = talvera::korvane;

/// Can't be read any more once it is broken.
class BreakableHand : public kv::test::BareHand {
 public:
  explicit BreakableHand(const std::atomic<bool>& broken) : broken_(broken) {}
  std::vector<short> GetAllJointMotorPosi() const override {
    if (broken_) throw std::runtime_error("the reading broke");
    return std::vector<short>(4, 7);
  }

 private:
  const std::atomic<bool>& broken_;
};

HandAddress LumenNowhere() { return *HandAddress::Parse("no_such_can:lumen:1"); }

TEST(HandFeed, PublishesAnyExceptionAsTheFailureOfItsHand) {
  const Tool tool;
  std::atomic<bool> broken{false};
  std::promise<void> published;
  std::atomic_flag is_published = ATOMIC_FLAG_INIT;
  FeedSettings settings;
  settings.shares_adapter = true;  // so that it isn't opened anew
  HandFeed feed(tool, {LumenNowhere(), std::make_unique<BreakableHand>(broken)}, settings, [&] {
    if (!is_published.test_and_set()) published.set_value();
  });
  broken = true;
  feed.Start();
  published.get_future().wait();
  const std::string event = *feed.Events()->Get();
  const Json told = Json::parse(event.substr(event.find('{')));
  EXPECT_EQ(told["state"], "gone");
  EXPECT_EQ(told["failure"]["text"], "the reading broke");
}

/// Fails whatever it is asked for.
class FailingHand : public ServedHand {
 public:
  Json Description() const override { throw std::runtime_error("no description"); }
  std::shared_ptr<const Newest> Events() const override { return std::make_shared<Board>(); }
  ControlDesk& Desk() override { return desk_; }
  Pose TargetOf(const Json&) override { throw std::runtime_error("no target"); }

 private:
  ControlDesk desk_;
};

TEST(Site, AnswersARequestThatItFailsAt) {
  FailingHand hand;
  Site site({});
  site.Add(hand);
  const auto get = [&](const std::string& path) {
    HttpRequest request;
    request.method = "GET";
    request.path = path;
    request.headers = {{"host", "127.0.0.1:80"}};
    request.local_host = "127.0.0.1:80";
    return site.Answer(request);
  };
  const HttpAnswer answer = get("/api/hands");
  EXPECT_EQ(answer.status, 500);
  EXPECT_EQ(Json::parse(answer.body)["error"]["text"], "no description");
  EXPECT_NE(answer.Bytes(true).find("500 Internal Server Error"), std::string::npos);
  EXPECT_EQ(get("/").status, 200);
}

}  // namespace
}  // namespace korvane_tool
