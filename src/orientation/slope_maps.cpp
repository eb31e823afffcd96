// From singular vectors to the four working maps.
#include "orientation/slope_maps.h"

#include <algorithm>

#include "tool/lanes.h"
#include "tool/uncalibration_tool.h"

namespace velostrix {
namespace {

void WriteRun(const float* x0, const float* x1, const float* x2, int64_t count,
              const FactorGate& gate, const WorkingMaps& out) {
  ForEachBlock(0, count, [&](int64_t j, auto zero) {
    using V = decltype(zero);
    const auto factor = Load<V>(x0 + j);
    const V magnitude = Abs(factor);
    const V largest_refused = gate.largest_refused;
    const V p = Load<V>(x1 + j) / factor;
    const V q = -(Load<V>(x2 + j) / factor);
    Store(out.factor + j, factor);
    Store(out.slope_p + j, WhereAbove(magnitude, largest_refused, p, zero));
    Store(out.slope_q + j, WhereAbove(magnitude, largest_refused, q, zero));
    Store(out.gated_factor + j,
          WhereAbove(magnitude, largest_refused, factor, gate.zeroes_gated_factor ? zero : factor));
  });
}

}  // namespace

void WriteMapsRow(const LeadingVectors& vectors, int64_t row, const FactorGate& gate,
                  int64_t row_step, const WorkingMaps& maps) {
  constexpr int64_t kRun = 512;
  float x[LeadingVectors::kVectors][kRun];
  const ImagePiece& piece = vectors.piece();
  for (int64_t col = piece.first_col; col < piece.end_col; col += kRun) {
    const int64_t count = std::min(kRun, piece.end_col - col);
    vectors.CopyEntries(row, col, count, {x[0], x[1], x[2]});
    const int64_t at = row * row_step + col;
    WriteRun(x[0], x[1], x[2], count, gate,
             {maps.factor + at, maps.slope_p + at, maps.slope_q + at, maps.gated_factor + at});
  }
}

void WriteMaps(const LeadingVectors& vectors, const FactorGate& gate, int64_t row_step,
               const WorkingMaps& maps) {
  const ImagePiece& piece = vectors.piece();
  for (int64_t row = piece.first_row; row < piece.end_row; ++row) {
    WriteMapsRow(vectors, row, gate, row_step, maps);
  }
}

void PatchBorder(const UnCalibrationTool& tool, const WorkingMaps& maps) {
  if (tool.rows > 2 && tool.cols > 2) {
    for (float* map : {maps.factor, maps.slope_p, maps.slope_q, maps.gated_factor}) {
      std::copy_n(map + tool.row_step, tool.cols, map);
    }
  }
  maps.factor[0] = maps.factor[1];
}

}  // namespace velostrix
