// Numbers measured in the results, for limits.
#pragma once

#include <optional>

#include "apps/run_record.h"
#include "velostrix/tool.hpp"

namespace velostrix::cli {

// The scale a of the height image, in slope times pixels: the image h is stretched to 16 bits, and
// the height is z = a h + b. Least squares over the differences of neighbours gives a, the sum of
// dh * slope over the sum of dh * dh, with the slopes that the height was integrated from. (For z
// itself the quotient is 1, when z is a solution by conjugate gradients or least squares.) Leaves
// out saturated slopes; nothing when none remain. Needs height, channel0 and channel1.
// kept: pixels that count are not 0; empty: all.
std::optional<double> HeightScale(const Results& results, const Parameters& parameters,
                                  const cv::Mat& kept);

// curvature_share: share of the curvature's pixels more than `level` grey levels from its offset.
//
// height_range: the range of the height by the scale of HeightScale; needs the same results.
Measures MeasureResults(const Results& results, const Parameters& parameters, int level,
                        const cv::Mat& kept);

}  // namespace velostrix::cli
