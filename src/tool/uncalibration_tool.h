// The tool object, which keeps parameters, region, geometry, buffers and timings between calls.
#pragma once

#include <Eigen/Core>
#include <array>
#include <cstdint>
#include <vector>

#include "velostrix/records.h"

struct RegionOfInterest {
  int32_t x = 0, y = 0, width = 0, height = 0;  // input-image pixels
};

// Sixteen bytes of a constant vector register.
using ConstantVector = std::array<uint8_t, 16>;

namespace velostrix {

inline constexpr ConstantVector kZero = {};
inline constexpr ConstantVector kWords255 = {255, 0, 255, 0, 255, 0, 255, 0,
                                             255, 0, 255, 0, 255, 0, 255, 0};
inline constexpr ConstantVector kInts255 = {255, 0, 0, 0, 255, 0, 0, 0, 255, 0, 0, 0, 255, 0, 0, 0};
// Byte shuffles; an index of 0xFF writes a zero byte.
inline constexpr ConstantVector kWidenBytesToWords = {0, 255, 1, 255, 2, 255, 3, 255,
                                                      4, 255, 5, 255, 6, 255, 7, 255};
inline constexpr ConstantVector kPackWordsToBytes = {0,   2,   4,   6,   8,   10,  12,  14,
                                                     255, 255, 255, 255, 255, 255, 255, 255};
inline constexpr ConstantVector kWidenBytesToInts = {0, 255, 255, 255, 1, 255, 255, 255,
                                                     2, 255, 255, 255, 3, 255, 255, 255};
inline constexpr ConstantVector kPackIntsToBytes = {0,   4,   8,   12,  255, 255, 255, 255,
                                                    255, 255, 255, 255, 255, 255, 255, 255};
inline constexpr ConstantVector kFloatsMinusOne = {0, 0, 0x80, 0xBF, 0, 0, 0x80, 0xBF,
                                                   0, 0, 0x80, 0xBF, 0, 0, 0x80, 0xBF};

}  // namespace velostrix

// The fields have a fixed order; what this library adds for its own safety is at the end. Sizes are
// set with 32 bits and kept with 64, so that their products cannot overflow.
struct UnCalibrationTool {
  RegionOfInterest roi;
  int32_t roi_set = 0;
  int32_t output_enable[VELOSTRIX_OUTPUT_COUNT] = {};
  float smoothing = 1.0F;  // clamped by the derivative images, used by nothing
  int32_t difference_mode = 0;
  int32_t blur_radius = 0;
  int32_t iteration_cap = 50;
  double scale = 1.0;
  int32_t downscale_on = 0;

  int32_t factor_offset = 0;
  double factor_gain = 0;
  int32_t curvature_offset = 0;
  double curvature_gain = 0;
  int32_t magnitude_offset = 0;
  double magnitude_gain = 0;
  int32_t channel_offset[3] = {};
  double channel_gain[3] = {};
  OutputScaling reserved[2] = {};
  int32_t equalise_on = 0;

  int64_t roi_height = 0, roi_width = 0;  // region at input resolution; results are resized to it
  int64_t rows = 0, cols = 0;             // working image
  int64_t row_step = 0;    // elements from row to row, in planes of every element type
  int64_t plane_size = 0;  // rows x row_step; bytes between the planes of image_stack
  int64_t image_count = 0;
  int64_t images_set = 0;

  // Working buffers, allocated by InitialImage and freed by ReleaseImage. The spares make the set
  // of buffers the same for every run; nothing touches them, so they cost only address space.
  uint8_t* image_stack = nullptr;
  float* factor_map = nullptr;
  float* slope_p = nullptr;
  float* slope_q = nullptr;
  float* gated_factor_map = nullptr;
  float* deriv_p = nullptr;
  float* deriv_q = nullptr;
  float* blurred_deriv_p = nullptr;
  float* blurred_deriv_q = nullptr;
  float* height_map = nullptr;
  float* spare_map = nullptr;
  uint8_t* factor_plane = nullptr;
  uint8_t* channel_plane[3] = {};
  uint8_t* derivative_half[2] = {};
  uint8_t* curvature_plane = nullptr;
  uint8_t* magnitude_plane = nullptr;
  uint8_t* spare_plane[2] = {};
  uint16_t* height_plane = nullptr;
  float* spare_stack = nullptr;

  // Milliseconds.
  double time_fill_ms = 0, time_svd_ms = 0, time_maps_ms = 0, time_flip_ms = 0;
  double tick_mark = 0;  // raw ticks
  double time_light_stage_ms = 0, time_map_images_ms = 0, time_derivative_images_ms = 0;

  std::vector<double> column_levels;  // of the last equalised image

  std::array<ConstantVector, 13> constant_vectors = {velostrix::kZero,
                                                     velostrix::kWords255,
                                                     velostrix::kWidenBytesToWords,
                                                     velostrix::kPackWordsToBytes,
                                                     velostrix::kWidenBytesToInts,
                                                     velostrix::kPackIntsToBytes,
                                                     velostrix::kZero,
                                                     velostrix::kInts255,
                                                     velostrix::kWords255,
                                                     velostrix::kZero,
                                                     velostrix::kWidenBytesToWords,
                                                     velostrix::kPackWordsToBytes,
                                                     velostrix::kFloatsMinusOne};

  Eigen::MatrixXf light_matrix;      // matrix storage of light estimation; spare
  Eigen::MatrixXf intensity_matrix;  // pixels x images, from the last uncalibrated full-frame run

  // What InitialImage allocated: every writer checks the geometry against it. Zero without buffers.
  int64_t allocated_pixels = 0;       // elements of every plane
  int64_t allocated_stack_bytes = 0;  // of image_stack
};
