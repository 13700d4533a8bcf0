#pragma once

#include <chrono>
#include <cstddef>

#include "support/process_resources.h"

namespace talvera::korvane::bench {

void ShowProgress(long done, long all, std::chrono::steady_clock::time_point began);

/// Says what the process held first and what it holds at the end. True if it didn't grow, other
/// than by what the allocator keeps at hand of what was freed: no more than `most_heap` bytes.
bool ReportGrowth(const test::ProcessResources& first, const test::ProcessResources& end,
                  std::size_t most_heap);

}  // namespace talvera::korvane::bench
