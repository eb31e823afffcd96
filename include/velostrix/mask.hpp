/// @file
/// A mask of the pixels that belong to the part. Header-only, C++17.
#pragma once

#include <algorithm>
#include <array>
#include <cstdint>
#include <opencv2/core.hpp>
#include <vector>

#include "velostrix/upright.hpp"

namespace velostrix {

/// A mask of the pixels that some lamp lights: 255 for these, 0 for the others. Unlit pixels have
/// at most 6 percent of the bright level (percentile 99) in every image, like a black background.
/// images: CV_8UC1, of one size.
[[nodiscard]] inline cv::Mat LitPixels(const std::vector<cv::Mat>& images) {
  constexpr int kBlock = 4;
  constexpr double kUnlitShare = 0.06;
  cv::Mat brightest = images.front().clone();
  for (const cv::Mat& image : images) cv::max(brightest, image, brightest);
  std::array<int64_t, 256> histogram = {};
  for (int i = 0; i < brightest.rows; ++i) {
    const auto* row = brightest.ptr<uint8_t>(i);
    for (int j = 0; j < brightest.cols; ++j) ++histogram[row[j]];
  }
  const auto percent = static_cast<int64_t>(brightest.total() / 100);
  size_t bright = 255;
  for (int64_t count = histogram[bright]; count <= percent && bright > 0;) {
    count += histogram[--bright];
  }
  const double unlit = kUnlitShare * static_cast<double>(bright);

  // Pixel by pixel at the edges of part and image, by blocks elsewhere: noise leaves no specks.
  cv::Mat lit = brightest > unlit;
  const cv::Mat1f means = upright_detail::BlockMeans(brightest, kBlock);
  for (int bi = 1; bi < means.rows - 1; ++bi) {
    for (int bj = 1; bj < means.cols - 1; ++bj) {
      double least = 0.0;
      double most = 0.0;
      cv::minMaxLoc(means(cv::Rect(bj - 1, bi - 1, 3, 3)), &least, &most);
      if ((least > unlit) != (most > unlit)) continue;
      lit(cv::Rect(bj * kBlock, bi * kBlock, kBlock, kBlock)) = least > unlit ? 255 : 0;
    }
  }
  return lit;
}

}  // namespace velostrix
