// Surface orientation, a row at a time.
#pragma once

#include <cstdint>

#include "base/range.h"

namespace velostrix {

// One row of the four working maps: factor, slope P, slope Q, gated factor. In a calibrated run
// they hold the albedo and the normal's x, y and z.
struct MapRow {
  float* factor;
  float* slope_p;
  float* slope_q;
  float* gated_factor;
};

// The result of a light stage for the images, from which it makes the maps row by row.
class LightStage {
 public:
  virtual ~LightStage() = default;

  // Writes row i of the maps.
  virtual void WriteRow(int64_t i, const MapRow& out) const = 0;

  // Finds the range of the factor map without the other maps. A stage that mirrors this map about
  // the middle of its range does so from now on. scratch: room for a row.
  virtual Range FactorRange(float* scratch) = 0;
};

}  // namespace velostrix
