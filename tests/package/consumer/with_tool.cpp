// A C++ host on an installed copy.
#include <velostrix/velostrix_mat.h>
#include <velostrix/version.h>

#include <cstdio>
#include <opencv2/core.hpp>
#include <vector>
#include <velostrix/auto_gain.hpp>
#include <velostrix/tool.hpp>

int main() {
  std::vector<cv::Mat> images;
  cv::RNG noise(1);
  for (int k = 0; k < 4; ++k) {
    images.emplace_back(40, 60, CV_8UC1);
    noise.fill(images.back(), cv::RNG::UNIFORM, 20, 200);
  }
  velostrix::Tool tool;
  velostrix::Parameters parameters;
  parameters = velostrix::ChooseGains(tool, images, parameters);
  const velostrix::Results results = tool.Reconstruct(images, parameters);
  const cv::Size size = results[velostrix::Output::kHeight].size();
  std::printf("%s: %d x %d\n", VELOSTRIX_VERSION, size.width, size.height);
  return size == cv::Size(60, 40) ? 0 : 1;
}
