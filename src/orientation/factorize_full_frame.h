// Uncalibrated factorisation of the whole frame.
#pragma once

#include <cstdint>

struct UnCalibrationTool;

namespace velostrix {

// Factors the matrix of all intensities, pixels x images, by a singular value decomposition and
// writes, from the first three left singular vectors (u0, u1, u2) of every pixel, the maps of rows
// x cols floats with stride row_step: factor_map and gated_factor_map u0, slope_p u1 / u0, slope_q
// -u2 / u0 (both 0 where |u0| <= 1e-6). Signs are the decomposition's. Row 0 becomes a copy of
// row 1. Keeps the matrix in tool.intensity_matrix and writes time_fill_ms (the matrix),
// time_svd_ms (inner products and decomposition) and time_maps_ms. Returns 1; 0, nothing changed:
// image count outside 3..8, a frame that the buffers do not hold or with fewer than three pixels.
// Out of memory: std::bad_alloc.
int32_t FactorizeIntensities(UnCalibrationTool& tool, float* factor_map, float* slope_p,
                             float* slope_q, float* gated_factor_map);

}  // namespace velostrix
