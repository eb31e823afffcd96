// Calibrated light stage: the fixed lamp ring and the Lambertian solve per pixel.
#pragma once

#include <array>
#include <cstdint>

struct UnCalibrationTool;

namespace velostrix {

// Row i: the unit vector (x, y, z) towards lamp i. Rows from the image count on are zero.
using LampMatrix = std::array<std::array<float, 3>, 8>;

// The lamps of the calibrated run for 3 to 8 images.
LampMatrix LampRing(int image_count);

// Solves intensity_k = g . l_k for g by least squares at every pixel (photometric stereo, Woodham
// 1980) and writes the albedo |g| and the unit normal g / |g| (0 where the albedo is below 1e-6):
// maps of rows x cols floats with stride row_step; out_albedo in grey levels. Returns 1; 0, nothing
// written: image count outside 3..8, a frame that the buffers do not hold.
int32_t SolveCalibratedLights(const UnCalibrationTool& tool, float* out_albedo, float* out_nx,
                              float* out_ny, float* out_nz);

}  // namespace velostrix
