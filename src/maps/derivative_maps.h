// Derivatives of the slope maps, a row at a time.
#pragma once

#include <cstdint>

#include "base/row_buffer.h"

namespace velostrix {

// The slope maps of a frame. A row of derivatives takes the rows above and below it.
struct SlopeRows {
  RowBuffer p;
  RowBuffer q;
  int64_t rows;
  int64_t cols;

  // Whether the frame has the two rows and three columns that derivatives need.
  bool IsDifferentiable() const { return rows >= 2 && cols >= 3; }
};

// Both derive row i of differentiable slopes. Central differences span two pixels and are not
// halved; at the edges a row or column that is missing is replaced by the pixel's own. The last two
// columns repeat the one before. Plain counterparts: bench/reference/reference_derivative_maps.cpp.

// dp = dP/dx, dq = dQ/dy, in forward or central differences.
void DeriveSlopeMaps(const SlopeRows& slopes, int64_t i, bool forward, float* dp, float* dq);

// out = dP/dx + dQ/dy in central differences.
void SlopeDivergence(const SlopeRows& slopes, int64_t i, float* out);

}  // namespace velostrix
