// The curvature and the magnitude image, made from the slopes.
#include "maps/derivative_images.h"

#include <algorithm>
#include <cmath>
#include <opencv2/imgproc.hpp>

#include "base/serial_opencv.h"
#include "maps/byte_maps.h"
#include "tool/buffers.h"
#include "tool/parameters.h"
#include "tool/uncalibration_tool.h"

namespace velostrix {
namespace {

// Gaussian smoothing with the tool's blur radius, which is at least 1.
void Blur(const UnCalibrationTool& tool, const cv::Mat& source, cv::Mat destination) {
  const int32_t diameter = 2 * tool.blur_radius;
  const double s = diameter / 3.0;
  const double sigma = 0.5 * std::sqrt((s + 2.0) * s);
  const cv::Size size(diameter + 1, diameter + 1);
  OnThisThread(
      [&] { cv::GaussianBlur(source, destination, size, sigma, sigma, cv::BORDER_DEFAULT); });
}

// Removes one of two offsets. Wraps at the lowest value, like the sum that it enters.
int32_t NegatedOffset(int32_t offset) { return static_cast<int32_t>(-int64_t{offset}); }

// What both kinds have in common: the planes to write and the row to derive into.
class Images : public DerivativeImages {
 public:
  Images(UnCalibrationTool& tool, const SlopeRows& slopes)
      : tool_(tool),
        slopes_(slopes),
        smooths_(tool.blur_radius >= 1),
        curvature_(IsOn(tool, VELOSTRIX_OUTPUT_CURVATURE)),
        magnitude_(IsOn(tool, VELOSTRIX_OUTPUT_MAGNITUDE)) {
    // Kept in its range, used by nothing. A NaN stays.
    if (tool.smoothing < 0.2F) tool.smoothing = 0.2F;
    if (tool.smoothing > 50.0F) tool.smoothing = 50.0F;
  }

 protected:
  uint8_t* CurvatureRow(int64_t i) const { return tool_.curvature_plane + i * tool_.row_step; }
  uint8_t* MagnitudeRow(int64_t i) const { return tool_.magnitude_plane + i * tool_.row_step; }

  UnCalibrationTool& tool_;
  const SlopeRows slopes_;
  const bool smooths_;
  const bool curvature_;
  const bool magnitude_;
};

class FullFrameImages : public Images {
 public:
  FullFrameImages(UnCalibrationTool& tool, const SlopeRows& slopes)
      : Images(tool, slopes),
        dp_{tool.deriv_p, tool.row_step, smooths_ ? tool.rows : 1},
        dq_{tool.deriv_q, tool.row_step, smooths_ ? tool.rows : 1} {}

  void MakeRow(int64_t i) override {
    float* dp = dp_.Row(i);
    float* dq = dq_.Row(i);
    if (slopes_.IsDifferentiable()) {
      DeriveSlopeMaps(slopes_, i, tool_.difference_mode == 1, dp, dq);
    } else {
      std::fill_n(dp, tool_.cols, 0.0F);
      std::fill_n(dq, tool_.cols, 0.0F);
    }
    if (!smooths_) MakeImageRows(i, dp, dq);
  }

  void Smooth() override {
    if (!smooths_) return;
    Blur(tool_, PlaneHeader(tool_, tool_.deriv_p, CV_32FC1),
         PlaneHeader(tool_, tool_.blurred_deriv_p, CV_32FC1));
    Blur(tool_, PlaneHeader(tool_, tool_.deriv_q, CV_32FC1),
         PlaneHeader(tool_, tool_.blurred_deriv_q, CV_32FC1));
    for (int64_t i = 0; i < tool_.rows; ++i) {
      const int64_t at = i * tool_.row_step;
      MakeImageRows(i, tool_.blurred_deriv_p + at, tool_.blurred_deriv_q + at);
    }
  }

 private:
  void MakeImageRows(int64_t i, const float* dp, const float* dq) const {
    uint8_t* const p_half = tool_.derivative_half[0];
    uint8_t* const q_half = tool_.derivative_half[1];
    const int64_t cols = tool_.cols;
    if (curvature_) {
      const int32_t offset = tool_.curvature_offset;
      MapToByteLinear(dp, cols, tool_.curvature_gain, offset, p_half);
      MapToByteLinear(dq, cols, tool_.curvature_gain, offset, q_half);
      SumBytes(p_half, q_half, cols, NegatedOffset(offset), CurvatureRow(i));
    }
    if (magnitude_) {
      // This image deliberately ignores the derivative of P: the half of Q is summed with itself.
      const int32_t offset = tool_.magnitude_offset;
      MapToByteAbsLinear(dq, cols, tool_.magnitude_gain, offset, q_half);
      SumBytes(q_half, q_half, cols, NegatedOffset(offset), MagnitudeRow(i));
    }
  }

  const RowBuffer dp_;
  const RowBuffer dq_;
};

class PartialImages : public Images {
 public:
  using Images::Images;

  void MakeRow(int64_t i) override {
    float* const divergence = tool_.deriv_p;
    const int64_t cols = tool_.cols;
    if (slopes_.IsDifferentiable()) {
      SlopeDivergence(slopes_, i, divergence);
    } else {
      std::fill_n(divergence, cols, 0.0F);
    }
    if (curvature_) {
      MapToByteLinear(divergence, cols, tool_.curvature_gain, tool_.curvature_offset,
                      CurvatureRow(i));
    }
    if (magnitude_) {
      MapToByteAbsLinear(divergence, cols, tool_.magnitude_gain, tool_.magnitude_offset,
                         MagnitudeRow(i));
    }
  }

  void Smooth() override {
    if (!smooths_) return;
    for (uint8_t* plane : {curvature_ ? tool_.curvature_plane : nullptr,
                           magnitude_ ? tool_.magnitude_plane : nullptr}) {
      if (plane == nullptr) continue;
      const cv::Mat image = PlaneHeader(tool_, plane, CV_8UC1);
      Blur(tool_, image, image);
    }
  }
};

}  // namespace

std::unique_ptr<DerivativeImages> FullFrameDerivativeImages(UnCalibrationTool& tool,
                                                            const SlopeRows& slopes) {
  return std::make_unique<FullFrameImages>(tool, slopes);
}

std::unique_ptr<DerivativeImages> PartialDerivativeImages(UnCalibrationTool& tool,
                                                          const SlopeRows& slopes) {
  return std::make_unique<PartialImages>(tool, slopes);
}

}  // namespace velostrix
