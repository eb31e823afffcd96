// The share of camera noise in the curvature image.
#include "curvature_noise.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>

namespace velostrix {
namespace {

// Larger slopes come from pixels that are too dark to divide by.
constexpr float kSteepest = 4.0F;

// The share of variance that remains in the difference of two pixels, one pixel apart, when white
// noise is smoothed by the Gaussian of a blur radius in both directions.
double LeftByBlur(int blur_radius) {
  if (blur_radius == 0) return 1.0;
  const double s = 2.0 * blur_radius / 3.0;
  const double sigma = 0.5 * std::sqrt((s + 2.0) * s);
  const auto weight = [&](int k) { return std::exp(-0.5 * k * k / (sigma * sigma)); };
  double sum = 0.0;
  for (int k = -blur_radius; k <= blur_radius; ++k) sum += weight(k);
  double along = 0.0;
  double across = 0.0;
  const auto at = [&](int k) { return std::abs(k) > blur_radius ? 0.0 : weight(k) / sum; };
  for (int k = -blur_radius - 1; k <= blur_radius + 1; ++k) {
    along += (at(k + 1) - at(k - 1)) * (at(k + 1) - at(k - 1)) / 2.0;
    across += at(k) * at(k);
  }
  return along * across;
}

}  // namespace

// The curvature image is P[j+1] - P[j-1] of the slope map P = x1 / x0, plus the same of Q = x2 / x0
// across the rows; noise of variance v has 2 v in each. v is measured by a filter that most relief
// does not pass: the mean of |M|, M = [1 -2 1; -2 4 -2; 1 -2 1] of a slope (Immerkaer 1996).
double NoiseOfCurvature(const std::vector<cv::Mat>& images, const cv::Mat1d& weights,
                        const cv::Mat1b& usable) {
  constexpr double kNormOfM = 6.0;
  constexpr int kPixels = 1000000;  // sampled in larger images
  const cv::Size size = usable.size();
  std::array<cv::Mat1f, 3> vectors;
  for (cv::Mat1f& rows : vectors) rows.create(3, size.width);
  const auto fill = [&](int i) {
    for (int v = 0; v < 3; ++v) {
      float* const vector = vectors[static_cast<size_t>(v)][i % 3];
      std::fill_n(vector, size.width, 0.0F);
      for (size_t k = 0; k < images.size(); ++k) {
        const auto weight = static_cast<float>(weights(static_cast<int>(k), v));
        const auto* levels = images[k].ptr<uint8_t>(i);
        for (int j = 0; j < size.width; ++j) vector[j] += weight * static_cast<float>(levels[j]);
      }
      if (v == 0) continue;
      for (int j = 0; j < size.width; ++j) {
        vector[j] = std::clamp(vector[j] / vectors[0](i % 3, j), -kSteepest, kSteepest);
      }
    }
  };
  double whole = 0.0;
  std::array<double, 2> bends = {};
  int64_t count = 0;
  for (int i = 1; i < size.height - 1; i += std::max(1, size.area() / kPixels)) {
    for (int row = i - 1; row <= i + 1; ++row) fill(row);
    for (int j = 1; j < size.width - 1; ++j) {
      bool counts = true;
      for (int row = i - 1; row <= i + 1; ++row) {
        counts = counts && usable(row, j - 1) && usable(row, j) && usable(row, j + 1);
      }
      if (!counts) continue;
      ++count;
      for (size_t k = 0; k < bends.size(); ++k) {
        const cv::Mat1f& slope = vectors[k + 1];
        const float* above = slope[(i - 1) % 3] + j;
        const float* here = slope[i % 3] + j;
        const float* below = slope[(i + 1) % 3] + j;
        const float m = above[-1] - 2.0F * above[0] + above[1] - 2.0F * here[-1] + 4.0F * here[0] -
                        2.0F * here[1] + below[-1] - 2.0F * below[0] + below[1];
        const float difference = k == 0 ? here[1] - here[-1] : below[0] - above[0];
        bends[k] += double{std::abs(m)};
        whole += double{difference} * double{difference};
      }
    }
  }
  if (count == 0 || !(whole > 0.0)) return -1.0;
  double noise = 0.0;
  for (const double bend : bends) {
    const double deviation = std::sqrt(CV_PI / 2.0) / kNormOfM * bend / static_cast<double>(count);
    noise += 2.0 * deviation * deviation;
  }
  return std::min(1.0, noise / (whole / static_cast<double>(count)));
}

double NoiseAfterBlur(double share, int blur_radius) {
  const double noise = share * LeftByBlur(blur_radius);
  return noise / (noise + 1.0 - share);
}

int CalmingRadius(double share) {
  constexpr double kCalm = 0.25;
  constexpr int kLargest = 10;
  int radius = 1;
  while (radius < kLargest && NoiseAfterBlur(share, radius) > kCalm) ++radius;
  return radius;
}

}  // namespace velostrix
