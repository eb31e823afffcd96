// The ground truth that `velostrix render` writes, and the results that a run should give.
#include "apps/ground_truth.h"

#include <algorithm>
#include <filesystem>

#include "apps/commands.h"
#include "apps/differences.h"
#include "apps/input_images.h"
#include "velostrix/height_view.hpp"

namespace velostrix::cli {
namespace {

namespace fs = std::filesystem;

// Slope along the rows or, with axis 1, across them; of a calibrated run, the normal's component.
cv::Mat Slope(const cv::Mat& normals, int axis, Run run) {
  cv::Mat slope;
  cv::extractChannel(normals, slope, axis);
  if (run == Run::kCalibrated) return slope;
  cv::Mat z;
  cv::extractChannel(normals, z, 2);
  return slope / z;
}

// levels = s . (1, truth) or, with a plane, s . (1, truth, x, y), with x and y in pixels.
ExpectedResult Fit(Output output, const cv::Mat& levels, const cv::Mat& truth,
                   const cv::Rect& inside, bool with_plane) {
  using Terms = cv::Vec4d;
  const auto terms = [&](int i, int j) {
    return Terms(1.0, truth.at<float>(i, j), with_plane ? j : 0.0, with_plane ? i : 0.0);
  };
  const auto visit = [&](const auto& use) {
    for (int i = inside.y; i < inside.br().y; ++i) {
      for (int j = inside.x; j < inside.br().x; ++j) use(i, j, levels.at<float>(i, j));
    }
  };
  // Least squares: (sum t t') s = sum t l, without saturated pixels.
  cv::Matx44d normal = cv::Matx44d::zeros();
  Terms right;
  visit([&](int i, int j, double level) {
    if (level <= 0.0 || level >= 255.0) return;
    const Terms t = terms(i, j);
    normal += t * t.t();
    right += t * level;
  });
  Terms s;
  cv::solve(normal, right, s, cv::DECOMP_SVD);

  ExpectedResult expected = {output, levels.clone(), inside, 0.0, s[1] < 0.0};
  double error = 0.0;
  double sum = 0.0;
  double sum_of_squares = 0.0;
  visit([&](int i, int j, double level) {
    const double fitted = std::clamp(s.dot(terms(i, j)), 0.0, 255.0);
    expected.levels.at<float>(i, j) = static_cast<float>(fitted);
    error += (level - fitted) * (level - fitted);
    sum += level;
    sum_of_squares += level * level;
  });
  const double variance = sum_of_squares - sum * sum / inside.area();
  expected.explained = variance > 0.0 ? std::max(0.0, 1.0 - error / variance) : 0.0;
  return expected;
}

}  // namespace

std::optional<GroundTruth> ReadGroundTruth(const std::string& folder) {
  std::error_code ignored;  // what cannot be looked at is no truth
  fs::path path = folder;
  if (!fs::exists(path / "scene.json", ignored)) path /= "truth";
  if (!fs::exists(path / "scene.json", ignored)) return std::nullopt;
  GroundTruth truth;
  const auto read = [&](const char* name, int type) {
    truth.files.push_back((path / name).string());
    cv::Mat image = DecodeFile(truth.files.back());
    const bool fits = truth.height.empty() || image.size() == truth.height.size();
    if (image.type() == type && fits && cv::checkRange(image)) return image;
    throw Failure(truth.files.back() +
                  ": is not the truth that was rendered; render the scene again");
  };
  truth.height = read("height.tiff", CV_32FC1);
  truth.normals = read("normals.tiff", CV_32FC3);
  truth.albedo = read("albedo.tiff", CV_32FC1);
  return truth;
}

std::vector<ExpectedResult> ExpectedResults(const GroundTruth& truth, const ResultFolder& made) {
  const Parameters& parameters = made.recipe.parameters;
  const cv::Size size = (*made.results.begin()).second.size();
  const cv::Rect whole({}, truth.height.size());
  const cv::Rect region = parameters.region.value_or(whole);
  if ((region & whole) != region || region.size() != size) {
    throw Failure(truth.files.front() +
                  ": is not as large as the images of the run; expected the "
                  "truth of the scene that was reconstructed");
  }
  const cv::Mat normals = truth.normals(region);
  const int border = std::min(HeightBorder(parameters), std::min(size.width, size.height) / 8);
  const cv::Rect all({}, size);
  const cv::Rect inner(border, border, size.width - 2 * border, size.height - 2 * border);
  std::vector<ExpectedResult> expected;
  const auto add = [&](Output output, const cv::Mat& values, const cv::Rect& inside) {
    const cv::Mat& image = made.results[output];
    if (image.empty()) return;
    expected.push_back(Fit(output, Levels(image), values, inside, output == Output::kHeight));
  };
  add(Output::kFactor, truth.albedo(region), all);
  add(Output::kChannel0, Slope(normals, 0, parameters.run), all);
  add(Output::kChannel1, Slope(normals, 1, parameters.run), all);
  add(Output::kHeight, truth.height(region), inner);
  return expected;
}

}  // namespace velostrix::cli
