// The curvature and the magnitude image, made from the slopes.
#pragma once

#include <cstdint>
#include <memory>

#include "maps/derivative_maps.h"

struct UnCalibrationTool;

namespace velostrix {

// Writes the tool's curvature and magnitude planes, those that are switched on. Both are flat where
// the frame is too small to derive.
class DerivativeImages {
 public:
  virtual ~DerivativeImages() = default;

  // Makes row i once the slopes of that row and of those around it are there.
  virtual void MakeRow(int64_t i) = 0;

  // Smooths what the rows have become when the tool's blur radius is at least 1.
  virtual void Smooth() = 0;
};

// Of the full-frame runs: from the derivatives of both slopes; smoothing keeps their whole maps.
std::unique_ptr<DerivativeImages> FullFrameDerivativeImages(UnCalibrationTool& tool,
                                                            const SlopeRows& slopes);

// Of the partial runs: from the divergence of the slopes. The finished bytes are smoothed, not the
// float map; deliberate.
std::unique_ptr<DerivativeImages> PartialDerivativeImages(UnCalibrationTool& tool,
                                                          const SlopeRows& slopes);

}  // namespace velostrix
