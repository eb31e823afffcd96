// The differences between two images of one size.
#include "apps/differences.h"

#include <algorithm>
#include <cmath>
#include <opencv2/imgproc.hpp>

namespace velostrix::cli {
namespace {

constexpr size_t kMostPlaces = 5;
constexpr int kApart = 16;  // places of one image, in parts of its longer side

std::vector<Place> WorstPlaces(const cv::Mat& image) {
  cv::Mat rest = image.clone();
  const int apart = std::max(1, std::max(image.cols, image.rows) / kApart);
  std::vector<Place> places;
  while (places.size() < kMostPlaces) {
    Place place;
    cv::minMaxLoc(rest, nullptr, &place.difference, nullptr, &place.pixel);
    if (place.difference <= 0.0) break;
    places.push_back(place);
    cv::circle(rest, place.pixel, apart, cv::Scalar::all(0.0), cv::FILLED);
  }
  return places;
}

}  // namespace

cv::Mat Levels(const cv::Mat& image) {
  cv::Mat levels;
  image.convertTo(levels, CV_32F, image.depth() == CV_16U ? 1.0 / 257.0 : 1.0);
  return levels;
}

Differences Compare(const cv::Mat& a, const cv::Mat& b, const cv::Rect& inside, double tolerance) {
  Differences found;
  found.image = cv::Mat::zeros(a.size(), CV_32FC1);
  const int channels = a.channels();
  int64_t beyond = 0;
  for (int i = inside.y; i < inside.br().y; ++i) {
    const float* const a_row = a.ptr<float>(i);
    const float* const b_row = b.ptr<float>(i);
    for (int j = inside.x; j < inside.br().x; ++j) {
      float& difference = found.image.at<float>(i, j);
      for (int c = j * channels; c < (j + 1) * channels; ++c) {
        difference = std::max(difference, std::abs(a_row[c] - b_row[c]));
      }
      found.mean += difference;
      found.rms += static_cast<double>(difference) * difference;
      beyond += difference > tolerance ? 1 : 0;
    }
  }
  const double count = inside.area();
  found.mean /= count;
  found.rms = std::sqrt(found.rms / count);
  found.beyond_share = static_cast<double>(beyond) / count;
  found.worst = WorstPlaces(found.image);
  if (!found.worst.empty()) found.largest = found.worst.front().difference;
  return found;
}

}  // namespace velostrix::cli
