// SPDX-License-Identifier: MIT
#pragma once

// The few statistics the benchmarks report over their rounds.

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <vector>

namespace vela::bench {

// The 0-based place of the nearest-rank quantile among `count` (> 0) sorted
// values: the smallest value that at least `fraction` of them do not exceed.
inline std::size_t nearestRank(std::size_t count, double fraction) {
  const auto rank = static_cast<std::size_t>(std::ceil(fraction * static_cast<double>(count)));
  return std::clamp<std::size_t>(rank, 1, count) - 1;
}

// `sorted` is in ascending order; 0 for no values.
inline double quantileOfSorted(const std::vector<double>& sorted, double fraction) {
  return sorted.empty() ? 0 : sorted[nearestRank(sorted.size(), fraction)];
}

// The mean of the middle two for an even count; 0 for no values.
inline double medianOfSorted(const std::vector<double>& sorted) {
  if (sorted.empty()) return 0;
  const std::size_t mid = sorted.size() / 2;
  return sorted.size() % 2 != 0 ? sorted[mid] : (sorted[mid - 1] + sorted[mid]) / 2;
}

inline double median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  return medianOfSorted(values);
}

// A median and where the middle half of the values lie (the first and third
// quartiles), from one sort. Beside a median, the middle half tells a ratio
// near its target from the machine's noise.
struct MedianAndMiddleHalf {
  double median = 0;
  double low = 0;
  double high = 0;
};

inline MedianAndMiddleHalf medianAndMiddleHalf(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  return {medianOfSorted(values), quantileOfSorted(values, 0.25), quantileOfSorted(values, 0.75)};
}

}  // namespace vela::bench
