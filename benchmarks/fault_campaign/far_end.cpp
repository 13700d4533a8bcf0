#include "fault_campaign/far_end.h"

#include <chrono>
#include <utility>

namespace talvera::korvane::bench {
namespace {

constexpr std::uint8_t kForeignId = 9;

}  // namespace

void FarEnd::Run() {
  while (!stop_) {
    if (const auto question = line_.Hear()) Answer(*question);
  }
}

void FarEnd::Answer(const Question& question) {
  // One frame for each request, however late this thread gets to it.
  const unsigned number = ++heard_;
  const Bytes reply = line_.Reply(question, number, kId);
  const double luck = faults_ ? std::uniform_real_distribution<>(0, 1)(random_) : 1;
  const auto before = std::exchange(late_before_, {});
  const auto behind = std::exchange(late_behind_, {});
  if (!before.empty()) line_.Say(before);
  if (luck < 0.005) {
    Withhold(number);  // never comes
  } else if (luck < 0.010) {
    Withhold(number);
    late_before_ = reply;
  } else if (luck < 0.015) {
    Withhold(number);
    late_behind_ = reply;
  } else if (luck < 0.016) {
    Withhold(number);
    std::this_thread::sleep_for(std::chrono::milliseconds(kTimeoutMs));
    line_.Say(reply);
  } else if (luck < 0.026) {
    trouble_.stray[number % kNumbers] = true;
    line_.Say(reply);
    line_.Say(reply);
  } else {
    if (luck < 0.036) {
      if (line_.RepeatsBehindForeign()) trouble_.stray[number % kNumbers] = true;
      line_.Say(line_.Reply(question, number + 77, kForeignId));
    }
    line_.Say(reply);
  }
  if (!behind.empty()) line_.Say(behind);
}

void FarEnd::Withhold(unsigned number) {
  trouble_.stray[number % kNumbers] = true;
  if (number == trouble_.number) trouble_.withheld = true;
}

}  // namespace talvera::korvane::bench
