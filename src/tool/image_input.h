// Image input: crop, scale, equalise, copy into the stack.
#pragma once

#include <opencv2/core/mat.hpp>

#include "velostrix/records.h"

struct UnCalibrationTool;

namespace velostrix {

// Copies the next image into plane images_set of the stack: cut to the region, resized to the
// working size and equalised as the tool asks. False, nothing changed: the stack is full, or the
// image does not give a plane of the working size.
bool SetImage(UnCalibrationTool& tool, const cv::Mat& image);

// The same for an image in plain memory; also false for an invalid type code or memory layout.
bool SetImage(UnCalibrationTool& tool, const ImageRecord& image);

// Forgets the images set so far.
void ClearImage(UnCalibrationTool& tool);

// Destroys an array of images made with new[]; null does nothing.
void DestroyImageArray(cv::Mat* first);

}  // namespace velostrix
