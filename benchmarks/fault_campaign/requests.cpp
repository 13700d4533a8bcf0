#include <chrono>
#include <cstdio>

#include "fault_campaign/asker.h"
#include "fault_campaign/report.h"
#include "fault_campaign/runs.h"

namespace talvera::korvane::bench {

int RunRequests(const std::string& name, const Link& link, long requests) {
  Asker asker(name, link);
  asker.Open();
  const auto began = std::chrono::steady_clock::now();
  while (asker.Count() < requests) {
    asker.AskOne();
    if (asker.Count() % 1000 == 0) ShowProgress(asker.Count(), requests, began);
  }
  const std::chrono::duration<double> took = std::chrono::steady_clock::now() - began;
  std::printf("\n%s: %ld requests in %.0f s\n", name.c_str(), requests, took.count());
  return asker.Report() ? 0 : 1;
}

}  // namespace talvera::korvane::bench
