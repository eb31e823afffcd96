// Every stage of a run, written plainly: whole matrices, assembled systems, one pixel at a time.
//
// Nothing here is shared with the library: the tests compare the library with it, and the
// benchmarks measure against it. Input is assumed to be valid: 3 to 8 images, at least two rows and
// three columns where a stage needs them.
#pragma once

#include <Eigen/Core>
#include <array>
#include <cstdint>
#include <opencv2/core/mat.hpp>
#include <vector>

namespace velostrix::reference {

// The working frame and its images. All float maps and planes have its size and row step.
struct Frame {
  int64_t rows = 0;
  int64_t cols = 0;
  int64_t row_step = 0;    // elements
  int64_t plane_size = 0;  // bytes from image to image
  int image_count = 0;
  const uint8_t* stack = nullptr;

  int64_t pixels() const { return rows * cols; }
  int64_t At(int64_t row, int64_t col) const { return row * row_step + col; }
  uint8_t Intensity(int image, int64_t row, int64_t col) const {
    return stack[image * plane_size + At(row, col)];
  }
};

// The four maps of a light stage; albedo and normal in the calibrated one.
struct WorkingMaps {
  float* factor;
  float* slope_p;
  float* slope_q;
  float* gated_factor;
};

// Light stages. intensity_matrix becomes pixels x images, in hundreds of grey levels.
void FactorizeIntensities(const Frame& frame, const WorkingMaps& maps,
                          Eigen::MatrixXf& intensity_matrix);
void FactorizeIntensitiesPartRows(const Frame& frame, const WorkingMaps& maps, int64_t band);
void FactorizeIntensitiesPartCols(const Frame& frame, const WorkingMaps& maps, int64_t band);
void MirrorAboutMidRange(const Frame& frame, float* map);

std::vector<std::array<float, 3>> LampRing(int image_count);
void SolveCalibratedLights(const Frame& frame, const WorkingMaps& maps);

// Returns the number of iterations.
int64_t IntegrateHeight(const Frame& frame, const float* p, const float* q, int32_t iteration_cap,
                        float* height);

void DeriveSlopeMaps(const Frame& frame, const float* p, const float* q, bool forward, float* dp,
                     float* dq);
void SlopeDivergence(const Frame& frame, const float* p, const float* q, float* out);

void MinMaxOfMap(const Frame& frame, const float* map, float& min, float& max);
void MapToByteLinear(const Frame& frame, const float* map, uint8_t* out, double gain,
                     int32_t offset);
void MapToByteAbsLinear(const Frame& frame, const float* map, uint8_t* out, double gain,
                        int32_t offset);
void MapToByteNormalized(const Frame& frame, const float* map, uint8_t* out, double gain);
void MapToWordNormalized(const Frame& frame, const float* map, uint16_t* out);
void SumBytes(const Frame& frame, const uint8_t* a, const uint8_t* b, uint8_t* out, int32_t offset);

// Shifts every column of an 8-bit single-channel image to a common level; replaces levels.
cv::Mat EqualiseBrightness(std::vector<double>& levels, const cv::Mat& source,
                           double reference_level);

}  // namespace velostrix::reference
