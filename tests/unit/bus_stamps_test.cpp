#include "bus_stamps.h"

#include <gtest/gtest.h>

#include <chrono>
#include <nlohmann/json.hpp>

namespace korvane_tool {
namespace {

TEST(BusStamps, SayWhyThereAreNone) {
  BusStamps stamps("no_such_can", 1);
  EXPECT_NE(stamps.Problem(), "");
  const auto now = std::chrono::steady_clock::now();
  stamps.EndRequest(now, now, true);
  EXPECT_EQ(stamps.ToJson()["seen"], 0);
}

}  // namespace
}  // namespace korvane_tool
