// Whether a set of images is fit for reconstruction: exposure, and how different the lamps are.
#include "apps/diagnostics.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <opencv2/core.hpp>

#include "scene/lamps.h"

namespace velostrix::cli {
namespace {

// Pixels without information pull the factorisation towards themselves; a few per cent do no harm.
constexpr double kManyPixels = 0.05;
// Below this mean, rounding to whole grey levels alone blurs slopes by more than a per cent.
constexpr double kDarkMean = 20.0;
// Sensor noise and rounding of well exposed images reach about this share of the first singular
// value.
constexpr double kNoiseLevel = 0.01;
// Without light, a sensor's offset and noise and a few hot or lit spots are left.
constexpr double kDeadShare = 0.95;
constexpr double kDeadMean = 2.0;
// Root mean square of what other lamps explain and the ring's do not; noise and gloss are beyond
// any lamps. On the sample scene under the ring at most 0.008 (noise to 8 levels, slopes to 1.5);
// with lamps elsewhere or in the ring's next order 0.044 and more, on a part with slopes of 0.1
// 0.013 and more.
constexpr double kForeignLamps = 0.02;

Exposure Measure(const cv::Mat& image) {
  const auto pixels = static_cast<double>(image.total());
  return {cv::countNonZero(image == 255) / pixels, cv::countNonZero(image == 0) / pixels,
          cv::mean(image)[0]};
}

// The images' inner products, which are exact.
cv::Mat1d Gram(const std::vector<cv::Mat>& images) {
  const auto count = static_cast<int>(images.size());
  cv::Mat1d gram(count, count);
  for (int a = 0; a < count; ++a) {
    for (int b = 0; b <= a; ++b) {
      gram(a, b) = gram(b, a) = images[static_cast<size_t>(a)].dot(images[static_cast<size_t>(b)]);
    }
  }
  return gram;
}

bool IsDead(const Exposure& exposure) {
  return exposure.black_share > kDeadShare || exposure.mean_level < kDeadMean;
}

// Square roots of the eigenvalues of the Gram matrix.
std::vector<double> SingularValues(const cv::Mat1d& gram) {
  cv::Mat1d eigenvalues;
  cv::eigen(gram, eigenvalues);
  std::vector<double> values;
  for (const double eigenvalue : eigenvalues) {
    const double share = eigenvalues(0) > 0.0 ? eigenvalue / eigenvalues(0) : 0.0;
    values.push_back(std::sqrt(std::max(0.0, share)));
  }
  return values;
}

// For the Gram matrix G of the images I (N x pixels) and orthonormal columns Q that span the lamps
// (N x 3), the least ||I - Q X||^2 over all X is trace G - trace Q'GQ.
std::optional<Diagnostics::Unexplained> MeasureRing(const std::vector<cv::Mat>& images) {
  const auto count = static_cast<int>(images.size());
  if (count == 3) return std::nullopt;
  cv::Mat usable(images.front().size(), CV_8UC1, cv::Scalar(255));
  for (const cv::Mat& image : images) usable &= (image > 0) & (image < 255);
  std::vector<cv::Mat> parts(images.size());
  for (size_t k = 0; k < images.size(); ++k) cv::bitwise_and(images[k], usable, parts[k]);
  const cv::Mat1d gram = Gram(parts);
  const double whole = cv::trace(gram)[0];
  if (whole <= 0.0) return std::nullopt;

  const std::vector<cv::Vec3f> ring = scene::PlaceLamps(scene::Lamps::kRing, count, 0);
  cv::Mat1d lamps;
  cv::Mat(ring).reshape(1).convertTo(lamps, CV_64F);
  const cv::Mat1d q = cv::SVD(lamps).u;
  cv::Mat1d eigenvalues;
  cv::eigen(gram, eigenvalues);
  const double by_ring = cv::trace(q.t() * gram * q)[0] / whole;
  const double by_any = cv::sum(eigenvalues.rowRange(0, 3))[0] / whole;
  return Diagnostics::Unexplained{std::sqrt(std::max(0.0, 1.0 - by_ring)),
                                  std::sqrt(std::max(0.0, 1.0 - by_any))};
}

std::string Percent(double share) {
  char text[16];
  std::snprintf(text, sizeof text, "%.1f %%", 100.0 * share);
  return text;
}

void WarnOfExposure(const Exposure& exposure, const std::string& name,
                    std::vector<std::string>& warnings) {
  if (IsDead(exposure)) {
    warnings.push_back(name + ": dark all over; its lamp is dead, or the lens is covered");
    return;
  }
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

// ||a - b||^2 = a.a + b.b - 2 a.b
void WarnOfEqualImages(const cv::Mat1d& gram, const std::vector<std::string>& names,
                       Diagnostics& diagnostics) {
  for (int b = 1; b < gram.rows; ++b) {
    if (IsDead(diagnostics.exposures[static_cast<size_t>(b)])) continue;
    for (int a = 0; a < b; ++a) {
      if (gram(a, a) + gram(b, b) - 2.0 * gram(a, b) != 0.0) continue;
      diagnostics.warnings.push_back(names[static_cast<size_t>(b)] + ": equal to " +
                                     names[static_cast<size_t>(a)] +
                                     "; the camera or the lamps were not triggered anew");
      break;
    }
  }
}

}  // namespace

Diagnostics Diagnose(const std::vector<cv::Mat>& images, const std::vector<std::string>& names,
                     bool with_ring) {
  Diagnostics diagnostics;
  for (size_t k = 0; k < images.size(); ++k) {
    diagnostics.exposures.push_back(Measure(images[k]));
    WarnOfExposure(diagnostics.exposures.back(), names[k], diagnostics.warnings);
  }
  const cv::Mat1d gram = Gram(images);
  WarnOfEqualImages(gram, names, diagnostics);
  diagnostics.singular_values = SingularValues(gram);
  if (diagnostics.singular_values[1] < kNoiseLevel) {
    diagnostics.warnings.emplace_back(
        "the images are too alike to show relief; light each from another direction");
  } else if (diagnostics.singular_values[2] < kNoiseLevel) {
    diagnostics.warnings.emplace_back(
        "the images are too alike to determine relief in two directions; place the lamps around "
        "the part, not along a line");
  }
  if (with_ring) diagnostics.unexplained = MeasureRing(images);
  if (const auto& u = diagnostics.unexplained;
      u && u->by_ring * u->by_ring - u->by_any * u->by_any > kForeignLamps * kForeignLamps) {
    diagnostics.warnings.push_back(
        "the lamps are not those of the ring of --run cali, or in another order or brightness: " +
        Percent(u->by_ring) + " of the images does not fit; see the guide, or use --run uncali");
  }
  return diagnostics;
}

}  // namespace velostrix::cli
