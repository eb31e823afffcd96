/// @file
/// C++ hosts: how the slopes of an uncalibrated run lie on the scene, and the order of pixels that
/// puts them right. Header-only, C++17; tool.hpp uses it for Parameters::orientation.
///
/// An uncalibrated run knows the slopes up to a turn in the picture plane, a mirroring and a sign.
/// With x to the right and y up its channels 0 and 1 are the complex field
///   g = P + i Q = e^(i turn) (dz/dx + i dz/dy)    or, mirrored, the conjugate of this.
/// For the slopes of a surface div + i curl = e^(i turn) (d2z/dx2 + d2z/dy2): at every pixel a real
/// number times one direction, whatever the turn. In mirrored slopes div and curl have no common
/// direction. So the smaller eigenvalue of their covariance matrix, as a share of both, is near 0
/// for one of g and its conjugate and near 1/2 for the other, which tells whether g is mirrored;
/// the larger one's eigenvector is the turn, up to the sign. (That slopes of a surface have no curl
/// settles what shading leaves open: Yuille and Snow 1997.) Sign and, where curl says nothing, turn
/// come from a lamp whose direction is known: parts that face it are bright.
#pragma once

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <opencv2/core.hpp>
#include <optional>
#include <vector>

namespace velostrix {

/// From where one lamp shines, roughly.
struct LampHint {
  int image = 0;         ///< index of the image that it lights
  double degrees = 0.0;  ///< in the picture: 0 from the right, 90 from above, 180 from the left
};

/// How slopes lie on the scene, and what puts results right.
struct OrientationFound {
  /// Of the derivatives of the slopes, as they are and mirrored, the share (0 to 1/2) that is no
  /// surface's whatever the turn: near 0 for slopes of a surface. Negative: not measured.
  ///@{
  double curl_as_is = -1.0;
  double curl_mirrored = -1.0;
  bool is_clear = false;     ///< these differ enough to tell
  bool is_mirrored = false;  ///< slopes were mirrored: the run was repeated on flipped images
  bool is_turned = false;  ///< by about a quarter: channels changed places, images were transposed
  bool is_inverted = false;  ///< slopes had the opposite sign: height and slopes were negated
  bool is_sign_open = true;  ///< bumps and dents may have changed places: no lamp's direction known
  /// curvature is that of mirrored slopes, where it shows more
  bool has_mirrored_curvature = false;
  double turn = 0.0;  ///< degrees, counterclockwise, that the slopes stay turned by: -45 to 45, or
                      ///< -90 to 90 where images are not transposed
  ///@}
};

namespace upright_detail {

/// Slopes of pilot runs as bytes: four times the usual slope fits, rounding is far below noise.
///@{
constexpr double kPilotGain = 32.0;
constexpr int kPilotOffset = 128;
///@}

/// The means over square blocks of pixels; of those that the mask has, if there is one.
inline cv::Mat1f BlockMeans(const cv::Mat& image, int block, const cv::Mat& mask = {}) {
  cv::Mat1f means(image.rows / block, image.cols / block);
  std::vector<int> sums(static_cast<size_t>(means.cols));
  std::vector<int> counts(sums.size());
  for (int bi = 0; bi < means.rows; ++bi) {
    std::fill(sums.begin(), sums.end(), 0);
    std::fill(counts.begin(), counts.end(), mask.empty() ? block * block : 0);
    for (int i = bi * block; i < (bi + 1) * block; ++i) {
      const auto* row = image.ptr<uint8_t>(i);
      const auto* in_mask = mask.empty() ? nullptr : mask.ptr<uint8_t>(i);
      for (size_t bj = 0; bj < sums.size(); ++bj) {
        for (size_t j = bj * static_cast<size_t>(block), end = j + static_cast<size_t>(block);
             j < end; ++j) {
          const bool counts_here = in_mask == nullptr || in_mask[j] != 0;
          sums[bj] += counts_here ? row[j] : 0;
          if (in_mask != nullptr) counts[bj] += counts_here ? 1 : 0;
        }
      }
    }
    for (size_t bj = 0; bj < sums.size(); ++bj) {
      means(bi, static_cast<int>(bj)) =
          static_cast<float>(sums[bj]) / static_cast<float>(std::max(1, counts[bj]));
    }
  }
  return means;
}

/// Weights 1 2 1 along rows and columns; the edge stays as it is.
inline cv::Mat1f Smoothed(const cv::Mat1f& map) {
  cv::Mat1f rows = map.clone();
  for (int i = 0; i < map.rows; ++i) {
    for (int j = 1; j < map.cols - 1; ++j) {
      rows(i, j) = 0.25F * (map(i, j - 1) + 2.0F * map(i, j) + map(i, j + 1));
    }
  }
  cv::Mat1f both = rows.clone();
  for (int i = 1; i < map.rows - 1; ++i) {
    for (int j = 0; j < map.cols; ++j) {
      both(i, j) = 0.25F * (rows(i - 1, j) + 2.0F * rows(i, j) + rows(i + 1, j));
    }
  }
  return both;
}

/// Means of products of two quantities a and b.
struct Covariance {
  double aa = 0.0;
  double ab = 0.0;
  double bb = 0.0;

