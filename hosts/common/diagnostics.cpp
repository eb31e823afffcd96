// Whether a set of images is fit for reconstruction: exposure, how different the lamps are, and
// whether anything moved.
#include "diagnostics.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <functional>
#include <opencv2/core.hpp>

#include "curvature_noise.h"
#include "image_shifts.h"
#include "scene/lamps.h"

namespace velostrix {
namespace {

// Saturated and black pixels distort the factorisation; a few per cent do no harm.
constexpr double kManyPixels = 0.05;
// Below this mean level, rounding to whole grey levels costs more than a per cent of the slopes.
constexpr double kDarkMean = 20.0;
// Noise and rounding of well exposed images have about this share of the first singular value.
constexpr double kNoiseLevel = 0.01;
// Without light, only a sensor's offset and noise and a few bright spots are left.
constexpr double kDeadShare = 0.95;
constexpr double kDeadMean = 2.0;
// The limit of what the ring leaves unexplained over what lamps anywhere leave unexplained; noise,
// shadows and gloss are in both. Under the ring at most 1.03 on the sample scene (noise up to 8
// levels, slopes up to 1.5) and 1.0 on photographs; with lamps elsewhere at least 1.55.
constexpr double kForeignLamps = 1.25;
// Less than this is rounding.
constexpr double kRingRounding = 0.002;
// The limit of the third singular value over the fourth: values of noise, shadows and gloss are
// similar, relief in a second direction lies above them.
constexpr double kAboveNoise = 1.2;
// Below this the last singular value is rounding of sums: an image is a mixture of the others.
constexpr double kNothing = 1e-5;
// Pixels; smaller shifts cannot be measured.
constexpr double kMoved = 2.0;
constexpr double kNoisyCurvature = 0.5;

VelostrixExposure Measure(const cv::Mat& image, const cv::Mat& inside) {
  const auto pixels = static_cast<double>(std::max(1, cv::countNonZero(inside)));
  VelostrixExposure exposure = {};
  exposure.saturated_share = cv::countNonZero((image == 255) & inside) / pixels;
  exposure.black_share = cv::countNonZero((image == 0) & inside) / pixels;
  exposure.mean_level = cv::mean(image, inside)[0];
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

// Square roots of the eigenvalues of a Gram matrix, the first scaled to 1.
std::vector<double> SingularValues(const cv::Mat1d& eigenvalues) {
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

// "12.0 %", or "12.0 to 30.5 %".
std::string PercentRange(double least, double most) {
  std::string text = Percent(most);
  if (Percent(least) == text) return text;
  const std::string low = Percent(least);
  return low.substr(0, low.size() - 2) + " to " + text;
}

using Strings = std::vector<std::string>;

// One warning for several images: their number, the name of the worst one, and the range.
void WarnOfShares(const VelostrixDiagnostics& d, const Strings& names,
                  double VelostrixExposure::*share, const char* what, Strings& warnings) {
  double least = 1.0;
  double most = 0.0;
  size_t worst = 0;
  int count = 0;
  for (size_t k = 0; k < names.size(); ++k) {
    const VelostrixExposure& exposure = d.exposures[k];
    if (exposure.is_dead != 0 || exposure.*share <= kManyPixels) continue;
    ++count;
    least = std::min(least, exposure.*share);
    if (exposure.*share > most) worst = k;
    most = std::max(most, exposure.*share);
  }
  if (count == 0) return;
  const std::string who =
      count == 1 ? names[worst] : std::to_string(count) + " images, most of all " + names[worst];
  warnings.push_back(who + ": " + PercentRange(least, most) + what);
}

void WarnOfExposures(const VelostrixDiagnostics& d, const Strings& names, Strings& warnings) {
  double darkest = kDarkMean;
  size_t which = names.size();
  for (size_t k = 0; k < names.size(); ++k) {
    const VelostrixExposure& exposure = d.exposures[k];
    if (exposure.is_dead != 0) {
      warnings.push_back(names[k] + ": dark all over; its lamp is dead, or the lens is covered");
      continue;
    }
    if (exposure.equal_to >= 0) {
      warnings.push_back(names[k] + ": equal to " + names[static_cast<size_t>(exposure.equal_to)] +
                         "; the camera or the lamps were not triggered again");
    }
    if (exposure.black_share <= kManyPixels && exposure.mean_level < darkest) {
      darkest = exposure.mean_level;
      which = k;
    }
  }
  WarnOfShares(d, names, &VelostrixExposure::saturated_share,
               " of the pixels are saturated; expose shorter", warnings);
  WarnOfShares(d, names, &VelostrixExposure::black_share,
               " of the pixels are black; light or expose more, or set a region or a mask",
               warnings);
  if (which < names.size()) {
    warnings.push_back(names[which] + ": too dark (mean level " +
                       std::to_string(std::lround(darkest)) + " of 255); light or expose more");
  }
}

// Warns when lamps are too alike; values as in the record.
void WarnOfLamps(const VelostrixDiagnostics& d, Strings& warnings) {
  const double* const values = d.singular_values;
  const int count = d.image_count;
  bool is_one_missing = false;  // already warned of
  for (int k = 0; k < count; ++k) {
    is_one_missing = is_one_missing || d.exposures[k].is_dead != 0 || d.exposures[k].equal_to >= 0;
  }
  if (values[1] < kNoiseLevel) {
    warnings.emplace_back(
        "the images are too alike to show relief; light each from another direction");
  } else if (values[2] < kNoiseLevel ||
             (count > 3 && values[3] > 0.0 && values[2] < kAboveNoise * values[3])) {
    std::string text =
        "the images are too alike to determine relief in two directions; place the lamps around "
        "the part, not along a line";
    if (values[2] >= kNoiseLevel) {
      text =
          "relief in a second direction is no stronger than noise, shadows and gloss (third "
          "singular value " +
          Percent(values[2]) + ", fourth " + Percent(values[3]) +
          "); place the lamps around the part, not along a line";
    }
    warnings.push_back(text);
  }
  if (!is_one_missing && values[0] > 0.0 && values[count - 1] < kNothing) {
    warnings.emplace_back(
        "one image is a mixture of the others, such as a grey copy of colour channels; give each "
        "lamp an image of its own");
  }
}

void WarnOfMotion(const VelostrixDiagnostics& d, const Strings& names, Strings& warnings) {
  const double* const farthest = std::max_element(d.shifts, d.shifts + d.image_count);
  if (*farthest < kMoved) return;
  const auto count = std::count_if(d.shifts, d.shifts + d.image_count,
                                   [](double shift) { return shift >= kMoved; });
  const std::string others =
      count == 1 ? "" : " (and " + std::to_string(count - 1) + " more images less)";
  warnings.push_back(names[static_cast<size_t>(farthest - d.shifts)] + ": moved by " +
                     std::to_string(std::lround(*farthest)) + " pixels against most images" +
                     others + "; part and camera have to stay where they are from lamp to lamp");
}

// The rows or columns of the last piece of a partial run; 0 for other runs and frames of one piece.
int LastPiece(cv::Size size, const Parameters& p) {
  const int band = std::max(p.band, VELOSTRIX_SMALLEST_BAND + 0);
  const int whole = p.run == Run::kPartRows   ? size.height
                    : p.run == Run::kPartCols ? size.width
                                              : 0;
  if (whole <= band) return 0;
  return (whole - 1) % band + 1;
}

void WarnOfLastPiece(cv::Size size, const Parameters& p, int last, Strings& warnings) {
  const int band = std::max(p.band, VELOSTRIX_SMALLEST_BAND + 0);
  if (last == 0 || 2 * last >= band) return;
  // The band that gives as many equal pieces, or one less.
  const int whole = p.run == Run::kPartRows ? size.height : size.width;
  const int pieces = (whole + band / 2) / band;
  const int better = (whole + pieces - 1) / pieces;
  const char* const what = p.run == Run::kPartRows ? " rows" : " columns";
  warnings.push_back("the last piece has " + std::to_string(last) + what + " of " +
                     std::to_string(band) + ", too few to be like the others; use a band of " +
                     std::to_string(better));
}

}  // namespace

std::vector<std::string> DiagnoseImages(const std::vector<cv::Mat>& given,
                                        const std::vector<std::string>& names,
                                        const Parameters& parameters, const cv::Mat& given_mask,
                                        VelostrixDiagnostics* diagnostics) {
  VelostrixDiagnostics& d = *diagnostics;
  if (!given_mask.empty() && given_mask.size() != given.front().size()) {
    throw Error("the mask has " + tool_detail::Text(given_mask.size()) + ", the images have " +
                tool_detail::Text(given.front().size()) + "; expected one size");
  }
  std::vector<cv::Mat> images = given;
  cv::Mat mask = given_mask;
  if (parameters.region) {
    for (cv::Mat& image : images) image = image(*parameters.region);
    if (!mask.empty()) mask = mask(*parameters.region);
  }
  cv::Mat inside(images.front().size(), CV_8UC1, cv::Scalar(255));
  if (!mask.empty()) {
    inside = mask != 0;
    for (cv::Mat& image : images) {
      cv::Mat masked;  // assigned in place, the caller's pixels would change
      cv::bitwise_and(image, inside, masked);
      image = masked;
    }
  }

  const cv::Mat1d gram = Gram(images);
  d.image_count = gram.rows;
  for (size_t k = 0; k < images.size(); ++k) {
    d.exposures[k] = Measure(images[k], inside);
    d.exposures[k].equal_to = FirstEqual(gram, static_cast<int>(k));
  }
  cv::Mat1d eigenvalues;
  cv::Mat1d eigenvectors;
  cv::eigen(gram, eigenvalues, eigenvectors);
  const std::vector<double> values = SingularValues(eigenvalues);
  std::copy(values.begin(), values.end(), d.singular_values);
  d.unexplained_by_ring = d.unexplained_by_any = -1.0;
  if (parameters.run == Run::kCalibrated) MeasureRing(images, diagnostics);
  const std::vector<double> shifts = ImageShifts(images, mask);
  std::copy(shifts.begin(), shifts.end(), d.shifts);
  const cv::Size working = WorkingSize(given.front().size(), parameters);
  d.last_piece = LastPiece(working, parameters);

  // The slopes of the factorisation: its vectors have unit length.
  d.noise_share = -1.0;
  double noise = -1.0;
  if (values[2] > kNothing && parameters.scale >= VELOSTRIX_SCALED_BELOW) {
    cv::Mat1d weights(gram.rows, 3);
    for (int v = 0; v < 3; ++v)
      weights.col(v) = eigenvectors.row(v).t() / values[static_cast<size_t>(v)];
    double level = 0.0;
    cv::Mat brightest = images.front().clone();
    for (const cv::Mat& image : images) {
      level += cv::mean(image, inside)[0] / gram.rows;
      cv::max(brightest, image, brightest);
    }
    constexpr double kDark = 0.1;  // of the mean level: slopes there are only noise
    cv::Mat1b usable;
    cv::bitwise_and(brightest > kDark * level, brightest < 255, usable);
    noise = NoiseOfCurvature(images, weights, usable);
    if (noise >= 0.0) d.noise_share = NoiseAfterBlur(noise, parameters.blur_radius);
  }

  std::vector<std::string> warnings;
  WarnOfExposures(d, names, warnings);
  WarnOfLamps(d, warnings);
  WarnOfMotion(d, names, warnings);
  const double by_ring = d.unexplained_by_ring;
  if (by_ring > kForeignLamps * d.unexplained_by_any && by_ring > kRingRounding) {
    warnings.push_back(
        "the lamps are not those of the ring of the run cali, or in another order or brightness: " +
        Percent(by_ring) + " of the images does not fit, under any lamps " +
        Percent(d.unexplained_by_any) + "; see the guide, or use the run uncali");
  }
  if (d.noise_share > kNoisyCurvature) {
    warnings.push_back(Percent(d.noise_share) +
                       " of the curvature image is noise; use blur_radius " +
                       std::to_string(CalmingRadius(noise)) + " or a scale of 0.5, or expose more");
  }
  WarnOfLastPiece(working, parameters, d.last_piece, warnings);
  d.warning_count = static_cast<int32_t>(warnings.size());
  return warnings;
}

}  // namespace velostrix
