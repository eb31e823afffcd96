// A part as a camera sees it under each of N lamps, with the ground truth.
#include "scene/sample_scene.h"

#include <algorithm>
#include <cmath>

#include "scene/random_numbers.h"
#include "scene/sample_surface.h"

namespace velostrix::scene {
namespace {

constexpr double kFullLevel = 255.0;

// Where the pixels of a frame lie on the part.
class Placement {
 public:
  explicit Placement(const SceneOptions& o)
      : pixels_per_unit_(std::min(o.width / 4.0, o.height / 3.0)),
        center_x_(o.width / 2.0),
        center_y_(o.height / 2.0),
        height_scale_(o.steepness * pixels_per_unit_) {}

  double X(int column) const { return (column + 0.5 - center_x_) / pixels_per_unit_; }
  double Y(int row) const { return (row + 0.5 - center_y_) / pixels_per_unit_; }
  double HeightInPixels(int row, int column) const {
    return height_scale_ * ReliefHeight(X(column), Y(row));
  }

 private:
  double pixels_per_unit_;
  double center_x_;
  double center_y_;
  double height_scale_;
};

void ShapePart(const SceneOptions& options, Scene& scene) {
  const cv::Size size(options.width, options.height);
  scene.height.create(size, CV_32FC1);
  scene.normals.create(size, CV_32FC3);
  scene.albedo.create(size, CV_32FC1);

  // One column and one row more than the frame has, for the differences at its edges.
  const Placement place(options);
  const auto heights_of_row = [&](int row) {
    std::vector<double> heights;
    for (int j = 0; j <= size.width; ++j) heights.push_back(place.HeightInPixels(row, j));
    return heights;
  };
  std::vector<double> below = heights_of_row(0);
  for (int i = 0; i < size.height; ++i) {
    const std::vector<double> here = std::move(below);
    below = heights_of_row(i + 1);
    for (int j = 0; j < size.width; ++j) {
      const auto at = static_cast<size_t>(j);
      const double p = here[at + 1] - here[at];
      const double q = here[at] - below[at];
      scene.height.at<float>(i, j) = static_cast<float>(here[at]);
      scene.normals.at<cv::Vec3f>(i, j) = cv::Vec3d(p, q, 1.0) / std::sqrt(p * p + q * q + 1.0);
      scene.albedo.at<float>(i, j) =
          static_cast<float>(kFullLevel * PrintAlbedo(place.X(j), place.Y(i)));
    }
  }
}

cv::Mat Photograph(const Scene& scene, const cv::Vec3f& lamp, double noise, RandomNumbers& random) {
  cv::Mat image(scene.albedo.size(), CV_8UC1);
  for (int i = 0; i < image.rows; ++i) {
    for (int j = 0; j < image.cols; ++j) {
      const double shading = cv::Vec3d(scene.normals.at<cv::Vec3f>(i, j)).dot(cv::Vec3d(lamp));
      double level = double{scene.albedo.at<float>(i, j)} * std::max(0.0, shading);
      if (noise > 0.0) level += noise * random.Gaussian();
      image.at<uint8_t>(i, j) =
          static_cast<uint8_t>(std::clamp(std::floor(level + 0.5), 0.0, kFullLevel));
    }
  }
  return image;
}

}  // namespace

Scene Render(const SceneOptions& options) {
  Scene scene;
  scene.lamps = PlaceLamps(options.lamps, options.images, options.seed);
  ShapePart(options, scene);
  // Not the random numbers that placed the lamps.
  RandomNumbers random(~options.seed);
  for (const cv::Vec3f& lamp : scene.lamps) {
    scene.images.push_back(Photograph(scene, lamp, options.noise, random));
  }
  return scene;
}

}  // namespace velostrix::scene
