// Calibrated orientation: the fixed lamp ring and the Lambertian solve per pixel.
// Plain counterpart: bench/reference/reference_calibrated_lights.cpp.
#pragma once

#include <array>
#include <memory>

#include "orientation/light_stage.h"

struct UnCalibrationTool;

namespace velostrix {

// Row i: the unit vector (x, y, z) towards lamp i. Rows from the image count on are zero.
using LampMatrix = std::array<std::array<float, 3>, 8>;

// The lamps of the calibrated run for 3 to 8 images.
LampMatrix LampRing(int image_count);

// Solves intensity_k = g . l_k for g by least squares at every pixel (photometric stereo, Woodham
// 1980); the maps are the albedo |g| in grey levels and the unit normal g / |g| (0 where the albedo
// is below 1e-6). Needs a tool whose buffers hold its images. Null: the lamps determine no normals.
std::unique_ptr<LightStage> SolveCalibratedLights(const UnCalibrationTool& tool);

}  // namespace velostrix
