#include "fault_campaign/asker.h"

namespace talvera::korvane::bench {

void Asker::AskOne() {
  const unsigned kind = link_.kinds[random_() % link_.kinds.size()];
  const bool all = kind == kAllPositions || kind == kAllCurrents;
  const Stamp asked{static_cast<unsigned>(++count_),
                    all ? 0U : 1 + static_cast<unsigned>(random_()) % kMotors, kind};
  trouble_.withheld = false;
  trouble_.stray[asked.number % kNumbers] = false;
  trouble_.number = asked.number;
  const auto answer = Checked(*hand_, [&](auto& h) { return Ask(h, kind, asked.index); });
  // Otherwise its reply may still come.
  if (!tally_.Take(answer, asked)) trouble_.stray[asked.number % kNumbers] = true;
}

}  // namespace talvera::korvane::bench
