// Whether a set of images is fit for reconstruction: exposure, how different the lamps are, and
// whether anything moved.
#pragma once

#include <opencv2/core.hpp>
#include <string>
#include <vector>

#include "velostrix/tool.hpp"
#include "velostrix/velostrix_host.h"

namespace velostrix {

// Fills *diagnostics, but for struct_size, and returns the warnings, in which the images have the
// names. The images are those that a run with the parameters takes. mask: as large, CV_8UC1, pixels
// to leave out are 0; or empty.
std::vector<std::string> DiagnoseImages(const std::vector<cv::Mat>& images,
                                        const std::vector<std::string>& names,
                                        const Parameters& parameters, const cv::Mat& mask,
                                        VelostrixDiagnostics* diagnostics);

}  // namespace velostrix
