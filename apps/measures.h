// A few numbers of the results that limits can be set to.
#pragma once

#include <optional>

#include "apps/run_record.h"
#include "velostrix/tool.hpp"

namespace velostrix::cli {

// The height image is stretched to 16 bits, h, so that the height is z = a h + b: a, in slope times
// pixels. The slopes are those that it was integrated from, and least squares over the differences
// of neighbours gives a: the sum of dh * slope over that of dh * dh. (Of a solution by conjugate
// gradients, or one of least squares, the same quotient over z is 1.) Pixels whose slopes left the
// grey levels are left out; nothing when that leaves none. Needs height, channel0 and channel1.
std::optional<double> HeightScale(const Results& results, const Parameters& parameters);

// curvature_share: pixels of the curvature image more than `level` grey levels from its offset.
//
// height_range: that of the height image by its scale; needs what that needs.
Measures MeasureResults(const Results& results, const Parameters& parameters, int level);

}  // namespace velostrix::cli
