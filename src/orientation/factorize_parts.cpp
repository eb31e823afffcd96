// Uncalibrated factorisation piece by piece: bands of rows or strips of columns.
#include "orientation/factorize_parts.h"

#include <algorithm>
#include <vector>

#include "maps/byte_maps.h"
#include "orientation/gram_matrix.h"
#include "orientation/leading_vectors.h"
#include "orientation/slope_maps.h"
#include "tool/buffers.h"
#include "tool/lanes.h"
#include "tool/stopwatch.h"
#include "tool/uncalibration_tool.h"

namespace velostrix {
namespace {

// |x0| <= 1e-7, compared in double: this is the largest float not above 1e-7.
constexpr FactorGate kGate = {0x1.ad7f28p-24F, true};
static_assert(double{kGate.largest_refused} <= 1e-7 && 1e-7F > 1e-7);

// Where the signs of neighbouring strips are compared.
constexpr int64_t kReferenceRow = 1;

// Mirrors the factor map about the middle of its range.
void FlipFactorMap(const UnCalibrationTool& tool, float* factor_map) {
  float min = 0;
  float max = 0;
  MinMaxOfMap(factor_map, tool.cols, tool.rows, tool.row_step, min, max);
  const auto mid = static_cast<float>(double{min + max} * 0.5);
  for (int64_t i = 0; i < tool.rows; ++i) {
    float* row = factor_map + i * tool.row_step;
    ForEachBlock(0, tool.cols, [&](int64_t j, auto zero) {
      using V = decltype(zero);
      Store(row + j, V(mid) - Load<V>(row + j));
    });
  }
}

// What both variants do after their pieces.
int32_t Finish(UnCalibrationTool& tool, const WorkingMaps& maps, Stopwatch& stopwatch) {
  PatchBorder(tool, maps);
  tool.time_maps_ms = stopwatch.Lap();
  FlipFactorMap(tool, maps.factor);
  tool.time_flip_ms = stopwatch.Lap();
  return 1;
}

// Negates the vectors of a strip that have the opposite sign of the strip before at the pixel that
// both share. A zero on either side is opposite to nothing.
void AlignSigns(const LeadingVectors& before, int64_t row, int64_t col, LeadingVectors& strip) {
  const auto reference = before.At(row, col);
  const auto current = strip.At(row, col);
  for (size_t v = 0; v < current.size(); ++v) {
    if ((current[v] > 0 && reference[v] < 0) || (current[v] < 0 && reference[v] > 0)) {
      strip.Negate(static_cast<int>(v));
    }
  }
}

// Decomposes the strips from left to right, each aligned with the one before.
std::vector<LeadingVectors> DecomposeStrips(std::vector<GramAccumulator>& grams) {
  std::vector<LeadingVectors> strips;
  for (GramAccumulator& gram : grams) {
    const ImagePiece& piece = gram.piece();
    strips.push_back(DecomposePiece(
        piece, gram.Products(),
        strips.empty() ? Decomposition::kImagesByPixels : Decomposition::kImagesByPixelsBlockwise));
    if (strips.size() > 1) {
      AlignSigns(strips[strips.size() - 2], kReferenceRow, piece.first_col, strips.back());
    }
  }
  return strips;
}

}  // namespace

int32_t FactorizeIntensitiesPartRows(UnCalibrationTool& tool, float* factor_map, float* slope_p,
                                     float* slope_q, float* gated_factor_map, int32_t band) {
  if (!CanRun(tool) || band < 1) return 0;
  const int64_t last_band_rows = (tool.rows - 1) % band + 1;
  if (last_band_rows * tool.cols < LeadingVectors::kVectors) return 0;

  Stopwatch stopwatch;
  const WorkingMaps maps = {factor_map, slope_p, slope_q, gated_factor_map};
  for (int64_t start = 0; start < tool.rows; start += band) {
    const int64_t end = std::min(start + band, tool.rows);
    const ImagePiece piece = PieceOfFrame(tool, start, end, 0, tool.cols);
    GramAccumulator gram(piece);
    for (int64_t row = start; row < end; ++row) gram.AddRow(row);
    WriteMaps(DecomposePiece(piece, gram.Products(), Decomposition::kImagesByPixels), kGate,
              tool.row_step, maps);
  }
  return Finish(tool, maps, stopwatch);
}

int32_t FactorizeIntensitiesPartCols(UnCalibrationTool& tool, float* factor_map, float* slope_p,
                                     float* slope_q, float* gated_factor_map, int32_t band) {
  if (!CanRun(tool) || band < 1 || tool.rows <= kReferenceRow) return 0;
  // Strips after the first are at least two columns wide: two rows give them pixels enough.
  if (tool.rows * std::min<int64_t>(band, tool.cols) < LeadingVectors::kVectors) return 0;

  Stopwatch stopwatch;
  const WorkingMaps maps = {factor_map, slope_p, slope_q, gated_factor_map};
  // Rows outside, strips inside: memory is walked in its order.
  std::vector<GramAccumulator> grams;
  for (int64_t start = 0; start < tool.cols; start += band) {
    grams.emplace_back(PieceOfFrame(tool, 0, tool.rows, std::max<int64_t>(start - 1, 0),
                                    std::min(start + band, tool.cols)));
  }
  for (int64_t row = 0; row < tool.rows; ++row) {
    for (GramAccumulator& gram : grams) gram.AddRow(row);
  }
  const std::vector<LeadingVectors> strips = DecomposeStrips(grams);
  for (int64_t row = 0; row < tool.rows; ++row) {
    for (const LeadingVectors& strip : strips) {
      WriteMapsRow(strip, row, kGate, tool.row_step, maps);
    }
  }
  return Finish(tool, maps, stopwatch);
}

}  // namespace velostrix
