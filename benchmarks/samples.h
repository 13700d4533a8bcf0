#pragma once

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstddef>
#include <vector>

namespace talvera::korvane::bench {

inline double Percentile(std::vector<double>& values, double share) {
  const auto at =
      values.begin() + static_cast<std::ptrdiff_t>(share * static_cast<double>(values.size() - 1));
  std::nth_element(values.begin(), at, values.end());
  return *at;
}

/// One measurement a repetition, whose repetitions are told with the least and the greatest.
inline void WithSpread(benchmark::internal::Benchmark* registered) {
  registered->Iterations(1)
      ->UseRealTime()
      ->ComputeStatistics(
          "min", [](const auto& values) { return *std::min_element(values.begin(), values.end()); })
      ->ComputeStatistics("max", [](const auto& values) {
        return *std::max_element(values.begin(), values.end());
      });
}

}  // namespace talvera::korvane::bench
