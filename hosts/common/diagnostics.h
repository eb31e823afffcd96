// Whether a set of images is fit for reconstruction: exposure, how different the lamps are, and
// whether anything moved.
#pragma once

#include <opencv2/core.hpp>
#include <string>
#include <vector>

#include "velostrix/tool.hpp"
#include "velostrix/velostrix_host.h"

namespace velostrix {

// Writes all of *diagnostics except struct_size and returns the warnings, which call the images by
// their names. images: as a run with the parameters takes them. mask: as large, CV_8UC1, 0 for
// pixels to leave out; or empty.
std::vector<std::string> DiagnoseImages(const std::vector<cv::Mat>& images,
                                        const std::vector<std::string>& names,
                                        const Parameters& parameters, const cv::Mat& mask,
                                        VelostrixDiagnostics* diagnostics);

}  // namespace velostrix
