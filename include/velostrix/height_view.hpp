/// @file
/// Views of a height: 8-bit images for display, without tilt, bowl and border. Header-only, C++17.
#pragma once

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <limits>
#include <opencv2/core.hpp>
#include <string>
#include <vector>

#include "velostrix/tool.hpp"

namespace velostrix {

/// The surface, fitted by least squares, that a view subtracts.
enum class Surface {
  kPlane,     ///< a tilt
  kQuadratic  ///< a tilt and a bowl, as lamps near the part cause
};

/// The names on the command line and in other languages.
inline constexpr std::array<const char*, 2> kSurfaceNames = {"plane", "quadratic"};

/// A view, and what its levels mean. Unit of heights: levels of the 16-bit image above the surface.
struct HeightView {
  cv::Mat image;    ///< CV_8UC1
  Surface removed;  ///< what was subtracted from the height
  int border;       ///< pixels on each side that surface and range were measured without
  double black;     ///< the height that level 0 shows
  double white;     ///< the height that level 255 shows
};

/// How many pixels the border of a height reaches into the image: one pixel of the working size for
/// each step of the solver.
[[nodiscard]] inline int HeightBorder(const Parameters& parameters) {
  constexpr int kMost = std::numeric_limits<int>::max();
  if (parameters.iteration_cap < 0) return kMost;
  return static_cast<int>(std::min<double>(kMost, parameters.iteration_cap / parameters.scale));
}

namespace height_view_detail {

/// The surface's terms among 1, x, y, x^2, x y, y^2, others 0; x and y from -1 to 1.
inline std::array<double, 6> Terms(double x, double y, Surface surface) {
  if (surface == Surface::kPlane) return {1.0, x, y, 0.0, 0.0, 0.0};
  return {1.0, x, y, x * x, x * y, y * y};
}

inline double Coordinate(int pixel, int size) { return (2.0 * pixel + 1.0) / size - 1.0; }

}  // namespace height_view_detail

/// Makes a view of a height (CV_16UC1): 8 bits, without tilt or bowl; all but the outermost half
/// percent on each side fill the levels. Surface and range are measured inside a border, as a
/// height of few iterations has at the top and the left (HeightBorder); at most an eighth of the
/// shorter side is left out. mask: CV_8UC1, as large; pixels where it is 0 are left out too, and
/// black; or empty.
[[nodiscard]] inline HeightView ViewHeight(const cv::Mat& height, Surface removed, int border,
                                           const cv::Mat& mask = {}) {
  using namespace height_view_detail;
  constexpr int kMostShare = 8;
  constexpr int kMostSamples = 400;  // in a row or column
  constexpr double kOutermost = 0.005;
  if (height.empty() || height.type() != CV_16UC1)
    throw Error("the height is no 16-bit grey image");
  if (!mask.empty() && (mask.type() != CV_8UC1 || mask.size() != height.size()))
    throw Error("the mask is no 8-bit grey image as large as the height");
  const auto is_kept = [&](int i, int j) { return mask.empty() || mask.at<uint8_t>(i, j) != 0; };
  const int shorter = std::min(height.rows, height.cols);
  HeightView view = {{}, removed, std::clamp(border, 0, shorter / kMostShare), 0.0, 0.0};
  const int step_y = std::max(1, height.rows / kMostSamples);
  const int step_x = std::max(1, height.cols / kMostSamples);
  const auto visit_samples = [&](const auto& visit) {
    for (int i = view.border; i < height.rows - view.border; i += step_y) {
      for (int j = view.border; j < height.cols - view.border; j += step_x) {
        if (!is_kept(i, j)) continue;
        visit(Terms(Coordinate(j, height.cols), Coordinate(i, height.rows), removed),
              height.at<uint16_t>(i, j));
      }
    }
  };

  // Least squares: (sum t t') s = sum t h over the samples with terms t and height h.
  cv::Matx<double, 6, 6> normal = cv::Matx<double, 6, 6>::zeros();
  cv::Vec<double, 6> right;
  visit_samples([&](const std::array<double, 6>& terms, double sample) {
    const cv::Vec<double, 6> t(terms.data());
    normal += t * t.t();
    right += t * sample;
  });
  const cv::Vec<double, 6> surface = normal.solve(right, cv::DECOMP_SVD);

  std::vector<double> heights;
  visit_samples([&](const std::array<double, 6>& terms, double sample) {
    heights.push_back(sample - cv::Vec<double, 6>(terms.data()).dot(surface));
  });
  if (heights.empty()) heights = {0.0};  // nothing is kept
  const auto rank = [&](double share) {
    const auto place =
        heights.begin() + std::lround(share * static_cast<double>(heights.size() - 1));
    std::nth_element(heights.begin(), place, heights.end());
    return *place;
  };
  view.black = rank(kOutermost);
  view.white = std::max(view.black + 1.0, rank(1.0 - kOutermost));

  view.image.create(height.size(), CV_8UC1);
  const double gain = 255.0 / (view.white - view.black);
  for (int i = 0; i < height.rows; ++i) {
    // h - s(x, y) with s = a + b x + c x^2 in this row.
    const double y = Coordinate(i, height.rows);
    const double a = surface[0] + surface[2] * y + surface[5] * y * y + view.black;
    const double b = surface[1] + surface[4] * y;
    const auto* const from = height.ptr<uint16_t>(i);
    auto* const to = view.image.ptr<uint8_t>(i);
    for (int j = 0; j < height.cols; ++j) {
      const double x = Coordinate(j, height.cols);
      const double level = (from[j] - (a + x * (b + x * surface[3]))) * gain;
      to[j] = is_kept(i, j) ? cv::saturate_cast<uint8_t>(level) : 0;
    }
  }
  return view;
}

}  // namespace velostrix
