// How often heights of sample scenes under lamps at random places come out upright.
#pragma once

#include <cmath>
#include <cstdint>
#include <opencv2/core.hpp>

#include "scene/sample_scene.h"
#include "velostrix/tool.hpp"

namespace velostrix::bench {

// Of two images; 0 when one is flat.
inline double Correlation(const cv::Mat& a, const cv::Mat& b) {
  cv::Mat x;
  cv::Mat y;
  a.convertTo(x, CV_64F);
  b.convertTo(y, CV_64F);
  x -= cv::mean(x)[0];
  y -= cv::mean(y)[0];
  const double norms = cv::norm(x) * cv::norm(y);
  return norms > 0.0 ? x.dot(y) / norms : 0.0;
}

// Scene `index` of a series: 3 to 8 lamps.
inline scene::Scene RandomLampsScene(int index) {
  return scene::Render(
      {160, 120, 3 + index % 6, scene::Lamps::kRandom, static_cast<uint64_t>(index) + 1});
}

// What someone who points at one of the lamps says: left, right, up or down. The scene's x points
// to the left, its y down.
inline LampHint RoughHint(const scene::Scene& scene, int image) {
  const cv::Vec3f& lamp = scene.lamps[static_cast<size_t>(image)];
  const double degrees = std::atan2(-lamp[1], -lamp[0]) * 180.0 / CV_PI;
  return {image, 90.0 * std::round(degrees / 90.0)};
}

struct UprightCount {
  int upright = 0;   // correlated with the true height
  int inverted = 0;  // its negative is
  int neither = 0;   // mirrored or turned

  void Add(double correlation) {
    constexpr double kAlike = 0.5;
    ++(correlation > kAlike ? upright : correlation < -kAlike ? inverted : neither);
  }
};

// Heights as they come, upright, and upright with a hint.
struct UprightCounts {
  UprightCount as_is;
  UprightCount upright;
  UprightCount with_hint;
};

inline UprightCounts CountUpright(int scenes) {
  UprightCounts counts;
  Tool tool;
  Parameters parameters;
  parameters.outputs = {Output::kHeight};
  parameters.iteration_cap = -1;
  for (int k = 0; k < scenes; ++k) {
    const scene::Scene scene = RandomLampsScene(k);
    const auto correlation = [&](const Parameters& p) {
      return Correlation(tool.Reconstruct(scene.images, p)[Output::kHeight], scene.height);
    };
    Parameters p = parameters;
    counts.as_is.Add(correlation(p));
    p.orientation = Orientation::kUpright;
    counts.upright.Add(correlation(p));
    p.lamp = RoughHint(scene, k % static_cast<int>(scene.images.size()));
    counts.with_hint.Add(correlation(p));
  }
  return counts;
}

}  // namespace velostrix::bench
