// The working buffers: allocation, release, and whether a geometry fits them.
#include "tool/buffers.h"

#include <cstdlib>
#include <limits>
#include <type_traits>

#include "tool/region.h"
#include "tool/uncalibration_tool.h"

namespace velostrix {
namespace {

// Calls visit(buffer, planes) for every buffer in the order of allocation; a buffer of k planes
// holds k times the elements of the working frame.
template <typename Visitor>
void ForEachBuffer(UnCalibrationTool& tool, Visitor visit) {
  visit(tool.image_stack, tool.image_count);
  for (float** map : {&tool.factor_map, &tool.slope_p, &tool.slope_q, &tool.gated_factor_map,
                      &tool.deriv_p, &tool.deriv_q, &tool.blurred_deriv_p, &tool.blurred_deriv_q,
                      &tool.height_map, &tool.spare_map}) {
    visit(*map, 1);
  }
  for (uint8_t** plane :
       {&tool.factor_plane, &tool.channel_plane[0], &tool.channel_plane[1], &tool.channel_plane[2],
        &tool.derivative_half[0], &tool.derivative_half[1], &tool.curvature_plane,
        &tool.magnitude_plane, &tool.spare_plane[0], &tool.spare_plane[1]}) {
    visit(*plane, 1);
  }
  visit(tool.height_plane, 1);
  visit(tool.spare_stack, tool.image_count);
}

// Zero-filled, so that a run on images that were never set is repeatable; null when out of memory.
template <typename T>
T* AllocatePlanes(int64_t planes, int64_t pixels) {
  constexpr int64_t kMostBytes = std::numeric_limits<int64_t>::max();
  if (pixels > kMostBytes / static_cast<int64_t>(sizeof(T)) / planes) return nullptr;
  return static_cast<T*>(std::calloc(static_cast<size_t>(planes * pixels), sizeof(T)));
}

bool IsImageCount(int64_t count) { return count >= 3 && count <= 8; }

bool IsFrame(const UnCalibrationTool& tool) {
  return tool.rows > 0 && tool.cols > 0 && tool.row_step >= tool.cols;
}

}  // namespace

void InitialImage(UnCalibrationTool& tool) {
  if (tool.roi_set == 0 && tool.downscale_on == 1) {
    // A negative size counts as unsigned: larger than any buffer.
    const double cols = static_cast<double>(static_cast<uint64_t>(tool.roi_width)) * tool.scale;
    const double rows = static_cast<double>(static_cast<uint64_t>(tool.roi_height)) * tool.scale;
    if (!IsSize(cols) || !IsSize(rows)) return;
    tool.cols = tool.row_step = static_cast<int64_t>(cols);
    tool.rows = static_cast<int64_t>(rows);
    tool.plane_size = tool.rows * tool.cols;
  }
  if (!IsImageCount(tool.image_count) || !IsFrame(tool)) return;

  const int64_t pixels = tool.rows * tool.row_step;
  bool complete = true;
  ForEachBuffer(tool, [&](auto*& buffer, int64_t planes) {
    buffer = AllocatePlanes<std::remove_reference_t<decltype(*buffer)>>(planes, pixels);
    complete = complete && buffer != nullptr;
  });
  tool.allocated_pixels = complete ? pixels : 0;
  tool.allocated_stack_bytes = complete ? tool.image_count * pixels : 0;
}

void ReleaseImage(UnCalibrationTool& tool) {
  ForEachBuffer(tool, [](auto*& buffer, int64_t) {
    std::free(buffer);
    buffer = nullptr;
  });
  tool.allocated_pixels = 0;
  tool.allocated_stack_bytes = 0;
  tool.images_set = 0;
}

bool BuffersHold(const UnCalibrationTool& tool, int64_t images) {
  return IsFrame(tool) && tool.plane_size <= tool.allocated_pixels &&
         images <= tool.allocated_stack_bytes / tool.plane_size;
}

bool BuffersHoldImages(const UnCalibrationTool& tool) {
  return IsImageCount(tool.image_count) && BuffersHold(tool, tool.image_count);
}

cv::Mat PlaneHeader(const UnCalibrationTool& tool, void* plane, int type) {
  return {static_cast<int>(tool.rows), static_cast<int>(tool.cols), type, plane,
          static_cast<size_t>(tool.row_step) * CV_ELEM_SIZE(type)};
}

}  // namespace velostrix