  void Add(double a, double b) {
    aa += a * a;
    ab += a * b;
    bb += b * b;
  }
  /// Of the smaller eigenvalue in the sum of both.
  double SmallerShare() const {
    const double sum = aa + bb;
    return sum > 0.0 ? 0.5 - 0.5 * std::sqrt((aa - bb) * (aa - bb) + 4.0 * ab * ab) / sum : 0.5;
  }
  /// Of the larger one's eigenvector, in degrees, -90 to 90.
  double Direction() const { return 0.5 * std::atan2(2.0 * ab, aa - bb) * 180.0 / CV_PI; }
};

/// Sums over the blocks of a field and of its conjugate: div and curl; and the differences of the
/// two derivatives that div and curl are the sums of.
struct FieldSums {
  Covariance div_curl;
  double hyperbolic_along = 0.0;   ///< (dg0/dx - dg1/dy)^2
  double hyperbolic_across = 0.0;  ///< (dg1/dx + dg0/dy)^2
};

/// The angle as one of (-180, 180].
inline double Wrapped(double degrees) { return degrees - 360.0 * std::ceil(degrees / 360.0 - 0.5); }

}  // namespace upright_detail

/// Measures how slopes lie on the scene. channel0, channel1: those of a run, CV_8UC1, by the pilot
/// gain and offset. images: those of the run, as large, CV_8UC1. may_turn: whether images may be
/// transposed. mask: as large, CV_8UC1, pixels to leave out are 0; or empty.
[[nodiscard]] inline OrientationFound MeasureOrientation(const cv::Mat& channel0,
                                                         const cv::Mat& channel1,
                                                         const std::vector<cv::Mat>& images,
                                                         const std::optional<LampHint>& lamp,
                                                         bool may_turn, const cv::Mat& mask = {}) {
  using namespace upright_detail;
  constexpr int kLargestBlock = 8;      // with the smoothing: sigma 6 pixels
  constexpr int kFewestBlocks = 32;     // along the shorter side, where the image has as many
  constexpr double kDarkShare = 0.1;    // of the mean level: slopes there are noise
  constexpr double kNoCurl = 0.25;      // up to here the direction of div and curl is a turn
  constexpr double kSmallShare = 0.05;  // both orientations: relief in one direction only
  constexpr double kClearRatio = 0.7;
  constexpr double kShowsMore = 1.25;  // so that parts of a kind do not change to and fro

  OrientationFound found;
  const int block =
      std::clamp(std::min(channel0.rows, channel0.cols) / kFewestBlocks, 1, kLargestBlock);
  if (std::min(channel0.rows, channel0.cols) / block < 3) return found;
  const auto slopes = [&](const cv::Mat& channel) {
    cv::Mat1f map = BlockMeans(channel, block, mask);
    map = (map - kPilotOffset) / kPilotGain;
    return map;
  };
  const cv::Mat1f raw_p = slopes(channel0);
  const cv::Mat1f raw_q = slopes(channel1);
  cv::Mat1f brightness(raw_p.size(), 0.0F);
  for (const cv::Mat& image : images) brightness += BlockMeans(image, block, mask);
  cv::Mat1b usable;
  cv::compare(brightness, kDarkShare * cv::mean(brightness)[0], usable, cv::CMP_GT);
  if (!mask.empty()) usable &= BlockMeans(mask != 0, block) > 127.0F;

  const cv::Mat1f p = Smoothed(raw_p);
  const cv::Mat1f q = Smoothed(raw_q);
  std::array<FieldSums, 2> sums;  ///< as it is, mirrored
  int count = 0;
  for (int i = 1; i < p.rows - 1; ++i) {
    for (int j = 1; j < p.cols - 1; ++j) {
      if (!usable(i, j) || !usable(i, j - 1) || !usable(i, j + 1) || !usable(i - 1, j) ||
          !usable(i + 1, j)) {
        continue;
      }
      ++count;
      const double p_x = double{p(i, j + 1)} - double{p(i, j - 1)};
      const double p_y = double{p(i - 1, j)} - double{p(i + 1, j)};
      for (size_t mirrored = 0; mirrored < sums.size(); ++mirrored) {
        const double sign = mirrored == 0 ? 1.0 : -1.0;
        const double q_x = sign * (double{q(i, j + 1)} - double{q(i, j - 1)});
        const double q_y = sign * (double{q(i - 1, j)} - double{q(i + 1, j)});
        sums[mirrored].div_curl.Add(p_x + q_y, q_x - p_y);
        sums[mirrored].hyperbolic_along += (p_x - q_y) * (p_x - q_y);
        sums[mirrored].hyperbolic_across += (q_x + p_y) * (q_x + p_y);
      }
    }
  }
  if (count == 0 || sums[0].div_curl.aa + sums[0].div_curl.bb <= 0.0) return found;
  found.curl_as_is = sums[0].div_curl.SmallerShare();
  found.curl_mirrored = sums[1].div_curl.SmallerShare();
  const auto [less, more] = std::minmax(found.curl_as_is, found.curl_mirrored);
  found.is_clear = more > kSmallShare && less < kClearRatio * more;
  found.is_mirrored = found.is_clear && found.curl_mirrored < found.curl_as_is;
  const FieldSums& field = sums[found.is_mirrored ? 1 : 0];

  double turn = field.div_curl.SmallerShare() < kNoCurl ? field.div_curl.Direction() : 0.0;
  if (lamp) {
    // The lamp's image over the mean of all is a linear function of the slopes, which falls towards
    // the lamp.
    const cv::Mat1f lit = BlockMeans(images[static_cast<size_t>(lamp->image)], block, mask);
    cv::Matx33d normal = cv::Matx33d::zeros();
    cv::Vec3d right(0.0, 0.0, 0.0);
    for (int i = 0; i < p.rows; ++i) {
      for (int j = 0; j < p.cols; ++j) {
        if (!usable(i, j)) continue;
        const cv::Vec3d terms(double{raw_p(i, j)}, double{raw_q(i, j)}, 1.0);
        normal += terms * terms.t();
        right += terms * (double{lit(i, j)} / double{brightness(i, j)});
      }
    }
    const cv::Vec3d slope = normal.solve(right, cv::DECOMP_SVD);
    if (slope[0] != 0.0 || slope[1] != 0.0) {
      found.is_sign_open = false;
      const double seen = std::atan2(found.is_mirrored ? slope[1] : -slope[1], -slope[0]);
      const double by_lamp = Wrapped(seen * 180.0 / CV_PI - lamp->degrees);
      if (field.div_curl.SmallerShare() >= kNoCurl) turn = by_lamp;
      if (std::abs(Wrapped(by_lamp - turn)) > 90.0) turn = Wrapped(turn + 180.0);
    }
  }
  const int step = may_turn ? 1 : 2;
  const int quarters = static_cast<int>(std::lround(turn / (90.0 * step))) * step & 3;
  found.is_turned = quarters % 2 == 1;
  found.is_inverted = !found.is_sign_open && quarters >= 2;
  found.turn = Wrapped(turn - 90.0 * quarters);
  const Covariance& c = field.div_curl;
  found.has_mirrored_curvature = found.is_turned ? c.bb * kShowsMore > field.hyperbolic_across
                                                 : c.aa * kShowsMore > field.hyperbolic_along;
  return found;
}

/// An order of the pixels of images for a run, and back for its results. With P and Q the channels
/// of a run on the images as they are, the run on images in this order has slopes (to the right,
/// up)
///   as they are (P, Q), flipped (P, -Q), transposed (-Q, -P), both (Q, -P):
/// the factors of a frame do not depend on the order of its pixels.
struct PixelOrder {
  bool is_transposed = false;  ///< rows become columns
  bool is_flipped = false;     ///< top to bottom, after the transposition

