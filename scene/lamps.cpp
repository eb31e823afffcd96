// Lamp layouts of sample scenes.
#include "scene/lamps.h"

#include <array>
#include <cmath>

#include "scene/random_numbers.h"

namespace velostrix::scene {
namespace {

// The calibrated run takes its angles, which were degrees, as radians; so does its sample scene.
// Volatile, because a compiler that folds the sines and cosines gets another last digit.
cv::Vec3f RingLamp(int azimuth_angle) {
  const volatile float slant = 45.0F;
  const volatile float azimuth = static_cast<float>(azimuth_angle);
  const float x = std::cos(azimuth) * std::sin(slant);
  const float y = -(std::sin(azimuth) * std::sin(slant));
  const float z = std::cos(slant);
  const float norm = std::sqrt(y * y + x * x + z * z);
  return {x / norm, y / norm, z / norm};
}

std::vector<cv::Vec3f> RingLamps(int count) {
  constexpr std::array<int, 3> kAzimuthsOfThree = {315, 225, 135};
  std::vector<cv::Vec3f> lamps;
  lamps.reserve(static_cast<size_t>(count));
  for (int k = 0; k < count; ++k) {
    lamps.push_back(
        RingLamp(count == 3 ? kAzimuthsOfThree[static_cast<size_t>(k)] : k * (360 / count)));
  }
  return lamps;
}

std::vector<cv::Vec3f> RandomLamps(int count, uint64_t seed) {
  constexpr double kDegree = CV_PI / 180.0;
  RandomNumbers random(seed);
  const double start = random.Uniform(0.0, 360.0);
  std::vector<cv::Vec3f> lamps;
  for (int k = 0; k < count; ++k) {
    const double azimuth = (start + (k + random.Uniform(-0.25, 0.25)) * 360.0 / count) * kDegree;
    const double slant = random.Uniform(35.0, 55.0) * kDegree;
    const double brightness = random.Uniform(0.85, 1.0);
    lamps.emplace_back(static_cast<float>(brightness * std::cos(azimuth) * std::sin(slant)),
                       static_cast<float>(brightness * std::sin(azimuth) * std::sin(slant)),
                       static_cast<float>(brightness * std::cos(slant)));
  }
  return lamps;
}

}  // namespace

std::vector<cv::Vec3f> PlaceLamps(Lamps layout, int count, uint64_t seed) {
  return layout == Lamps::kRing ? RingLamps(count) : RandomLamps(count, seed);
}

}  // namespace velostrix::scene
