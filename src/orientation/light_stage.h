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

// What a light stage has found out about the images, which it reads again for each row.
class LightStage {
 public:
  virtual ~LightStage() = default;

  // Writes row i of the maps.
  virtual void WriteRow(int64_t i, const MapRow& out) const = 0;

  // The range of the factor map, found without the other maps. Where the stage mirrors that map
  // about the middle of its range, it does so from here on. scratch: room for a row.
  virtual Range FactorRange(float* scratch) = 0;
};

}  // namespace velostrix
