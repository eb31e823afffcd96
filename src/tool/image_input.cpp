// Image input: crop, scale, equalise, copy into the stack.
#include "tool/image_input.h"

#include <cstring>
#include <opencv2/imgproc.hpp>

#include "base/serial_opencv.h"
#include "tool/buffers.h"
#include "tool/equalisation.h"
#include "tool/uncalibration_tool.h"

namespace velostrix {
namespace {

bool NextPlaneIsFree(const UnCalibrationTool& tool) {
  return static_cast<uint64_t>(tool.images_set) <= static_cast<uint64_t>(tool.image_count - 1) &&
         BuffersHold(tool, tool.images_set + 1);
}

// A cv::Mat of more than two dimensions has -1 rows.
bool IsReadable(const cv::Mat& image) {
  return image.rows > 0 && image.cols > 0 && image.data != nullptr;
}

// Bytes from the first pixel to the end of the last row.
int64_t SpanBytes(const cv::Mat& image) {
  return static_cast<int64_t>(image.step[0]) * (image.rows - 1) +
         static_cast<int64_t>(image.elemSize()) * image.cols;
}

bool IsWorkingFrame(const UnCalibrationTool& tool, const cv::Mat& image) {
  return image.type() == CV_8UC1 && image.rows == tool.rows && image.cols == tool.cols;
}

// Whether the image, after any equalisation, has the bytes of a plane. An image that is not a
// working frame is taken as rows x cols bytes in a row.
bool HoldsPlane(const UnCalibrationTool& tool, const cv::Mat& image) {
  const int64_t bytes =
      tool.equalise_on != 0 ? static_cast<int64_t>(image.total()) : SpanBytes(image);
  return IsWorkingFrame(tool, image) || bytes >= tool.rows * tool.cols;
}

void StorePlane(UnCalibrationTool& tool, const cv::Mat& image) {
  const size_t source_step =
      IsWorkingFrame(tool, image) ? image.step[0] : static_cast<size_t>(tool.cols);
  uint8_t* plane = tool.image_stack + tool.images_set * tool.plane_size;
  for (int64_t row = 0; row < tool.rows; ++row) {
    std::memcpy(plane + row * tool.row_step, image.data + static_cast<size_t>(row) * source_step,
                static_cast<size_t>(tool.cols));
  }
  ++tool.images_set;
}

bool Equalised(UnCalibrationTool& tool, cv::Mat& image) {
  if (tool.equalise_on == 0) return true;
  cv::Mat equalised;
  constexpr double kOwnMean = -1.0;
  if (!EqualiseBrightness(tool.column_levels, image, equalised, kOwnMean)) return false;
  image = equalised;
  return true;
}

}  // namespace

bool SetImage(UnCalibrationTool& tool, const cv::Mat& image) {
  if (!NextPlaneIsFree(tool) || !IsReadable(image)) return false;

  cv::Mat working = image;
  if (tool.roi_set != 0) {
    const RegionOfInterest& roi = tool.roi;
    working = cv::Mat(image, cv::Rect(roi.x, roi.y, roi.width, roi.height)).clone();
  }
  if (tool.downscale_on == 1) {
    const cv::Size size(static_cast<int>(tool.cols), static_cast<int>(tool.rows));
    OnThisThread([&] { cv::resize(working, working, size, 0, 0, cv::INTER_LINEAR); });
  }
  if (tool.roi_set != 0 && (working.rows != tool.rows || working.cols != tool.cols ||
                            static_cast<int64_t>(working.step[0]) != tool.row_step)) {
    return false;
  }
  if (!HoldsPlane(tool, working) || !Equalised(tool, working)) return false;
  StorePlane(tool, working);
  return true;
}

bool SetImage(UnCalibrationTool& tool, const ImageRecord& image) {
  constexpr int kDepths[] = {CV_8U, CV_16U, CV_32F};
  if (image.type_code < 1 || image.type_code > 12) return false;
  const int depth = kDepths[(image.type_code - 1) / 4];
  const int channels = (image.type_code - 1) % 4 + 1;
  const int type = CV_MAKETYPE(depth, channels);

  // cv::Mat takes the step as size_t: a negative stride would wrap.
  const int64_t row_bytes = int64_t{CV_ELEM_SIZE(type)} * image.width;
  const bool rows_are_apart =
      image.row_stride == 0 ||
      (image.row_stride >= row_bytes && image.row_stride % int{CV_ELEM_SIZE1(type)} == 0);
  if (image.data == nullptr || image.width < 1 || image.height < 1 || !rows_are_apart) return false;

  // The header is read from only; cv::Mat has no constant form.
  const cv::Mat header(image.height, image.width, type, const_cast<void*>(image.data),
                       static_cast<size_t>(image.row_stride));
  return SetImage(tool, header);
}

void ClearImage(UnCalibrationTool& tool) { tool.images_set = 0; }

void DestroyImageArray(cv::Mat* first) { delete[] first; }

}  // namespace velostrix
