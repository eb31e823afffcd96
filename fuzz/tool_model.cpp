// What a tool's state must be after each call: the documented rules, written a second time.
#include "tool_model.h"

#include <algorithm>
#include <limits>

namespace velostrix::fuzz {
namespace {

constexpr double kLargestSize = std::numeric_limits<int32_t>::max();

int32_t ToInt32(int64_t value) {
  constexpr int64_t kMin = std::numeric_limits<int32_t>::min();
  constexpr int64_t kMax = std::numeric_limits<int32_t>::max();
  return static_cast<int32_t>(std::clamp(value, kMin, kMax));
}

bool IsImageCount(int64_t count) { return count >= 3 && count <= 8; }

}  // namespace

void ToolModel::SetParam(const UnCalibrationParam& given) {
  param = given;
  cols = roi_width = param.width;
  rows = roi_height = param.height;
  row_step = param.row_step;
  plane_size = rows * row_step;
  if (param.scale < 0.99) downscale_on = 1;
}

bool ToolModel::SetRegion(int32_t x1, int32_t y1, int32_t x2, int32_t y2) {
  const int32_t x = std::max(x1, 0);
  const int32_t y = std::max(y1, 0);
  const int64_t width = std::min<int64_t>(x2, cols - 1) + 1 - x;
  const int64_t height = std::min<int64_t>(y2, rows - 1) + 1 - y;
  const bool is_empty = width <= 0 || height <= 0;
  const double scaled_width = static_cast<double>(width) * param.scale;
  const double scaled_height = static_cast<double>(height) * param.scale;
  const bool scales = downscale_on == 1 && scaled_width > 10.0 && scaled_height > 10.0;
  if (!is_empty && scales && std::max(scaled_width, scaled_height) > kLargestSize) return false;

  roi = {x, y, ToInt32(width), ToInt32(height)};
  roi_set = is_empty ? 0 : 1;
  if (is_empty) return false;
  roi_width = width;
  roi_height = height;
  downscale_on = scales ? 1 : 0;
  rows = scales ? static_cast<int64_t>(scaled_height) : height;
  cols = row_step = scales ? static_cast<int64_t>(scaled_width) : width;
  plane_size = rows * cols;
  return true;
}

int64_t ToolModel::ClearRegion(int32_t rows_, int32_t cols_, int32_t row_step_) {
  roi = {};
  roi_set = 0;
  rows = rows_;
  cols = cols_;
  row_step = row_step_;
  return plane_size = rows * row_step;
}

bool ToolModel::TakeScaledSize() {
  if (roi_set == 0 && downscale_on == 1) {
    // Sizes count as unsigned here: times a vanishing scale a negative one gives zero.
    const double scaled_rows = static_cast<double>(static_cast<uint64_t>(roi_height)) * param.scale;
    const double scaled_cols = static_cast<double>(static_cast<uint64_t>(roi_width)) * param.scale;
    for (const double size : {scaled_rows, scaled_cols}) {
      if (!(size >= 0 && size <= kLargestSize)) return false;
    }
    rows = static_cast<int64_t>(scaled_rows);
    cols = row_step = static_cast<int64_t>(scaled_cols);
    plane_size = rows * cols;
  }
  return IsImageCount(param.image_count) && rows > 0 && cols > 0 && row_step >= cols;
}

void ToolModel::TakeBuffers(bool had_memory) {
  allocated_pixels = had_memory ? rows * row_step : 0;
  allocated_stack_bytes = allocated_pixels * param.image_count;
}

void ToolModel::DropBuffers() { allocated_pixels = allocated_stack_bytes = images_set = 0; }

bool ToolModel::Holds(int64_t images) const {
  return rows > 0 && cols > 0 && row_step >= cols && rows * row_step <= allocated_pixels &&
         images * rows * row_step <= allocated_stack_bytes;
}

bool ToolModel::IsOn(int output) const {
  const bool is_channel =
      output >= VELOSTRIX_OUTPUT_CHANNEL0 && output <= VELOSTRIX_OUTPUT_CHANNEL2;
  return param.output_enable[output] != 0 ||
         (is_channel && param.output_enable[VELOSTRIX_OUTPUT_NORMAL] != 0);
}

Outcome ToolModel::ImageOutcome(const cv::Mat& image) const {
  // A count of 0 or less has no last image: then the stack alone is the limit.
  const bool all_set = param.image_count > 0 && images_set >= param.image_count;
  if (all_set || !Holds(images_set + 1)) return Outcome::kRefused;
  if (image.empty() || image.dims > 2 || image.data == nullptr) return Outcome::kRefused;

  int64_t image_rows = image.rows;
  int64_t image_cols = image.cols;
  auto span = static_cast<int64_t>(image.step[0]) * (image_rows - 1) +
              image_cols * static_cast<int64_t>(image.elemSize());
  if (roi_set != 0) {
    if (int64_t{roi.x} + roi.width > image_cols || int64_t{roi.y} + roi.height > image_rows) {
      return Outcome::kThrows;
    }
    image_rows = roi.height;
    image_cols = roi.width;
  }
  bool may_throw = false;
  if (downscale_on == 1) {
    may_throw = image.depth() == CV_8S || image.depth() == CV_32S || image.depth() == CV_16F;
    image_rows = rows;
    image_cols = cols;
  }
  if (roi_set != 0 || downscale_on == 1 || param.equalise_on != 0) {
    const auto element = static_cast<int64_t>(image.elemSize());
    span = image_rows * image_cols * (param.equalise_on != 0 ? 1 : element);
  }
  const bool is_size = image_rows == rows && image_cols == cols;
  const bool fits_region =
      roi_set == 0 || (is_size && image_cols * static_cast<int64_t>(image.elemSize()) == row_step);
  bool stores = fits_region;
  if (fits_region && param.equalise_on != 0) {
    stores = image.channels() == 1;
    may_throw = may_throw || (stores && image.depth() != CV_8U);
  }
  // Equalised images are bytes; others are bytes of the working size or a long enough run of bytes.
  const bool is_frame = is_size && (param.equalise_on != 0 || image.type() == CV_8UC1);
  stores = stores && (is_frame || span >= rows * cols);
  if (stores) return may_throw ? Outcome::kDoneOrThrows : Outcome::kDone;
  return may_throw ? Outcome::kRefusedOrThrows : Outcome::kRefused;
}

Outcome ToolModel::RunOutcome(RunKind run, int32_t band,
                              const std::array<bool, 8>& has_place) const {
  for (int output = 0; output < VELOSTRIX_OUTPUT_COUNT; ++output) {
    if (IsOn(output) && !has_place[static_cast<size_t>(output)]) return Outcome::kRefused;
  }
  const bool blurs = IsOn(VELOSTRIX_OUTPUT_CURVATURE) || IsOn(VELOSTRIX_OUTPUT_MAGNITUDE);
  if (blurs && param.blur_radius > 32767) return Outcome::kRefused;
  const bool delivers = std::any_of(std::begin(param.output_enable), std::end(param.output_enable),
                                    [](int32_t output) { return output != 0; });
  const bool resizes = delivers && downscale_on == 1;
  if (resizes && (roi_width < 1 || roi_height < 1)) return Outcome::kRefused;
  if (!IsImageCount(param.image_count) || !Holds(param.image_count)) return Outcome::kRefused;

  const int64_t pieces = std::max(band, 10);
  const int64_t last_band = rows % pieces == 0 ? pieces : rows % pieces;
  const bool refused =
      (run == RunKind::kUncalibrated && rows * cols < 3) ||
      (run == RunKind::kPartRows && std::min(last_band, rows) * cols < 3) ||
      (run == RunKind::kPartCols && (rows < 2 || rows * std::min(cols, pieces) < 3));
  if (refused) return Outcome::kRefused;
  // Results of a size that no memory holds: OpenCV says so.
  const bool is_huge = resizes && static_cast<double>(roi_width * roi_height) > kLargestSize;
  return is_huge ? Outcome::kDoneOrThrows : Outcome::kDone;
}

}  // namespace velostrix::fuzz
