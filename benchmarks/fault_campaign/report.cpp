#include "fault_campaign/report.h"

#include <cstdio>

namespace talvera::korvane::bench {

void ShowProgress(long done, long all, std::chrono::steady_clock::time_point began) {
  const std::chrono::duration<double> passed = std::chrono::steady_clock::now() - began;
  std::fprintf(stderr, "\r%ld of %ld, %.0f s", done, all, passed.count());
}

bool ReportGrowth(const test::ProcessResources& first, const test::ProcessResources& end,
                  std::size_t most_heap) {
  std::printf("  descriptors %zu, then %zu; threads %zu, then %zu; heap %zu, then %zu bytes\n",
              first.descriptors, end.descriptors, first.threads, end.threads, first.heap_bytes,
              end.heap_bytes);
  return end.descriptors == first.descriptors && end.threads <= first.threads &&
         end.heap_bytes <= first.heap_bytes + most_heap;
}

}  // namespace talvera::korvane::bench
