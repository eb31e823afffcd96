// Uncalibrated factorisation piece by piece: bands of rows or strips of columns.
#pragma once

#include <cstdint>

struct UnCalibrationTool;

namespace velostrix {

// Both factor the matrix of intensities, images x pixels, of one piece after the other and write,
// from the first three right singular vectors (x0, x1, x2) of every pixel: factor_map x0, slope_p
// x1 / x0, slope_q -x2 / x0, gated_factor_map x0 (the last three 0 where |x0| <= 1e-7). Row 0
// becomes a copy of row 1, then factor_map is mirrored about the middle of its range. Maps are rows
// x cols floats with stride row_step. They write time_maps_ms and time_flip_ms;
// tool.intensity_matrix is left alone. Return 1; 0, nothing changed: image count outside 3..8, a
// frame that the buffers do not hold, a piece of fewer than three pixels, band < 1. Out of memory:
// std::bad_alloc.

// Bands of `band` whole rows; every band keeps the signs of its own decomposition.
int32_t FactorizeIntensitiesPartRows(UnCalibrationTool& tool, float* factor_map, float* slope_p,
                                     float* slope_q, float* gated_factor_map, int32_t band);

// Strips of `band` whole columns, each repeating the last column of the one before; the signs of a
// strip's vectors are aligned with the strip before at row 1 of that column. Also 0: a frame of one
// row.
int32_t FactorizeIntensitiesPartCols(UnCalibrationTool& tool, float* factor_map, float* slope_p,
                                     float* slope_q, float* gated_factor_map, int32_t band);

}  // namespace velostrix
