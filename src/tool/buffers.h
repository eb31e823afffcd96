// The working buffers: allocation, release, and whether a geometry fits them.
#pragma once

#include <cstdint>
#include <opencv2/core/mat.hpp>

struct UnCalibrationTool;

namespace velostrix {

// Allocates every working buffer for the tool's geometry and image count, zero-filled; with scaling
// on and no region, takes the working size from the result size first. Allocates nothing when the
// image count is outside 3..8 or the geometry is not that of an image. When memory runs out, a
// buffer stays null.
void InitialImage(UnCalibrationTool& tool);

// Frees the working buffers and forgets the images. A second call does nothing.
void ReleaseImage(UnCalibrationTool& tool);

// Whether the working geometry is that of an image and lies inside the buffers, so many images too.
bool BuffersHold(const UnCalibrationTool& tool, int64_t images);

// Whether there are 3 to 8 images, and they and the frame lie inside the buffers.
bool BuffersHoldImages(const UnCalibrationTool& tool);

// A header over a working plane of the given OpenCV type.
cv::Mat PlaneHeader(const UnCalibrationTool& tool, void* plane, int type);

}  // namespace velostrix
