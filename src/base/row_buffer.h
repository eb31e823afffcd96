// The rows of a map, or the latest few of them.
#pragma once

#include <cstdint>

namespace velostrix {

// Row i of the map replaces row i - capacity. The frame's height as capacity keeps all rows.
struct RowBuffer {
  float* data;
  int64_t stride;    // elements from row to row
  int64_t capacity;  // rows

  float* Row(int64_t i) const { return data + i % capacity * stride; }
};

}  // namespace velostrix
