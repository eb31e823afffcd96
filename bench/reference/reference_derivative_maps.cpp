// Derivative maps of the slope maps, one pixel at a time.
#include <algorithm>

#include "reference/reference_stages.h"

namespace velostrix::reference {
namespace {

// Writes value(row, col, row above, row below) to columns 0 to cols - 3 and repeats the last one.
// Frames without two rows and three columns have no derivatives.
template <typename Value>
void FillMap(const Frame& frame, float* out, Value value) {
  for (int64_t i = 0; i < frame.rows; ++i) {
    if (frame.rows < 2 || frame.cols < 3) {
      std::fill_n(out + frame.At(i, 0), frame.cols, 0.0F);
      continue;
    }
    const int64_t above = std::max<int64_t>(i - 1, 0);
    const int64_t below = std::min(i + 1, frame.rows - 1);
    for (int64_t j = 0; j < frame.cols - 2; ++j) out[frame.At(i, j)] = value(i, j, above, below);
    for (int64_t j = frame.cols - 2; j < frame.cols; ++j) {
      out[frame.At(i, j)] = out[frame.At(i, frame.cols - 3)];
    }
  }
}

// The left neighbour of a central difference; the columns before first_central use their own.
int64_t Left(int64_t j, int64_t first_central) { return j < first_central ? j : j - 1; }

}  // namespace

void DeriveSlopeMaps(const Frame& frame, const float* p, const float* q, bool forward, float* dp,
                     float* dq) {
  const int64_t first_central = frame.cols > 9 ? 8 : 1;
  FillMap(frame, dp, [&](int64_t i, int64_t j, int64_t, int64_t) {
    const int64_t left = forward ? j : Left(j, first_central);
    return p[frame.At(i, j + 1)] - p[frame.At(i, left)];
  });
  FillMap(frame, dq, [&](int64_t i, int64_t j, int64_t above, int64_t below) {
    return q[frame.At(below, j)] - q[frame.At(forward ? i : above, j)];
  });
}

void SlopeDivergence(const Frame& frame, const float* p, const float* q, float* out) {
  const int64_t first_central = frame.cols > 5 ? 4 : 1;
  FillMap(frame, out, [&](int64_t i, int64_t j, int64_t above, int64_t below) {
    return (p[frame.At(i, j + 1)] - p[frame.At(i, Left(j, first_central))]) +
           (q[frame.At(below, j)] - q[frame.At(above, j)]);
  });
}

}  // namespace velostrix::reference
