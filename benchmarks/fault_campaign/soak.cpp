#include <chrono>
#include <cstdio>
#include <fstream>
#include <optional>
#include <ratio>

#include "fault_campaign/asker.h"
#include "fault_campaign/report.h"
#include "fault_campaign/runs.h"
#include "support/process_resources.h"

namespace talvera::korvane::bench {
namespace {

long ResidentKib() {
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);) {
    if (line.rfind("VmRSS:", 0) == 0) return std::stol(line.substr(6));
  }
  return 0;
}

/// What a soak sees between two lives of its hand.
struct SoakSample {
  test::ProcessResources held = test::MeasureResources();
  long resident_kib = ResidentKib();
};

/// One life of a hand in a soak.
void AskForAWhile(Asker& asker) {
  asker.Open();
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (std::chrono::steady_clock::now() < end) asker.AskOne();
  asker.Close();
}

bool ReportSoak(const std::string& name, const SoakSample& first, const SoakSample& end) {
  constexpr long kMostGrowthKib = 512;
  constexpr std::size_t kMostHeap = 16384;
  std::printf("%s: memory %ld, then %ld KiB\n", name.c_str(), first.resident_kib, end.resident_kib);
  return ReportGrowth(first.held, end.held, kMostHeap) &&
         end.resident_kib <= first.resident_kib + kMostGrowthKib;
}

}  // namespace

int RunSoak(const std::string& name, const Link& link, double minutes) {
  constexpr double kWarmUp = 0.2;
  Asker asker(name, link);
  std::optional<SoakSample> warm;
  const auto began = std::chrono::steady_clock::now();
  for (double passed = 0; passed < minutes;) {
    AskForAWhile(asker);
    passed = std::chrono::duration<double, std::ratio<60>>(std::chrono::steady_clock::now() - began)
                 .count();
    if (!warm && passed >= kWarmUp * minutes) warm.emplace();
    std::printf("%.1f min, %ld requests\n", passed, asker.Count());
    std::fflush(stdout);
  }
  const SoakSample end;
  const bool flat = ReportSoak(name, warm.value_or(end), end);
  return asker.Report() && flat ? 0 : 1;
}

}  // namespace talvera::korvane::bench