  /// Whether nothing changes.
  bool IsAsIs() const { return !is_transposed && !is_flipped; }

  /// The image as the run takes it.
  [[nodiscard]] cv::Mat Ordered(const cv::Mat& image) const {
    cv::Mat ordered = image;
    if (is_transposed) cv::transpose(image, ordered);
    if (is_flipped) {
      cv::Mat flipped;
      cv::flip(ordered, flipped, 0);
      ordered = flipped;
    }
    return ordered;
  }

  /// The result of the run as the scene is seen.
  [[nodiscard]] cv::Mat AsSeen(const cv::Mat& result) const {
    cv::Mat seen = result;
    if (is_flipped) cv::flip(result, seen, 0);
    if (is_transposed) {
      cv::Mat transposed;
      cv::transpose(seen, transposed);
      seen = transposed;
    }
    return seen;
  }

  /// The size of images as the run takes them.
  [[nodiscard]] cv::Size Ordered(cv::Size size) const {
    return is_transposed ? cv::Size(size.height, size.width) : size;
  }

  /// A region of images of a size, in the images as the run takes them.
  [[nodiscard]] cv::Rect Ordered(cv::Rect r, cv::Size images) const {
    if (is_transposed) {
      r = {r.y, r.x, r.height, r.width};
      images = {images.height, images.width};
    }
    if (is_flipped) r.y = images.height - r.br().y;
    return r;
  }
};

/// The order in which a run makes the height and the channels of the scene as seen.
inline PixelOrder UprightOrder(const OrientationFound& found) {
  return {found.is_turned, found.is_mirrored != found.is_turned};
}

/// The order in which a run makes the curvature of the mirrored slopes.
inline PixelOrder MirroredOrder(const OrientationFound& found) {
  return {found.is_turned, found.is_mirrored == found.is_turned};
}

}  // namespace velostrix
