// Whether a set of images is fit for reconstruction: exposure, and how different the lamps are.
#include "diagnostics.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <opencv2/core.hpp>

#include "scene/lamps.h"

namespace velostrix {
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

VelostrixExposure Measure(const cv::Mat& image) {
  const auto pixels = static_cast<double>(image.total());
  VelostrixExposure exposure = {};
  exposure.saturated_share = cv::countNonZero(image == 255) / pixels;
  exposure.black_share = cv::countNonZero(image == 0) / pixels;
  exposure.mean_level = cv::mean(image)[0];
  const bool is_dead = exposure.black_share > kDeadShare || exposure.mean_level < kDeadMean;
  exposure.is_dead = is_dead ? 1 : 0;
  exposure.equal_to = -1;
  return exposure;
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

// The first of the images before image b that has the same pixels; -1 when none has.
// ||a - b||^2 = a.a + b.b - 2 a.b
int FirstEqual(const cv::Mat1d& gram, int b) {
  for (int a = 0; a < b; ++a) {
    if (gram(a, a) + gram(b, b) - 2.0 * gram(a, b) == 0.0) return a;
  }
  return -1;
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
void MeasureRing(const std::vector<cv::Mat>& images, VelostrixDiagnostics* diagnostics) {
  const auto count = static_cast<int>(images.size());
  if (count == 3) return;
  cv::Mat usable(images.front().size(), CV_8UC1, cv::Scalar(255));
  for (const cv::Mat& image : images) usable &= (image > 0) & (image < 255);
  std::vector<cv::Mat> parts(images.size());
  for (size_t k = 0; k < images.size(); ++k) cv::bitwise_and(images[k], usable, parts[k]);
  const cv::Mat1d gram = Gram(parts);
  const double whole = cv::trace(gram)[0];
  if (whole <= 0.0) return;

  const std::vector<cv::Vec3f> ring = scene::PlaceLamps(scene::Lamps::kRing, count, 0);
  cv::Mat1d lamps;
  cv::Mat(ring).reshape(1).convertTo(lamps, CV_64F);
  const cv::Mat1d q = cv::SVD(lamps).u;
  cv::Mat1d eigenvalues;
  cv::eigen(gram, eigenvalues);
  const double by_ring = cv::trace(q.t() * gram * q)[0] / whole;
  const double by_any = cv::sum(eigenvalues.rowRange(0, 3))[0] / whole;
  diagnostics->unexplained_by_ring = std::sqrt(std::max(0.0, 1.0 - by_ring));
  diagnostics->unexplained_by_any = std::sqrt(std::max(0.0, 1.0 - by_any));
}

std::string Percent(double share) {
  char text[16];
  std::snprintf(text, sizeof text, "%.1f %%", 100.0 * share);
  return text;
}

void WarnOfExposure(const VelostrixExposure& exposure, const std::string& name,
                    std::vector<std::string>& warnings) {
  if (exposure.is_dead != 0) {
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

}  // namespace

std::vector<std::string> DiagnoseImages(const std::vector<cv::Mat>& images,
                                        const std::vector<std::string>& names, bool with_ring,
                                        VelostrixDiagnostics* diagnostics) {
  std::vector<std::string> warnings;
  const cv::Mat1d gram = Gram(images);
  diagnostics->image_count = gram.rows;
  for (size_t k = 0; k < images.size(); ++k) {
    VelostrixExposure& exposure = diagnostics->exposures[k];
    exposure = Measure(images[k]);
    exposure.equal_to = FirstEqual(gram, static_cast<int>(k));
    WarnOfExposure(exposure, names[k], warnings);
    if (exposure.equal_to >= 0 && exposure.is_dead == 0) {
      warnings.push_back(names[k] + ": equal to " + names[static_cast<size_t>(exposure.equal_to)] +
                         "; the camera or the lamps were not triggered anew");
    }
  }
  const std::vector<double> values = SingularValues(gram);
  std::copy(values.begin(), values.end(), diagnostics->singular_values);
  if (values[1] < kNoiseLevel) {
    warnings.emplace_back(
        "the images are too alike to show relief; light each from another direction");
  } else if (values[2] < kNoiseLevel) {
    warnings.emplace_back(
        "the images are too alike to determine relief in two directions; place the lamps around "
        "the part, not along a line");
  }
  diagnostics->unexplained_by_ring = diagnostics->unexplained_by_any = -1.0;
  if (with_ring) MeasureRing(images, diagnostics);
  const double by_ring = diagnostics->unexplained_by_ring;
  const double by_any = diagnostics->unexplained_by_any;
  if (by_ring * by_ring - by_any * by_any > kForeignLamps * kForeignLamps) {
    warnings.push_back(
        "the lamps are not those of the ring of the run cali, or in another order or brightness: " +
        Percent(by_ring) + " of the images does not fit; see the guide, or use the run uncali");
  }
  diagnostics->warning_count = static_cast<int32_t>(warnings.size());
  return warnings;
}

}  // namespace velostrix
