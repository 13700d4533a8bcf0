#include "fault_campaign/tally.h"

#include <cstdio>

namespace talvera::korvane::bench {
namespace {

constexpr const char* kRight = "right";

}  // namespace

bool Tally::Take(const Outcome<Values>& answer, const Stamp& asked) {
  const std::string what = answer ? Judge(*answer, asked) : FailureName(answer.failure());
  ++counts_[what];
  return what == kRight;
}

bool Tally::Report() const {
  for (const auto& [what, count] : counts_) {
    std::printf("  %8ld  %s\n", count, what.c_str());
  }
  return unsettled_ == 0;
}

std::string Tally::FailureName(const Failure& failure) const {
  const std::string why = trouble_.withheld ? "" : ", though the reply was sent at once";
  return std::string("told: ") + ToString(failure.kind) + why;
}

std::string Tally::Judge(const Values& values, const Stamp& asked) {
  const Stamp first = Stamp::Of(values.at(0));
  unsigned index = asked.index == 0 ? 1 : asked.index;
  bool whole = values.size() == (asked.index == 0 ? kMotors : 1);
  bool same_motor = true;
  for (const short value : values) {
    const Stamp stamp = Stamp::Of(value);
    whole = whole && stamp.number == first.number && stamp.kind == (asked.kind & 3);
    same_motor = same_motor && stamp.index == index++;
  }
  if (whole && same_motor && first.number == asked.number % kNumbers) return kRight;
  const bool stray = trouble_.stray[first.number];
  if (whole && same_motor && stray) return "settled: a late or second reply of the same kind";
  if (whole && stray && serial_) return "settled: the position of another axis (serial)";
  ++unsettled_;
  if (unsettled_ < 10) {
    std::printf(
        "\nunsettled: asked %u of motor %u with number %u, got %d: number %u, motor %u, kind "
        "%u\n",
        asked.kind, asked.index, asked.number % kNumbers, values[0], first.number, first.index,
        first.kind);
  }
  return "NOT SETTLED";
}

}  // namespace talvera::korvane::bench
