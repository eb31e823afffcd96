// The steps that all runs share: refusals, results over the tool's planes, the images of the light
// stage's maps, the height image.
#pragma once

#include <cstdint>
#include <opencv2/core/mat.hpp>

struct UnCalibrationTool;

namespace velostrix {

// Where a run puts its results; those that are switched off may be null.
struct ResultImages {
  cv::Mat* factor;
  cv::Mat* curvature;
  cv::Mat* magnitude;
  cv::Mat* channel[3];
  cv::Mat* normal;
  cv::Mat* height;
};

// Whether an image that only its own switch makes is asked for (an index of VelostrixOutput).
bool IsOn(const UnCalibrationTool& tool, int output);

// Whether the run has a place for every result that is asked for, and parameters that its later
// stages can take. Asked before anything is written.
bool CanDeliver(const UnCalibrationTool& tool, const ResultImages& results);

// Makes result a header over a working plane of the given type, then resizes it to the region's
// size when the tool works at a reduced scale; it owns its memory then.
void DeliverPlane(const UnCalibrationTool& tool, void* plane, int type, cv::Mat& result);
void ResizeBack(const UnCalibrationTool& tool, cv::Mat& result);
cv::Mat PlaneHeader(const UnCalibrationTool& tool, void* plane, int type);

// Gaussian smoothing with the tool's blur radius, which is at least 1.
void Blur(const UnCalibrationTool& tool, const cv::Mat& source, cv::Mat& destination);

// The factor image, the channel images and the normal image. False: a channel could not be made.
bool DeliverMapImages(UnCalibrationTool& tool, const ResultImages& results);

// The height image when it is asked for. False: the integration failed.
bool DeliverHeight(UnCalibrationTool& tool, const ResultImages& results);

}  // namespace velostrix
