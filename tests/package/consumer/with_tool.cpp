// A C++ application on an installed copy.
#include <cstdio>
#include <opencv2/core.hpp>
#include <vector>
#include <velostrix/auto_gain.hpp>
#include <velostrix/diagnostics.hpp>
#include <velostrix/recipe.hpp>
#include <velostrix/tool.hpp>

int main() try {
  std::vector<cv::Mat> images;
  cv::RNG noise(1);
  for (int k = 0; k < 4; ++k) {
    images.emplace_back(40, 60, CV_8UC1);
    noise.fill(images.back(), cv::RNG::UNIFORM, 20, 200);
  }
  velostrix::Tool tool;
  const velostrix::Recipe recipe =
      velostrix::ChooseGains(tool, images, velostrix::ParseRecipe("{\"recipe_version\": 1}"));
  tool.Prepare(4, images.front().size(), recipe.parameters);
  for (const cv::Mat& image : images) tool.SetImage(image);
  int made = 0;
  for (const auto& [output, image] : tool.Run()) {
    std::printf("%s: %d x %d\n", velostrix::Name(output), image.cols, image.rows);
    made += image.size() == cv::Size(60, 40) ? 1 : 0;
  }
  const bool is_noise = !velostrix::Diagnose(images, recipe.parameters).warnings.empty();
  return made == 8 && is_noise ? 0 : 1;
} catch (const velostrix::Error& error) {
  std::fprintf(stderr, "%s\n", error.what());
  return 1;
}
