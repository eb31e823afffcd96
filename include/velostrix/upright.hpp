/// @file
/// The orientation of the slopes of an uncalibrated run, and the order of pixels that corrects it.
/// Header-only, C++17; tool.hpp uses it for Parameters::orientation.
///
/// An uncalibrated run determines the slopes up to a turn in the picture plane, a mirroring and a
/// sign. With x to the right and y up, its channels 0 and 1 are the complex field
/// @code{.unparsed}
///   g = P + i Q = e^(i turn) (dz/dx + i dz/dy)    or, mirrored, its conjugate
/// @endcode
/// The slopes of a surface have div + i curl = e^(i turn) (d2z/dx2 + d2z/dy2): a real number times
/// the same direction at every pixel. In mirrored slopes div and curl have no common direction. The
/// smaller eigenvalue of the covariance matrix of div and curl, as a share of the sum of both
/// eigenvalues, is therefore near 0 for one of g and its conjugate and near 1/2 for the other: this
/// shows whether g is mirrored. The eigenvector of the larger eigenvalue is the turn, up to the
/// sign. (Zero curl resolves the ambiguity that shading leaves: Yuille and Snow 1997.) The sign,
/// and the turn where curl does not show it, come from a lamp whose direction is known: surfaces
/// that face it are bright.
#pragma once

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <opencv2/core.hpp>
#include <optional>
#include <vector>

namespace velostrix {

/// The rough direction of one lamp.
struct LampHint {
  int image = 0;         ///< index of the image that it lights
  double degrees = 0.0;  ///< in the picture: 0 from the right, 90 from above, 180 from the left
};

/// The orientation of slopes that was measured, and how results are corrected.
struct OrientationFound {
  /// The share (0 to 1/2) of the slopes' derivatives that fits no surface, whatever the turn: near
  /// 0 for the slopes of a surface. For slopes as they are, and mirrored. Negative: not measured.
  ///@{
  double curl_as_is = -1.0;
  double curl_mirrored = -1.0;
  ///@}
  bool is_clear = false;     ///< the two shares differ enough to decide
  bool is_mirrored = false;  ///< slopes were mirrored: the run was repeated on flipped images
  bool is_turned = false;    ///< by about a quarter turn: images were transposed, channels swapped
  bool is_inverted = false;  ///< slopes had the opposite sign: height and slopes were negated
  bool is_sign_open = true;  ///< no lamp's direction is known: bumps may appear as dents
  bool has_mirrored_curvature = false;  ///< curvature is from mirrored slopes: it shows more there
  double turn = 0.0;  ///< degrees, counterclockwise, by which the slopes remain turned: -45 to 45,
                      ///< or -90 to 90 where images are not transposed
};

namespace upright_detail {

/// Slopes of pilot runs as bytes: four times the usual slope fits; rounding is far below noise.
///@{
constexpr double kPilotGain = 32.0;
constexpr int kPilotOffset = 128;
///@}

/// The means over square blocks of pixels; with a mask, of the pixels in it.
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

/// Smoothed with weights 1 2 1 along rows and columns; the edge stays as it is.
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

/// Sums of the products of two quantities a and b.
struct Covariance {
  double aa = 0.0;
  double ab = 0.0;
  double bb = 0.0;

  void Add(double a, double b) {
    aa += a * a;
    ab += a * b;
    bb += b * b;
  }
  /// The smaller eigenvalue over the sum of both.
  double SmallerShare() const {
    const double sum = aa + bb;
    return sum > 0.0 ? 0.5 - 0.5 * std::sqrt((aa - bb) * (aa - bb) + 4.0 * ab * ab) / sum : 0.5;
  }
  /// The direction of the larger eigenvalue's eigenvector, in degrees, -90 to 90.
  double Direction() const { return 0.5 * std::atan2(2.0 * ab, aa - bb) * 180.0 / CV_PI; }
};

/// Sums over the blocks of a field: div and curl, and the differences of the derivatives whose sums
/// div and curl are.
struct FieldSums {
  Covariance div_curl;
  double hyperbolic_along = 0.0;   ///< (dg0/dx - dg1/dy)^2
  double hyperbolic_across = 0.0;  ///< (dg1/dx + dg0/dy)^2
};

/// The angle in (-180, 180].
inline double Wrapped(double degrees) { return degrees - 360.0 * std::ceil(degrees / 360.0 - 0.5); }

}  // namespace upright_detail

/// Measures the orientation of slopes. channel0, channel1: results of a pilot run, CV_8UC1. images:
/// its images, as large, CV_8UC1. may_turn: whether images may be transposed. mask: as large,
/// CV_8UC1, 0 for pixels to leave out; or empty.
[[nodiscard]] inline OrientationFound MeasureOrientation(const cv::Mat& channel0,
                                                         const cv::Mat& channel1,
                                                         const std::vector<cv::Mat>& images,
                                                         const std::optional<LampHint>& lamp,
                                                         bool may_turn, const cv::Mat& mask = {}) {
  using namespace upright_detail;
  constexpr int kLargestBlock = 8;      // with the smoothing: sigma 6 pixels
  constexpr int kFewestBlocks = 32;     // along the shorter side, where the image has as many
  constexpr double kDarkShare = 0.1;    // of the mean level: slopes there are noise
  constexpr double kNoCurl = 0.25;      // up to here the direction of div and curl is the turn
  constexpr double kSmallShare = 0.05;  // both below: relief in one direction only
  constexpr double kClearRatio = 0.7;
  constexpr double kShowsMore = 1.25;  // so that parts of one kind are all decided alike

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
    // The lamp's image over the mean of all is a linear function of the slopes; it falls in the
    // direction of the lamp.
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

/// An order of pixels: brings images into it for a run, and results back. The factors of a frame do
/// not depend on the order of its pixels. With P and Q the channels of a run on the images as they
/// are, a run on images in this order has the slopes (to the right, up)
/// @code{.unparsed}
///   as they are (P, Q), flipped (P, -Q), transposed (-Q, -P), both (Q, -P)
/// @endcode
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

  /// The result of the run, back in the order of the images.
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

/// The order in which a run makes upright height and channels.
inline PixelOrder UprightOrder(const OrientationFound& found) {
  return {found.is_turned, found.is_mirrored != found.is_turned};
}

/// The order in which a run makes the curvature of the mirrored slopes.
inline PixelOrder MirroredOrder(const OrientationFound& found) {
  return {found.is_turned, found.is_mirrored == found.is_turned};
}

}  // namespace velostrix
