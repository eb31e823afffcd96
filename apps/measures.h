// A few numbers of the results that limits can be set to.
#pragma once

#include "apps/run_record.h"
#include "velostrix/tool.hpp"

namespace velostrix::cli {

// curvature_share: pixels of the curvature image more than `level` grey levels from its offset.
//
// height_range: the height image is stretched to 16 bits, h, so that the height is z = a h + b. The
// slopes are those that it was integrated from, and least squares over the differences of
// neighbours gives a: the sum of dh * slope over that of dh * dh. (Of a solution by conjugate
// gradients, or one of least squares, the same quotient over z is 1.) Pixels whose slopes left the
// grey levels are left out. Needs height, channel0 and channel1.
Measures MeasureResults(const Results& results, const Parameters& parameters, int level);

}  // namespace velostrix::cli
