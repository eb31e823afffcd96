// What diagnostics say: each fault once, and a healthy set beside it that is not blamed for it.
#include "velostrix/diagnostics.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <opencv2/core.hpp>
#include <string>
#include <vector>

#include "scene/random_numbers.h"
#include "scene/sample_scene.h"

namespace velostrix {
namespace {

struct Set {
  scene::SceneOptions scene = {320, 240, 4, scene::Lamps::kRandom};
  std::vector<cv::Mat> images = {};
  Parameters parameters = {};

  void Render() { images = scene::Render(scene).images; }
  Diagnostics Diagnose() const { return velostrix::Diagnose(images, parameters); }
};

cv::Mat Moved(const cv::Mat& image, int x, int y) {
  cv::Mat moved;
  cv::copyMakeBorder(image, moved, y, 0, x, 0, cv::BORDER_REPLICATE);
  return moved(cv::Rect({0, 0}, image.size())).clone();
}

// Lamps on a line, for which the scene has no layout.
std::vector<cv::Mat> LampsOnALine(double noise) {
  const scene::Scene s = scene::Render({320, 240, 3, scene::Lamps::kRing, 1, 0.0});
  scene::RandomNumbers random(5);
  std::vector<cv::Mat> images;
  for (const double x : {-0.7, -0.3, 0.2, 0.6}) {
    cv::Mat1b image(s.albedo.size());
    for (int i = 0; i < image.rows; ++i) {
      for (int j = 0; j < image.cols; ++j) {
        const cv::Vec3f& n = s.normals.at<cv::Vec3f>(i, j);
        const double shading = x * double{n[0]} + 0.7 * double{n[2]};
        image(i, j) = cv::saturate_cast<uint8_t>(double{s.albedo.at<float>(i, j)} * shading +
                                                 noise * random.Gaussian());
      }
    }
    images.push_back(image);
  }
  return images;
}

TEST(Diagnostics, EachFaultHasItsWordsAndItsNumber) {
  using Number = std::function<double(const Diagnostics&)>;
  const auto third = [](const Diagnostics& d) {
    return d.singular_values[2] / d.singular_values[3];
  };
  const auto ring = [](const Diagnostics& d) {
    return d.unexplained_by_ring / d.unexplained_by_any;
  };
  const struct {
    const char* words;
    std::function<void(Set&)> spoil;
    std::function<void(Set&)> heal;
    Number number;
    double least_of_fault, most_of_fault, least_of_health, most_of_health;
  } cases[] = {
      {"image 3: moved by 10 pixels against most images",
       [](Set& s) { s.images[2] = Moved(s.images[2], 8, 6); },
       [](Set& s) { s.images[2] = s.images[1] / 2; },
       [](const Diagnostics& d) { return d.shifts[2]; }, 9.5, 10.5, 0.0, 0.5},
      {"image 1: moved by 40 pixels against most images",
       [](Set& s) { s.images[0] = Moved(s.images[0], 40, 0); }, [](Set& s) { s.images.resize(3); },
       [](const Diagnostics& d) { return d.shifts[0]; }, 39.0, 41.0, 0.0, 0.5},
      {"relief in a second direction is no stronger than noise",
       [](Set& s) { s.images = LampsOnALine(8.0); },
       [](Set& s) { s.scene.noise = 8.0, s.Render(); }, third, 0.99, 1.2, 2.0, 10.0},
      {"too alike to determine relief in two directions",
       [](Set& s) { s.images = LampsOnALine(0.5); },
       [](Set& s) { s.scene.noise = 0.0, s.Render(); },
       [](const Diagnostics& d) { return d.singular_values[2]; }, 0.0, 0.01, 0.02, 1.0},
      {"one image is a mixture of the others",
       [](Set& s) {
         s.images[0] &= 254;
         s.images[3] = s.images[0] / 2;
       },
       [](Set&) {}, [](const Diagnostics& d) { return d.singular_values[3]; }, 0.0, 1e-6, 1e-3,
       0.5},
      {"image 4: equal to image 2", [](Set& s) { s.images[3] = s.images[1].clone(); }, [](Set&) {},
       [](const Diagnostics& d) { return 1.0 * d.exposures[3].equal_to; }, 1, 1, -1, -1},
      {"not those of the ring",
       [](Set& s) {
         s.parameters.run = velostrix::Run::kCalibrated, s.scene.noise = 8.0, s.Render();
       },
       [](Set& s) {
         s.parameters.run = velostrix::Run::kCalibrated, s.scene.noise = 8.0;
         s.scene.steepness = 1.5, s.scene.lamps = scene::Lamps::kRing, s.Render();
       },
       ring, 1.5, 10.0, 0.99, 1.1},
      {"of the curvature image is noise; use blur_radius",
       [](Set& s) { s.scene.noise = 12.0, s.Render(); }, [](Set&) {},
       [](const Diagnostics& d) { return d.noise_share; }, 0.5, 1.0, 0.0, 0.3},
      {"of the curvature image is noise; use blur_radius",
       [](Set& s) { s.scene.noise = 12.0, s.Render(); },
       [](Set& s) {
         s.scene.noise = 12.0, s.Render();
         const std::string text = s.Diagnose().warnings.back();
         s.parameters.blur_radius = std::stoi(text.substr(text.find("radius ") + 7));
       },
       [](const Diagnostics& d) { return d.noise_share; }, 0.5, 1.0, 0.0, 0.3},
      {"the last piece has 8 rows of 116, too few to be like the others; use a band of 120",
       [](Set& s) { s.parameters.run = velostrix::Run::kPartRows, s.parameters.band = 116; },
       [](Set& s) { s.parameters.run = velostrix::Run::kPartRows, s.parameters.band = 120; },
       [](const Diagnostics& d) { return 1.0 * d.last_piece; }, 8, 8, 120, 120},
      {"the last piece has 1 columns of 100",
       [](Set& s) {
         s.parameters.run = velostrix::Run::kPartCols, s.parameters.band = 100;
         s.parameters.region = cv::Rect(0, 0, 301, 50);
       },
       [](Set& s) { s.parameters.band = 100; },
       [](const Diagnostics& d) { return 1.0 * d.last_piece; }, 1, 1, 0, 0},
      {"2 images, most of all image 2: 10.0 to 20.0 % of the pixels are saturated",
       [](Set& s) { s.images[0].rowRange(0, 24) = 255, s.images[1].rowRange(0, 48) = 255; },
       [](Set& s) { s.images[0].rowRange(0, 5) = 255; },
       [](const Diagnostics& d) { return d.exposures[1].saturated_share; }, 0.2, 0.2, 0, 0.01},
      {"image 3: 10.0 % of the pixels are black", [](Set& s) { s.images[2].rowRange(0, 24) = 0; },
       [](Set& s) { s.images[2].rowRange(0, 5) = 0; },
       [](const Diagnostics& d) { return d.exposures[2].black_share; }, 0.1, 0.1, 0, 0.03},
      {"image 2: too dark (mean level 1", [](Set& s) { s.images[1] /= 8; },
       [](Set& s) { s.images[1] /= 3; },
       [](const Diagnostics& d) { return d.exposures[1].mean_level; }, 10, 20, 20, 100}};
  for (const auto& c : cases) {
    for (const bool is_faulty : {true, false}) {
      SCOPED_TRACE(testing::Message() << c.words << (is_faulty ? "" : ", healthy"));
      Set set;
      set.Render();
      (is_faulty ? c.spoil : c.heal)(set);
      const Diagnostics d = set.Diagnose();
      const auto said = std::count_if(
          d.warnings.begin(), d.warnings.end(),
          [&](const std::string& text) { return text.find(c.words) != std::string::npos; });
      std::string all;
      for (const std::string& text : d.warnings) all += text + '\n';
      EXPECT_EQ(said, is_faulty ? 1 : 0) << all;
      EXPECT_GE(c.number(d), is_faulty ? c.least_of_fault : c.least_of_health);
      EXPECT_LE(c.number(d), is_faulty ? c.most_of_fault : c.most_of_health);
    }
  }
}

TEST(Diagnostics, StructureIsNeededToTellWhetherAnythingMoved) {
  scene::RandomNumbers random(3);
  Set set;
  for (int k = 0; k < 3; ++k) {
    cv::Mat1b noise(240, 320);
    for (uint8_t& level : noise) level = static_cast<uint8_t>(random.Uniform(80.0, 120.0));
    set.images.push_back(noise);
  }
  for (int k = 0; k < 3; ++k) EXPECT_LT(set.Diagnose().shifts[k], 0.0);
}

// Reduced to blocks of eight pixels, what stays is not taken for moved.
TEST(Diagnostics, LargeImagesThatDoNotMoveAreNotBlamed) {
  Set set;
  set.scene.width = 2448;
  set.scene.height = 2048;
  set.scene.images = 3;
  set.Render();
  for (int k = 0; k < 3; ++k) EXPECT_LT(set.Diagnose().shifts[k], 1.0);
}

}  // namespace
}  // namespace velostrix
