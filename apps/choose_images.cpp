// Chooses those of many images of one part whose lamps differ most.
#include "apps/choose_images.h"

#include <algorithm>
#include <cmath>
#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>

#include "apps/input_images.h"

namespace velostrix::cli {
namespace {

// One row for each image, reduced.
cv::Mat1f Thumbnails(const std::vector<std::string>& files) {
  constexpr int kSide = 64;
  cv::Mat1f thumbnails(0, kSide * kSide);
  for (const std::string& file : files) {
    const cv::Mat image = DecodeFile(file);  // one at a time: there may be hundreds
    cv::Mat small;
    cv::resize(image, small, {kSide, kSide}, 0.0, 0.0, cv::INTER_AREA);
    small.convertTo(small, CV_32F);
    if (small.channels() > 1) cv::cvtColor(small, small, cv::COLOR_BGR2GRAY);
    thumbnails.push_back(small.reshape(1, 1));
  }
  return thumbnails;
}

// The directions of the lamps up to a linear map, as unit rows: images of a matt part have rank
// three (Hayakawa 1994). The rest is noise. Dark images, which would differ by it, have zero rows.
cv::Mat1d PseudoLamps(const cv::Mat1f& images) {
  constexpr double kDarkShare = 0.2;  // of the usual brightness
  cv::Mat1d gram;
  cv::mulTransposed(images, gram, false, cv::noArray(), 1.0, CV_64F);
  cv::Mat1d values;
  cv::Mat1d vectors;
  cv::eigen(gram, values, vectors);
  cv::Mat1d lamps(images.rows, 3);
  std::vector<double> lengths;
  for (int k = 0; k < lamps.rows; ++k) {
    for (int j = 0; j < 3; ++j) lamps(k, j) = std::sqrt(std::max(0.0, values(j))) * vectors(j, k);
    lengths.push_back(cv::norm(lamps.row(k)));
  }
  std::vector<double> sorted = lengths;
  std::nth_element(sorted.begin(), sorted.begin() + lamps.rows / 2, sorted.end());
  const double least = kDarkShare * sorted[sorted.size() / 2];
  for (int k = 0; k < lamps.rows; ++k) {
    const double length = lengths[static_cast<size_t>(k)];
    lamps.row(k) *= length > least ? 1.0 / length : 0.0;
  }
  return lamps;
}

}  // namespace

// Farthest-point sampling (Gonzalez 1985): starts with the two lamps that differ most, then always
// takes the one that differs most from all taken.
std::vector<size_t> ChooseImages(const std::vector<std::string>& files, size_t count) {
  const cv::Mat1d lamps = PseudoLamps(Thumbnails(files));
  cv::Mat1d likeness;  // cosines
  cv::mulTransposed(lamps, likeness, false);
  for (int k = 0; k < lamps.rows; ++k) {
    if (cv::countNonZero(lamps.row(k)) != 0) continue;
    likeness.row(k).setTo(1.0);
    likeness.col(k).setTo(1.0);
  }
  cv::Point pair;
  cv::minMaxLoc(likeness, nullptr, nullptr, &pair);
  std::vector<size_t> taken;
  cv::Mat1d closest(likeness.rows, 1, -1.0);  // to those taken
  const auto take = [&](int k) {
    taken.push_back(static_cast<size_t>(k));
    cv::max(closest, cv::Mat(likeness.col(k)), closest);
    closest(k) = 2.0;
  };
  take(std::min(pair.x, pair.y));
  if (count > 1 && pair.x != pair.y) take(std::max(pair.x, pair.y));
  while (taken.size() < count) {
    cv::Point next;
    cv::minMaxLoc(closest, nullptr, nullptr, &next);
    take(next.y);
  }
  std::sort(taken.begin(), taken.end());
  return taken;
}

}  // namespace velostrix::cli
