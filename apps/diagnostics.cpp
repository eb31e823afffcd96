// Whether a set of images is fit for reconstruction: exposure, and how different the lamps are.
#include "apps/diagnostics.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

namespace velostrix::cli {
namespace {

// Pixels without information pull the factorisation towards themselves; a few per cent do no harm.
constexpr double kManyPixels = 0.05;
// Below this mean, rounding to whole grey levels alone blurs slopes by more than a per cent.
constexpr double kDarkMean = 20.0;
// Sensor noise and rounding of well exposed images reach about this share of the first singular
// value.
constexpr double kNoiseLevel = 0.01;

Exposure Measure(const cv::Mat& image) {
  const auto pixels = static_cast<double>(image.total());
  return {cv::countNonZero(image == 255) / pixels, cv::countNonZero(image == 0) / pixels,
          cv::mean(image)[0]};
}

// Square roots of the eigenvalues of the Gram matrix, whose entries are the images' inner products.
std::vector<double> SingularValues(const std::vector<cv::Mat>& images) {
  const auto count = static_cast<int>(images.size());
  cv::Mat1d gram(count, count);
  for (int a = 0; a < count; ++a) {
    for (int b = 0; b <= a; ++b) {
      gram(a, b) = gram(b, a) = images[static_cast<size_t>(a)].dot(images[static_cast<size_t>(b)]);
    }
  }
  cv::Mat1d eigenvalues;
  cv::eigen(gram, eigenvalues);
  std::vector<double> values;
  for (const double eigenvalue : eigenvalues) {
    const double share = eigenvalues(0) > 0.0 ? eigenvalue / eigenvalues(0) : 0.0;
    values.push_back(std::sqrt(std::max(0.0, share)));
  }
  return values;
}

std::string Percent(double share) {
  char text[16];
  std::snprintf(text, sizeof text, "%.1f %%", 100.0 * share);
  return text;
}

void WarnOfExposure(const Exposure& exposure, const std::string& name,
                    std::vector<std::string>& warnings) {
  if (exposure.saturated_share > kManyPixels) {
    warnings.push_back(name + ": " + Percent(exposure.saturated_share) +
                       " of the pixels are saturated; expose shorter");
  }
  if (exposure.black_share > kManyPixels) {
    warnings.push_back(name + ": " + Percent(exposure.black_share) +
                       " of the pixels are black; light or expose more, or set a region");
  } else if (exposure.mean_level < kDarkMean) {
    warnings.push_back(name + ": too dark (mean level " +
                       std::to_string(std::lround(exposure.mean_level)) +
                       " of 255); light or expose more");
  }
}

}  // namespace

Diagnostics Diagnose(const std::vector<cv::Mat>& images, const std::vector<std::string>& names) {
  Diagnostics diagnostics;
  for (size_t k = 0; k < images.size(); ++k) {
    diagnostics.exposures.push_back(Measure(images[k]));
    WarnOfExposure(diagnostics.exposures.back(), names[k], diagnostics.warnings);
  }
  diagnostics.singular_values = SingularValues(images);
  if (diagnostics.singular_values[1] < kNoiseLevel) {
    diagnostics.warnings.emplace_back(
        "the images are too alike to show relief; light each from another direction");
  } else if (diagnostics.singular_values[2] < kNoiseLevel) {
    diagnostics.warnings.emplace_back(
        "the images are too alike to determine relief in two directions; place the lamps around "
        "the "
        "part, not along a line");
  }
  return diagnostics;
}

}  // namespace velostrix::cli
