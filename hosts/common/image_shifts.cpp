// The shifts between images of one scene, by phase correlation (Kuglin and Hines 1975) of the
// strength of their gradients. The direction of a gradient depends on the lamp and is not used; its
// strength depends on the light and is evened out.
#include "image_shifts.h"

#include <algorithm>
#include <cmath>
#include <opencv2/core.hpp>
#include <optional>

#include "velostrix/upright.hpp"

namespace velostrix {
namespace {

// The images are reduced to about this many blocks along the longer side.
constexpr int kBlocks = 320;
constexpr int kSmallestSide = 16;  // blocks
// Gradients below this level count as zero.
constexpr float kNoGradient = 1.0F;
// Half the side of the neighbourhood by which gradients are evened out.
constexpr int kSurroundings = 8;
// The peak in standard deviations of the correlation: noise reaches 6, images of one scene 60.
constexpr double kClearPeak = 12.0;

// The means over the neighbourhood of every place, along the columns.
cv::Mat1f MeansAlongColumns(const cv::Mat1f& map) {
  cv::Mat1f means(map.size());
  for (int j = 0; j < map.cols; ++j) {
    std::vector<double> sums(static_cast<size_t>(map.rows) + 1, 0.0);
    for (int i = 0; i < map.rows; ++i) {
      sums[static_cast<size_t>(i) + 1] = sums[static_cast<size_t>(i)] + double{map(i, j)};
    }
    for (int i = 0; i < map.rows; ++i) {
      const auto first = static_cast<size_t>(std::max(0, i - kSurroundings));
      const auto end = static_cast<size_t>(std::min(map.rows, i + kSurroundings + 1));
      means(i, j) =
          static_cast<float>((sums[end] - sums[first]) / static_cast<double>(end - first));
    }
  }
  return means;
}

cv::Mat1f Surroundings(const cv::Mat1f& map) {
  cv::Mat1f turned;
  cv::Mat1f means;
  cv::transpose(MeansAlongColumns(map), turned);
  cv::transpose(MeansAlongColumns(turned), means);
  return means;
}

float Hann(int at, int count) {
  return static_cast<float>(0.5 - 0.5 * std::cos(2.0 * CV_PI * (at + 0.5) / count));
}

// The spectrum of the evened out gradients.
cv::Mat2f Spectrum(const cv::Mat& image, int block, const cv::Mat1f& in_mask) {
  const cv::Mat1f levels = upright_detail::BlockMeans(image, block);
  cv::Mat1f strength(levels.size(), 0.0F);
  for (int i = 1; i < levels.rows - 1; ++i) {
    for (int j = 1; j < levels.cols - 1; ++j) {
      const bool is_inside =
          in_mask.empty() || (in_mask(i, j - 1) == 255.0F && in_mask(i, j + 1) == 255.0F &&
                              in_mask(i - 1, j) == 255.0F && in_mask(i + 1, j) == 255.0F);
      if (!is_inside) continue;
      strength(i, j) =
          std::hypot(levels(i, j + 1) - levels(i, j - 1), levels(i + 1, j) - levels(i - 1, j));
    }
  }
  strength /= Surroundings(strength) + kNoGradient;
  strength -= Surroundings(strength);
  cv::Mat1f padded(cv::getOptimalDFTSize(levels.rows), cv::getOptimalDFTSize(levels.cols), 0.0F);
  for (int i = 0; i < levels.rows; ++i) {
    for (int j = 0; j < levels.cols; ++j) {
      padded(i, j) = strength(i, j) * Hann(i, levels.rows) * Hann(j, levels.cols);
    }
  }
  cv::Mat2f spectrum;
  cv::dft(padded, spectrum, cv::DFT_COMPLEX_OUTPUT);
  return spectrum;
}

// Where a parabola through three neighbours has its peak, from the middle one.
double Peak(float before, float at, float after) {
  const double bend = 2.0 * double{at} - double{before} - double{after};
  return bend > 0.0 ? 0.5 * (double{after} - double{before}) / bend : 0.0;
}

// The place of the peak in blocks, when it is clear.
std::optional<cv::Point2d> ShiftBetween(const cv::Mat2f& a, const cv::Mat2f& b) {
  cv::Mat2f product;
  cv::mulSpectrums(a, b, product, 0, true);
  for (int i = 0; i < product.rows; ++i) {
    const double fall = 0.5 + 0.5 * std::cos(2.0 * CV_PI * i / product.rows);
    for (int j = 0; j < product.cols; ++j) {
      cv::Vec2f& value = product(i, j);
      const double norm = std::hypot(double{value[0]}, double{value[1]});
      // Only phases count; high frequencies count less.
      const double smooth = fall * (0.5 + 0.5 * std::cos(2.0 * CV_PI * j / product.cols));
      value *= norm > 0.0 ? static_cast<float>(smooth / norm) : 0.0F;
    }
  }
  cv::Mat1f correlation;
  cv::dft(product, correlation, cv::DFT_INVERSE | cv::DFT_REAL_OUTPUT | cv::DFT_SCALE);
  cv::Scalar mean;
  cv::Scalar deviation;
  cv::meanStdDev(correlation, mean, deviation);
  double largest = 0.0;
  cv::Point at;
  cv::minMaxLoc(correlation, nullptr, &largest, nullptr, &at);
  if (!(largest - mean[0] > kClearPeak * deviation[0])) return std::nullopt;
  const int rows = correlation.rows;
  const int cols = correlation.cols;
  const auto value = [&](int i, int j) {
    return correlation((i + rows) % rows, (j + cols) % cols);
  };
  const float top = value(at.y, at.x);
  const double x = at.x + Peak(value(at.y, at.x - 1), top, value(at.y, at.x + 1));
  const double y = at.y + Peak(value(at.y - 1, at.x), top, value(at.y + 1, at.x));
  return cv::Point2d(x > cols / 2.0 ? x - cols : x, y > rows / 2.0 ? y - rows : y);
}

double Median(std::vector<double> values) {
  const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
  std::nth_element(values.begin(), middle, values.end());
  return *middle;
}

}  // namespace

std::vector<double> ImageShifts(const std::vector<cv::Mat>& images, const cv::Mat& mask) {
  std::vector<double> shifts(images.size(), -1.0);
  const cv::Size size = images.front().size();
  const int block = std::max(1, (std::max(size.width, size.height) + kBlocks - 1) / kBlocks);
  if (std::min(size.width, size.height) / block < kSmallestSide) return shifts;
  const cv::Mat1f in_mask =
      mask.empty() ? cv::Mat1f() : upright_detail::BlockMeans(mask != 0, block);

  const cv::Mat2f first = Spectrum(images.front(), block, in_mask);
  std::vector<cv::Point2d> places = {{0.0, 0.0}};
  std::vector<size_t> indices = {0};
  for (size_t k = 1; k < images.size(); ++k) {
    const auto place = ShiftBetween(first, Spectrum(images[k], block, in_mask));
    if (!place) continue;
    places.push_back(*place);
    indices.push_back(k);
  }
  if (places.size() < 2) return shifts;
  std::vector<double> x;
  std::vector<double> y;
  for (const cv::Point2d& place : places) {
    x.push_back(place.x);
    y.push_back(place.y);
  }
  const cv::Point2d most(Median(x), Median(y));
  for (size_t k = 0; k < places.size(); ++k) {
    shifts[indices[k]] = block * cv::norm(places[k] - most);
  }
  return shifts;
}

}  // namespace velostrix
