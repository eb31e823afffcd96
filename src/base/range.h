// The range of a float map.
#pragma once

#include <cstdint>

#include "base/vectors.h"

namespace velostrix {

// Empty at first: min above max.
struct Range {
  // Two steps inside the largest finite float; deliberate.
  float min = 0x1.fffffap+127F;
  float max = -0x1.fffffap+127F;

  bool IsFlat() const { return min == max; }
};

// Extends the range by a row of the map. NaN changes no bound.
inline void MinMaxOfMap(const float* row, int64_t cols, Range& range) {
  Float8 min = range.min;
  Float8 max = range.max;
  ForEachBlock(0, cols, [&](int64_t j, auto zero) {
    const auto value = Load<decltype(zero)>(row + j);
    if constexpr (sizeof value == sizeof(float)) {
      range.min = Min(value, range.min);
      range.max = Max(value, range.max);
    } else {
      min = Min(value, min);
      max = Max(value, max);
    }
  });
  for (const float lane : ToArray(min)) range.min = Min(lane, range.min);
  for (const float lane : ToArray(max)) range.max = Max(lane, range.max);
}

}  // namespace velostrix
