// The rows of a map, or the latest few of them.
#pragma once

#include <cstdint>

namespace velostrix {

// Row i of the map is where row i - capacity was before it. With the frame's height as capacity
// this is the whole map.
struct RowBuffer {
  float* data;
  int64_t stride;    // elements from row to row
  int64_t capacity;  // rows

  float* Row(int64_t i) const { return data + i % capacity * stride; }
};

}  // namespace velostrix
