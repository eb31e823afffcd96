// Derivatives of the slope maps, a row at a time.
#include "maps/derivative_maps.h"

#include <algorithm>

namespace velostrix {
namespace {

void RepeatIntoLastTwo(float* row, int64_t cols) { row[cols - 2] = row[cols - 1] = row[cols - 3]; }

// The rows of Q above, at and below row i; a missing one is the row itself.
struct RowNeighbours {
  const float* above;
  const float* self;
  const float* below;

  RowNeighbours(const SlopeRows& slopes, int64_t i)
      : above(slopes.q.Row(std::max<int64_t>(i - 1, 0))),
        self(slopes.q.Row(i)),
        below(slopes.q.Row(std::min(i + 1, slopes.rows - 1))) {}
};

}  // namespace

void DeriveSlopeMaps(const SlopeRows& slopes, int64_t i, bool forward, float* dp, float* dq) {
  const int64_t cols = slopes.cols - 2;
  // On wide frames the whole first block of eight takes forward differences; deliberate.
  const int64_t first_block = slopes.cols > 9 ? 8 : 1;
  const int64_t forward_cols = forward ? cols : first_block;
  const float* p = slopes.p.Row(i);
  const RowNeighbours q(slopes, i);
  const float* upper = forward ? q.self : q.above;
  for (int64_t j = 0; j < forward_cols; ++j) dp[j] = p[j + 1] - p[j];
  for (int64_t j = forward_cols; j < cols; ++j) dp[j] = p[j + 1] - p[j - 1];
  for (int64_t j = 0; j < cols; ++j) dq[j] = q.below[j] - upper[j];
  RepeatIntoLastTwo(dp, slopes.cols);
  RepeatIntoLastTwo(dq, slopes.cols);
}

void SlopeDivergence(const SlopeRows& slopes, int64_t i, float* out) {
  const int64_t cols = slopes.cols - 2;
  // As above, with blocks of four.
  const int64_t forward_cols = slopes.cols > 5 ? 4 : 1;
  const float* p = slopes.p.Row(i);
  const RowNeighbours q(slopes, i);
  for (int64_t j = 0; j < forward_cols; ++j) {
    out[j] = (p[j + 1] - p[j]) + (q.below[j] - q.above[j]);
  }
  for (int64_t j = forward_cols; j < cols; ++j) {
    out[j] = (p[j + 1] - p[j - 1]) + (q.below[j] - q.above[j]);
  }
  RepeatIntoLastTwo(out, slopes.cols);
}

}  // namespace velostrix
