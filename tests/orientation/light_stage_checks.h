// What the tests of the light stages share: maps, refusals, round-off bounds, degenerate scenes.
#pragma once

#include <functional>

#include "support/frames_and_planes.h"

namespace velostrix {

// The four working maps, guarded.
struct LightMaps {
  explicit LightMaps(const UnCalibrationTool& tool)
      : factor(tool), slope_p(tool), slope_q(tool), gated_factor(tool) {}

  reference::WorkingMaps pointers() {
    return {factor.data(), slope_p.data(), slope_q.data(), gated_factor.data()};
  }
  testing::AssertionResult SameAs(const LightMaps& expected) const;
  testing::AssertionResult SameOutsideFrame(const LightMaps& expected) const;

  GuardedPlane<float> factor, slope_p, slope_q, gated_factor;
};

// A light stage as the tests run it.
using LightStage = std::function<int32_t(UnCalibrationTool& tool, LightMaps& maps)>;

// Expects the stage to refuse a tool of the geometry after spoil(tool): it returns 0 and writes
// neither maps nor timings nor the matrix.
void ExpectRefusal(const LightStage& stage, const Geometry& geometry,
                   const std::function<void(UnCalibrationTool&)>& spoil);

// Expects refusals of image counts outside 3..8, of frames that are none and of frames that the
// buffers do not hold.
void ExpectCommonRefusals(const LightStage& stage);

// A rectangle of the frame that is decomposed on its own.
struct FramePiece {
  int64_t first_row, end_row;
  int64_t first_col, end_col;
};

// The piece that a pixel's values come from.
using PieceOfPixel = std::function<FramePiece(int64_t row, int64_t col)>;

// Expects the vectors behind two sets of maps to agree, signs included, up to the round-off of a
// decomposition in single precision. The gated factor maps hold the first entries. Row 0 is left
// out where it is a copy of row 1; factor maps are not looked at.
void ExpectSameVectors(UnCalibrationTool& tool, const LightMaps& actual, const LightMaps& expected,
                       const PieceOfPixel& piece_of_pixel);

// Expects row 0 of all maps to repeat row 1, but for the first element of the factor map.
void ExpectBorderCopied(const UnCalibrationTool& tool, const LightMaps& maps);

// Runs the stage on scenes whose vectors are not determined, or hardly: identical images, black
// and saturated ones, a few odd pixels. What comes out is finite and the same at every repetition
// and for every number of threads; nothing else is promised.
void ExpectHarmlessOnDegenerateScenes(const LightStage& stage);

}  // namespace velostrix
