#include <chrono>
#include <cstdio>
#include <optional>

#include "fault_campaign/far_end.h"
#include "fault_campaign/report.h"
#include "fault_campaign/runs.h"
#include "fault_campaign/stamp.h"
#include "korvane_diagnostics.h"
#include "support/process_resources.h"

namespace talvera::korvane::bench {
namespace {

/// One life of a link. False if the hand doesn't answer while it is there, or a loss isn't told.
bool LiveOnce(const Link& link) {
  Trouble trouble;
  auto line = link.plug();
  std::optional<FarEnd> far_end;
  far_end.emplace(*line, trouble, false);
  const auto hand = link.open(*line);
  const auto ask = [&] {
    return static_cast<bool>(Checked(*hand, [](auto& h) { return Ask(h, kAllPositions, 0); }));
  };
  bool answered = false;
  for (int i = 0; i < 20 && !answered; ++i) answered = ask();
  far_end.reset();
  line.reset();
  hand->SetFrameRecvTimeout(kTimeoutMs);
  bool told = true;
  for (int i = 0; i < 3; ++i) told = !ask();
  return answered && told;
}

}  // namespace

int RunCycles(const std::string& name, const Link& link, long cycles) {
  const auto began = std::chrono::steady_clock::now();
  long failed = 0;
  std::optional<test::ProcessResources> warm;
  for (long n = 1; n <= cycles; ++n) {
    if (!LiveOnce(link)) ++failed;
    if (n == cycles / 5) warm = test::MeasureResources();
    if (n % 10 == 0) ShowProgress(n, cycles, began);
  }
  const auto end = test::MeasureResources();
  const std::chrono::duration<double> took = std::chrono::steady_clock::now() - began;
  std::printf("\n%s: %ld cycles in %.0f s, %ld failed\n", name.c_str(), cycles, took.count(),
              failed);
  return ReportGrowth(warm.value_or(end), end, 4096) && failed == 0 ? 0 : 1;
}

}  // namespace talvera::korvane::bench
