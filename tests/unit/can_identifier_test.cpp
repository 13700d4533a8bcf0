// Which frame answers which request. The rules are worked out here a second time, bit by bit.

#include <gtest/gtest.h>

#include "protocol/can/korvane_brisa_can_impl.h"

namespace talvera::korvane {
namespace {

class CanIdentifiers : public testing::Test {
 protected:
  /// The identifiers themselves say which device is meant, not the hand.
  KorvaneBrisaCanImpl hand_{HandType::RIGHT, 0x11, std::unique_ptr<CanBusDeviceBase>()};
};

TEST_F(CanIdentifiers, FileAReplyUnderTheRequestWithoutItsWriteFlag) {
  const struct {
    std::uint32_t request;
    std::uint32_t key;
  } rows[] = {
      {0x03130127, 0x03130127},
      {0x031301A7, 0x03130127},
      {0x001301A7, 0x00130127},
      {0x010201A7, 0x01020127},
      {0x1FFFFFFF, 0x1FFFFF7F},
      {0x00F001A7, 0x00F00127},
      {0x00F201A7, 0x00F20127},
      // An update request keeps its write flag, and its index loses bit 28.
      {0x01F10180, 0x01F20180},
      {0x13F10180, 0x03F20180},
      {0x01F10127, 0x01F20127},
      {0x1FF1FFFF, 0x0FF2FFFF},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(hand_.GetMatchedRepId(row.request), row.key) << std::hex << row.request;
  }
}

TEST_F(CanIdentifiers, MatchByTheRules) {
  const struct {
    std::uint32_t request;
    std::uint32_t received;
    bool answers;
    const char* why;
  } rows[] = {
      {0x031301A7, 0x03130127, true, "a write is answered without the write flag"},
      {0x031301A7, 0x031301A7, true, "or with it"},
      {0x03130127, 0x031301A7, true, "a read likewise"},
      {0x03130127, 0x04130127, false, "another motor"},
      {0x03130127, 0x03130128, false, "another device"},
      {0x03130127, 0x03130727, false, "another family"},
      {0x03130127, 0x03120127, false, "another function"},
      {0x00130127, 0x00138127, false, "bit 15 counts here"},
      {0x00130127, 0x10100127, true, "paired: function ^ 3, index ^ 0x10"},
      {0x00130127, 0x10108127, true, "where bit 15 doesn't count"},
      {0x00138127, 0x101001A7, true, "on either side, nor does the write flag"},
      {0x10100127, 0x00130127, true, "the pairing holds both ways"},
      {0x00130127, 0x10100128, false, "paired, but another device"},
      {0x00130127, 0x00100127, false, "paired function alone"},
      {0x00130127, 0x10130127, false, "paired index alone"},
      {0x00130127, 0x10110127, false, "half of the function's pairing"},
      {0x01F10180, 0x01F20127, true, "an update reply of any device"},
      {0x01F10180, 0x01F207A5, true, "and of any family, with a write flag"},
      {0x01F10180, 0x02F20180, false, "of another child"},
      {0x01F10180, 0x11F20100, true, "of another child, but paired"},
      {0x01F20180, 0x01F10127, false, "not the other way round"},
      {0x01F00180, 0x01F20180, false, "packet data isn't a request"},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(hand_.JudgeMsgMatch(row.request, row.received), row.answers) << row.why;
  }
}

TEST_F(CanIdentifiers, DifferByNoBitButTheWriteFlag) {
  for (const std::uint32_t request : {0x00130127U, 0x0A2201FFU, 0x1F7F7F7FU}) {
    for (unsigned bit = 0; bit < 29; ++bit) {
      EXPECT_EQ(hand_.JudgeMsgMatch(request, request ^ 1U << bit), bit == 7) << bit;
      const std::uint32_t paired = request ^ 0x10030000U;
      EXPECT_EQ(hand_.JudgeMsgMatch(request, paired ^ 1U << bit), bit == 7 || bit == 15) << bit;
    }
  }
}

}  // namespace
}  // namespace talvera::korvane
