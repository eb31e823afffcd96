// From singular vectors to the four working maps.
#pragma once

#include <cstdint>

#include "orientation/leading_vectors.h"

struct UnCalibrationTool;

namespace velostrix {

// The four working maps: rows x cols floats each, with the tool's row_step as stride.
struct WorkingMaps {
  float* factor;
  float* slope_p;
  float* slope_q;
  float* gated_factor;
};

// What happens to pixels whose first entry is too small to divide by.
struct FactorGate {
  float largest_refused;  // |x0| up to here gives zero slopes
  bool zeroes_gated_factor;
};

// Writes one row of a piece of the maps from its vectors (x0, x1, x2): factor x0, slope_p x1 / x0,
// slope_q -x2 / x0, gated_factor x0.
void WriteMapsRow(const LeadingVectors& vectors, int64_t row, const FactorGate& gate,
                  int64_t row_step, const WorkingMaps& maps);

// Writes all rows of the piece.
void WriteMaps(const LeadingVectors& vectors, const FactorGate& gate, int64_t row_step,
               const WorkingMaps& maps);

// Row 0 of every map becomes a copy of row 1 in frames above 2 x 2; then the first element of the
// factor map, alone, takes the value of the second. Both deliberate.
void PatchBorder(const UnCalibrationTool& tool, const WorkingMaps& maps);

}  // namespace velostrix
