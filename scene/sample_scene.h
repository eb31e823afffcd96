// A part as a camera sees it under each of N lamps, with the ground truth.
#pragma once

#include <cstdint>
#include <opencv2/core.hpp>
#include <vector>

#include "scene/lamps.h"

namespace velostrix::scene {

struct SceneOptions {
  int width = 640;   // pixels; the part is scaled to fill the frame
  int height = 480;  // pixels
  int images = 8;    // 3 to 8
  Lamps lamps = Lamps::kRing;
  uint64_t seed = 1;       // of the noise and of random lamps; equal seeds give equal bytes
  double noise = 1.0;      // standard deviation of the sensor's noise in grey levels; 0 = none
  double steepness = 0.4;  // steepest slope of the relief; up to 0.43 no lamp of the ring leaves a
                           // pixel in shadow
};

// x points to the left, y down, z to the camera: the axes in which the calibrated run finds normals
// whose x and y it can integrate as slopes, so that heights come out upright. For the height z:
//   n = (P, Q, 1) / |(P, Q, 1)|,  P = z[i][j+1] - z[i][j],  Q = z[i][j] - z[i+1][j]
// (Seen with x to the right and y up, these are the normals of -z.)
// Image k is albedo * max(0, n . lamps[k]) plus noise, rounded to 8 bits.
struct Scene {
  std::vector<cv::Mat> images;  // CV_8UC1
  cv::Mat height;               // CV_32FC1, pixels, 0 where the part is flat
  cv::Mat normals;              // CV_32FC3, unit vectors
  cv::Mat albedo;               // CV_32FC1, grey levels under a full lamp in the normal's direction
  std::vector<cv::Vec3f> lamps;  // towards the lamp, as long as it is bright
};

Scene Render(const SceneOptions& options);

}  // namespace velostrix::scene
