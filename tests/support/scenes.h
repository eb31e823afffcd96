// Images of random scenes for the light stages.
#pragma once

#include <algorithm>
#include <cmath>
#include <random>

#include "tool/uncalibration_tool.h"

namespace velostrix {

// The byte of image k at (row, col) of an allocated tool.
inline uint8_t& PixelOf(UnCalibrationTool& tool, int64_t k, int64_t row, int64_t col) {
  return tool.image_stack[k * tool.plane_size + row * tool.row_step + col];
}

inline void BlackenPixel(UnCalibrationTool& tool, int64_t row, int64_t col) {
  for (int64_t k = 0; k < tool.image_count; ++k) PixelOf(tool, k, row, col) = 0;
}

// Fills the tool's images with a rough matt surface of random brightness under lamps of different
// strengths, with noise. The surface is rougher across than along the rows, so that its two slopes
// are two well separated singular vectors. What lies between the rows is random.
inline void RenderRandomScene(UnCalibrationTool& tool, uint32_t seed) {
  std::mt19937 random(seed);
  const auto uniform = [&](double low, double high) {
    return std::uniform_real_distribution<double>(low, high)(random);
  };
  std::generate_n(tool.image_stack, tool.image_count * tool.plane_size,
                  [&] { return static_cast<uint8_t>(random()); });
  for (int64_t r = 0; r < tool.rows; ++r) {
    for (int64_t c = 0; c < tool.cols; ++c) {
      const double albedo = uniform(0.5, 1.0);
      const double slope_x = uniform(-0.4, 0.4);
      const double slope_y = uniform(-0.8, 0.8);
      const double steepness = std::sqrt(1 + slope_x * slope_x + slope_y * slope_y);
      for (int64_t k = 0; k < tool.image_count; ++k) {
        const double azimuth =
            0.3 + 6.2831853 * static_cast<double>(k) / static_cast<double>(tool.image_count);
        const double strength = 230.0 - 11.0 * static_cast<double>(k);
        const double shading =
            0.75 - 0.65 * (slope_x * std::cos(azimuth) + slope_y * std::sin(azimuth));
        const double level = strength * albedo * std::max(shading, 0.0) / steepness;
        PixelOf(tool, k, r, c) =
            static_cast<uint8_t>(std::clamp(level + uniform(-1.5, 2.5), 0.0, 255.0));
      }
    }
  }
}

// Makes one pixel in 40 black in all images.
inline void BlackenSomePixels(UnCalibrationTool& tool, uint32_t seed) {
  std::mt19937 random(seed);
  for (int64_t r = 0; r < tool.rows; ++r) {
    for (int64_t c = 0; c < tool.cols; ++c) {
      if (random() % 40 == 0) BlackenPixel(tool, r, c);
    }
  }
}

// Position of a level's pixel in RenderThresholdScene.
struct Position {
  int64_t row, col;
};
inline Position PositionOfLevel(int64_t level) { return {20 + level / 64, level % 64}; }

// Four images of 48 x 64 pixels. The last is dark but for one pixel of level `coupling` that the
// other lamps reach too, and one pixel of every level that they do not: there the first singular
// vector has small entries in equal steps, the finer the weaker the coupling.
inline void RenderThresholdScene(UnCalibrationTool& tool, uint8_t coupling) {
  RenderRandomScene(tool, 5);
  for (int64_t r = 0; r < tool.rows; ++r) {
    for (int64_t c = 0; c < tool.cols; ++c) PixelOf(tool, 3, r, c) = 0;
  }
  for (int64_t k = 0; k < 3; ++k) PixelOf(tool, k, 40, 9) = 100;
  PixelOf(tool, 3, 40, 9) = coupling;
  for (int64_t level = 0; level < 256; ++level) {
    const auto [row, col] = PositionOfLevel(level);
    BlackenPixel(tool, row, col);
    PixelOf(tool, 3, row, col) = static_cast<uint8_t>(level);
  }
}

}  // namespace velostrix
