// From singular vectors to the four working maps.
#include "orientation/slope_maps.h"

#include <algorithm>

#include "tool/lanes.h"
#include "tool/uncalibration_tool.h"

namespace velostrix {
void WriteMapsRow(const LeadingVectors& vectors, int64_t row, const FactorGate& gate,
                  int64_t row_step, const WorkingMaps& maps) {
  const ImagePiece& piece = vectors.piece();
  const int64_t at = row * row_step + piece.first_col;
  const WorkingMaps out = {maps.factor + at, maps.slope_p + at, maps.slope_q + at,
                           maps.gated_factor + at};
  vectors.Visit(row, piece.first_col, piece.end_col, [&](int64_t j, auto x0, auto x1, auto x2) {
    using V = decltype(x0);
    const V zero = 0.0F;
    const V magnitude = Abs(x0);
    const V largest_refused = gate.largest_refused;
    Store(out.factor + j, x0);
    Store(out.slope_p + j, WhereAbove(magnitude, largest_refused, x1 / x0, zero));
    Store(out.slope_q + j, WhereAbove(magnitude, largest_refused, -(x2 / x0), zero));
    Store(out.gated_factor + j,
          WhereAbove(magnitude, largest_refused, x0, gate.zeroes_gated_factor ? zero : x0));
  });
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
