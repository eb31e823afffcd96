/// @file
/// Corrects uneven light by one image of a flat part under each lamp. Header-only, C++17.
#pragma once

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <opencv2/core.hpp>
#include <string>
#include <vector>

#include "velostrix/tool.hpp"

namespace velostrix {

/// The brightness of a flat part under one lamp, over the mean of all lamps, as a polynomial: the
/// coefficients of x^i y^j, i + j <= 4, in the order 1, y, .., y^4, x, x y, .., x^4. x and y go
/// from -1 to 1 across the image, whatever its size.
using FlatField = std::array<double, 15>;

namespace flat_field_detail {

constexpr int kDegree = 4;
/// No image is made more than ten times as bright.
constexpr float kDarkest = 0.1F;

inline double Coordinate(double pixel, int size) { return (2.0 * pixel + 1.0) / size - 1.0; }

/// The terms of the polynomial.
inline FlatField Terms(double x, double y) {
  FlatField terms = {};
  size_t k = 0;
  double x_power = 1.0;
  for (int i = 0; i <= kDegree; ++i, x_power *= x) {
    double term = x_power;
    for (int j = 0; i + j <= kDegree; ++j, term *= y) terms[k++] = term;
  }
  return terms;
}

inline double Median(std::vector<double> values) {
  const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
  std::nth_element(values.begin(), middle, values.end());
  return *middle;
}

/// Fits the polynomial to the levels of the reference, by the means of at most 64 x 64 blocks:
/// iterated least squares with the biweight (Beaton and Tukey 1974), which leaves out what does not
/// fit a smooth surface. The first half of the rounds weights by the inverse of the residual, so
/// that outliers do not decide where the biweight starts.
inline FlatField FitSurface(const cv::Mat& reference) {
  constexpr int kMostBlocks = 64;
  constexpr int kRounds = 20;
  constexpr double kTuning = 4.685 * 1.4826;  // of the median of the residuals
  constexpr double kExact = 1e-3;             // levels
  const int rows = std::min(kMostBlocks, reference.rows);
  const int cols = std::min(kMostBlocks, reference.cols);
  cv::Mat1d terms(rows * cols, static_cast<int>(FlatField().size()));
  cv::Mat1d levels(rows * cols, 1);
  for (int k = 0; k < levels.rows; ++k) {
    const auto cut = [](int block, int blocks, int size) {
      return static_cast<int>(int64_t{block} * size / blocks);
    };
    const cv::Range y(cut(k / cols, rows, reference.rows), cut(k / cols + 1, rows, reference.rows));
    const cv::Range x(cut(k % cols, cols, reference.cols), cut(k % cols + 1, cols, reference.cols));
    levels(k) = cv::mean(reference(y, x))[0];
    const FlatField term = Terms(Coordinate(0.5 * (x.start + x.end - 1), reference.cols),
                                 Coordinate(0.5 * (y.start + y.end - 1), reference.rows));
    std::copy(term.begin(), term.end(), terms[k]);
  }

  cv::Mat1d weights(levels.size(), 1.0);
  cv::Mat1d solution;
  std::vector<double> residuals(static_cast<size_t>(levels.rows));
  for (int round = 0; round < kRounds; ++round) {
    cv::Mat1d weighted = terms.clone();
    for (int k = 0; k < weighted.rows; ++k) weighted.row(k) *= weights(k);
    const cv::Mat normal = weighted.t() * terms;
    const cv::Mat right = weighted.t() * levels;
    cv::solve(normal, right, solution, cv::DECOMP_SVD);
    const cv::Mat1d fitted = cv::Mat(terms * solution);
    for (int k = 0; k < levels.rows; ++k) {
      residuals[static_cast<size_t>(k)] = std::abs(levels(k) - fitted(k));
    }
    const double scale = std::max(kExact, kTuning * Median(residuals));
    for (int k = 0; k < levels.rows; ++k) {
      const double r = residuals[static_cast<size_t>(k)] / scale;
      const double biweight = r < 1.0 ? (1.0 - r * r) * (1.0 - r * r) : 0.0;
      weights(k) = round < kRounds / 2 ? 1.0 / (1.0 / 16.0 + r) : biweight;
    }
  }
  FlatField surface;
  std::copy(solution.begin(), solution.end(), surface.begin());
  return surface;
}

}  // namespace flat_field_detail

/// Fits the flat fields that images of parts are divided by. references: one image of a flat, matt
/// part under each lamp, CV_8UC1, or CV_16UC1 with the level `white` as white. The fields are
/// smooth: stains and dust on the flat part have no effect. Throws Error for a reference that is
/// saturated or dark.
[[nodiscard]] inline std::vector<FlatField> FitFlat(const std::vector<cv::Mat>& references,
                                                    int white = 255) {
  constexpr double kMostSaturated = 0.05;  // of the pixels
  constexpr double kDarkest = 20.0 / 255.0;
  CheckCount(static_cast<int64_t>(references.size()));
  std::vector<FlatField> fields;
  double mean = 0.0;
  for (const cv::Mat& reference : references) {
    const std::string name = "reference " + std::to_string(fields.size() + 1);
    if (reference.empty() || (reference.type() != CV_8UC1 && reference.type() != CV_16UC1)) {
      throw Error(name + " is no grey image");
    }
    const int full = reference.depth() == CV_8U ? 255 : white;
    const double level = cv::mean(reference)[0] / full;
    const double saturated = cv::countNonZero(reference >= full);
    if (saturated > kMostSaturated * static_cast<double>(reference.total())) {
      throw Error(name + " of a flat part is saturated; expose it shorter");
    }
    if (level < kDarkest) throw Error(name + " of a flat part is dark; expose it longer");
    fields.push_back(flat_field_detail::FitSurface(reference));
    for (double& coefficient : fields.back()) coefficient /= full;
    mean += level / static_cast<double>(references.size());
  }
  for (FlatField& field : fields) {
    for (double& coefficient : field) coefficient /= mean;
  }
  return fields;
}

/// Divides an image (CV_8UC1 or CV_16UC1) by a flat field and converts it to 8 bits: level = sample
/// * 255 / white / field, rounded, at most 255. The white level of an 8-bit image is 255.
[[nodiscard]] inline cv::Mat Flatten(const cv::Mat& image, const FlatField& field,
                                     int white = 255) {
  using namespace flat_field_detail;
  const double scale = image.depth() == CV_8U ? 1.0 : 255.0 / white;
  cv::Mat levels(image.size(), CV_8U);
  cv::Mat1f brightness(1, image.cols);
  for (int i = 0; i < image.rows; ++i) {
    // With y fixed, a polynomial in x is left.
    const double y = Coordinate(i, image.rows);
    std::array<float, kDegree + 1> c = {};
    size_t k = 0;
    for (int p = 0; p <= kDegree; ++p) {
      double sum = 0.0;
      double y_power = 1.0;
      for (int q = 0; p + q <= kDegree; ++q, y_power *= y) sum += field[k++] * y_power;
      c[static_cast<size_t>(p)] = static_cast<float>(sum);
    }
    float* const b = brightness[0];
    for (int j = 0; j < image.cols; ++j) {
      const auto x = static_cast<float>(Coordinate(j, image.cols));
      b[j] = std::max(kDarkest, c[0] + x * (c[1] + x * (c[2] + x * (c[3] + x * c[4]))));
    }
    cv::divide(image.row(i), brightness, levels.row(i), scale, CV_8U);
  }
  return levels;
}

}  // namespace velostrix
