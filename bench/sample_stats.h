// SPDX-License-Identifier: MIT
#pragma once

// The few statistics the benchmarks report over their rounds.

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <vector>

namespace vela::bench {

// The mean of the middle two for an even count; 0 for no values.
inline double median(std::vector<double> values) {
  if (values.empty()) return 0;
  std::sort(values.begin(), values.end());
  const std::size_t mid = values.size() / 2;
  return values.size() % 2 != 0 ? values[mid] : (values[mid - 1] + values[mid]) / 2;
}

// Nearest rank: the smallest value that at least `fraction` of the values
// do not exceed; 0 for no values. `sorted` is in ascending order.
inline double quantileOfSorted(const std::vector<double>& sorted, double fraction) {
  if (sorted.empty()) return 0;
  const auto rank = static_cast<std::size_t>(std::ceil(fraction * static_cast<double>(sorted.size())));
  return sorted[std::clamp<std::size_t>(rank, 1, sorted.size()) - 1];
}

inline double quantile(std::vector<double> values, double fraction) {
  std::sort(values.begin(), values.end());
  return quantileOfSorted(values, fraction);
}

// Where the middle half of the values lie: the first and third quartiles.
// Beside a median, it tells a ratio near its target from the machine's
// noise.
struct MiddleHalf {
  double low = 0;
  double high = 0;
};

inline MiddleHalf middleHalf(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  return {quantileOfSorted(values, 0.25), quantileOfSorted(values, 0.75)};
}

}  // namespace vela::bench
