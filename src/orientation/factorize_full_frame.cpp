// Uncalibrated factorisation of the whole frame.
#include "orientation/factorize_full_frame.h"

#include "orientation/gram_matrix.h"
#include "orientation/leading_vectors.h"
#include "orientation/slope_maps.h"
#include "tool/buffers.h"
#include "tool/lanes.h"
#include "tool/stopwatch.h"
#include "tool/uncalibration_tool.h"

namespace velostrix {
namespace {

// |u0| <= 1e-6, compared in double: this is the largest float not above 1e-6.
constexpr FactorGate kGate = {1e-6F, false};
static_assert(double{kGate.largest_refused} <= 1e-6);

// A grey level in hundreds, rounded as the quotient is: 0.01 in two parts, the first short enough
// for exact products with bytes.
template <typename V>
constexpr V Hundreds(V level) {
  constexpr float kHigh = 0x1.47aep-7F;
  constexpr float kLow = 0x1.47ae14p-27F;
  return level * V(kHigh) + level * V(kLow);
}
constexpr bool RoundsAsTheQuotient() {
  for (int level = 0; level < 256; ++level) {
    if (Hundreds(static_cast<float>(level)) != static_cast<float>(level) / 100.0F) return false;
  }
  return true;
}
static_assert(RoundsAsTheQuotient());

// Column k of the matrix: image k in hundreds of grey levels. The scale changes no vector but is
// what hosts of the matrix know.
void FillMatrixRow(const ImagePiece& frame, int64_t row, Eigen::MatrixXf& intensities) {
  for (int k = 0; k < frame.image_count; ++k) {
    const uint8_t* bytes = frame.At(k, row, 0);
    float* column = &intensities(row * frame.cols(), k);
    ForEachBlock(0, frame.cols(), [&](int64_t j, auto zero) {
      using V = decltype(zero);
      Store(column + j, Hundreds(Load<V>(bytes + j)));
    });
  }
}

// Emptied first: when the memory cannot be had, Eigen's resize leaves a matrix that frees its old
// block again.
void ResizeMatrix(Eigen::MatrixXf& matrix, int64_t rows, int64_t cols) {
  if (matrix.rows() == rows && matrix.cols() == cols) return;
  matrix.resize(0, 0);
  matrix.resize(rows, cols);
}

}  // namespace

int32_t FactorizeIntensities(UnCalibrationTool& tool, float* factor_map, float* slope_p,
                             float* slope_q, float* gated_factor_map) {
  if (!CanRun(tool) || tool.rows * tool.cols < LeadingVectors::kVectors) return 0;

  Stopwatch stopwatch;
  const ImagePiece frame = PieceOfFrame(tool, 0, tool.rows, 0, tool.cols);
  ResizeMatrix(tool.intensity_matrix, frame.pixels(), frame.image_count);
  for (int64_t row = 0; row < tool.rows; ++row) FillMatrixRow(frame, row, tool.intensity_matrix);
  tool.time_fill_ms = stopwatch.Lap();

  GramAccumulator gram(frame);
  for (int64_t row = 0; row < tool.rows; ++row) gram.AddRow(row);
  const LeadingVectors vectors =
      DecomposePiece(frame, gram.Products(), Decomposition::kPixelsByImages);
  tool.time_svd_ms = stopwatch.Lap();

  const WorkingMaps maps = {factor_map, slope_p, slope_q, gated_factor_map};
  WriteMaps(vectors, kGate, tool.row_step, maps);
  PatchBorder(tool, maps);
  tool.time_maps_ms = stopwatch.Lap();
  return 1;
}

}  // namespace velostrix
