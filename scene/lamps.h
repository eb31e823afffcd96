// Lamp layouts of sample scenes.
#pragma once

#include <cstdint>
#include <opencv2/core.hpp>
#include <vector>

namespace velostrix::scene {

enum class Lamps {
  kRing,   // the layout that the calibrated run assumes
  kRandom  // spread around the part, at slants of 35 to 55 degrees and of different brightness
};

// One vector for each image (count: 3 to 8), pointing to its lamp, as long as the lamp is bright
// (1 = full). The axes are those of Scene::normals. The seed matters to kRandom only.
std::vector<cv::Vec3f> PlaceLamps(Lamps layout, int count, uint64_t seed);

}  // namespace velostrix::scene
