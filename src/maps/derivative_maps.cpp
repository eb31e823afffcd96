// Derivative maps of the slope maps.
#include "maps/derivative_maps.h"

#include <algorithm>

#include "tool/uncalibration_tool.h"

namespace velostrix {
namespace {

// Hosts see the clamped value; nothing is smoothed with it. A NaN compares with nothing and stays.
void ClampSmoothing(UnCalibrationTool& tool) {
  if (tool.smoothing < 0.2F) tool.smoothing = 0.2F;
  if (tool.smoothing > 50.0F) tool.smoothing = 50.0F;
}

// dp[j] = p[j + 1] - p[j] in the first forward_cols columns, p[j + 1] - p[j - 1] in the rest.
void DifferentiateAlongRow(const float* p, float* dp, int64_t forward_cols, int64_t cols) {
  for (int64_t j = 0; j < forward_cols; ++j) dp[j] = p[j + 1] - p[j];
  for (int64_t j = forward_cols; j < cols; ++j) dp[j] = p[j + 1] - p[j - 1];
}

void RepeatIntoLastTwo(float* row, int64_t cols) { row[cols - 2] = row[cols - 1] = row[cols - 3]; }

// The rows above and below row i; a missing one is the row itself.
struct RowNeighbours {
  const float* above;
  const float* self;
  const float* below;

  RowNeighbours(const UnCalibrationTool& tool, const float* map, int64_t i)
      : above(map + std::max<int64_t>(i - 1, 0) * tool.row_step),
        self(map + i * tool.row_step),
        below(map + std::min(i + 1, tool.rows - 1) * tool.row_step) {}
};

}  // namespace

bool IsDifferentiable(const UnCalibrationTool& tool) { return tool.rows >= 2 && tool.cols >= 3; }

int32_t DeriveSlopeMaps(UnCalibrationTool& tool, const float* p, const float* q, float* dp,
                        float* dq, RowRange range) {
  ClampSmoothing(tool);
  if (!IsDifferentiable(tool)) return 1;

  const bool forward = tool.difference_mode == 1;
  const int64_t cols = tool.cols - 2;
  // On wide frames the whole first block of eight takes forward differences; deliberate.
  const int64_t first_block = tool.cols > 9 ? 8 : 1;
  const int64_t forward_cols = forward ? cols : first_block;
  for (int64_t i = range.first; i < std::min(range.end, tool.rows); ++i) {
    const RowNeighbours rows(tool, q, i);
    const float* upper = forward ? rows.self : rows.above;
    float* dp_row = dp + (i - range.first) * tool.row_step;
    float* dq_row = dq + (i - range.first) * tool.row_step;
    DifferentiateAlongRow(p + i * tool.row_step, dp_row, forward_cols, cols);
    for (int64_t j = 0; j < cols; ++j) dq_row[j] = rows.below[j] - upper[j];
    RepeatIntoLastTwo(dp_row, tool.cols);
    RepeatIntoLastTwo(dq_row, tool.cols);
  }
  return 1;
}

int32_t SlopeDivergence(UnCalibrationTool& tool, const float* p, const float* q, float* out,
                        RowRange range) {
  ClampSmoothing(tool);
  if (!IsDifferentiable(tool)) return 1;

  const int64_t cols = tool.cols - 2;
  // As above, with blocks of four.
  const int64_t forward_cols = tool.cols > 5 ? 4 : 1;
  for (int64_t i = range.first; i < std::min(range.end, tool.rows); ++i) {
    const RowNeighbours rows(tool, q, i);
    float* out_row = out + (i - range.first) * tool.row_step;
    const float* p_row = p + i * tool.row_step;
    for (int64_t j = 0; j < forward_cols; ++j) {
      out_row[j] = (p_row[j + 1] - p_row[j]) + (rows.below[j] - rows.above[j]);
    }
    for (int64_t j = forward_cols; j < cols; ++j) {
      out_row[j] = (p_row[j + 1] - p_row[j - 1]) + (rows.below[j] - rows.above[j]);
    }
    RepeatIntoLastTwo(out_row, tool.cols);
  }
  return 1;
}

}  // namespace velostrix
