// Whether a set of images is fit for reconstruction: exposure, and how different the lamps are.
#pragma once

#include <opencv2/core.hpp>
#include <string>
#include <vector>

#include "velostrix/velostrix_host.h"

namespace velostrix {

// Fills *diagnostics, but for struct_size, and returns the warnings, in which the images have the
// names. The images are CV_8UC1 of one size. Whether the lamps are those of the ring is measured
// when asked for.
std::vector<std::string> DiagnoseImages(const std::vector<cv::Mat>& images,
                                        const std::vector<std::string>& names, bool with_ring,
                                        VelostrixDiagnostics* diagnostics);

}  // namespace velostrix
