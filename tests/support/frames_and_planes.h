// Frames of any geometry for stage tests, and planes that notice writes outside the frame.
#pragma once

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <random>
#include <vector>

#include "support/plain_run.h"
#include "support/tool_under_test.h"

namespace velostrix {

struct Geometry {
  int64_t rows;
  int64_t cols;
  int64_t row_step;
  int64_t image_count = 3;
};

inline std::ostream& operator<<(std::ostream& out, const Geometry& g) {
  return out << g.cols << " x " << g.rows << ", row step " << g.row_step << ", " << g.image_count
             << " images";
}

// Frames of every width from 1 to 40, with 2 to 4 rows, packed and with gaps between the rows.
inline std::vector<Geometry> NarrowFrames() {
  std::vector<Geometry> frames;
  for (int64_t cols = 1; cols <= 40; ++cols) {
    frames.push_back({3, cols, cols});
    frames.push_back({2 + cols % 3, cols, cols + 7});
  }
  return frames;
}

// A tool with the geometry but without buffers, for stages that are given theirs.
inline ToolPtr UnallocatedTool(const Geometry& g) {
  UnCalibrationParam param = {};
  param.image_count = static_cast<int32_t>(g.image_count);
  param.width = static_cast<int32_t>(g.cols);
  param.height = static_cast<int32_t>(g.rows);
  param.row_step = static_cast<int32_t>(g.row_step);
  param.scale = 1.0;
  return NewTool(param);
}

// The byte of image k at (row, col) of an allocated tool.
inline uint8_t& PixelOf(UnCalibrationTool& tool, int64_t k, int64_t row, int64_t col) {
  return tool.image_stack[k * tool.plane_size + row * tool.row_step + col];
}

// An allocated tool whose images are noise, between the rows too: of another amplitude in each, so
// that the singular values lie well apart. A pixel in 40 is black in all of them.
inline ToolPtr NoisyTool(const Geometry& g, uint32_t seed) {
  ToolPtr tool = UnallocatedTool(g);
  InitialImage(*tool);
  std::mt19937 random(seed);
  for (int64_t o = 0; o < tool->plane_size; ++o) {
    const bool is_black = random() % 40 == 0;
    for (int64_t k = 0; k < g.image_count; ++k) {
      const auto level = static_cast<uint8_t>(random() % (256 / static_cast<uint64_t>(k + 1)));
      PixelOf(*tool, k, 0, o) = is_black ? uint8_t{0} : level;
    }
  }
  return tool;
}

// A plane with the frame's geometry and guard elements behind it, filled with a value that no
// stage produces.
template <typename T>
class GuardedPlane {
 public:
  explicit GuardedPlane(const UnCalibrationTool& tool)
      : rows_(tool.rows),
        cols_(tool.cols),
        row_step_(tool.row_step),
        elements_(static_cast<size_t>(tool.rows * tool.row_step) + kGuard) {
    std::memset(elements_.data(), kFill, elements_.size() * sizeof(T));
  }

  T* data() { return elements_.data(); }
  const T* data() const { return elements_.data(); }
  T& operator()(int64_t row, int64_t col) {
    return elements_[static_cast<size_t>(row * row_step_ + col)];
  }

  // Sets every pixel of the frame to value(row, col).
  template <typename Value>
  void Fill(Value value) {
    for (int64_t i = 0; i < rows_; ++i) {
      for (int64_t j = 0; j < cols_; ++j) (*this)(i, j) = static_cast<T>(value(i, j));
    }
  }

  // The same bytes everywhere, between the rows and behind the last one too; NaNs are all the same.
  testing::AssertionResult SameAs(const GuardedPlane& expected) const {
    for (size_t o = 0; o < elements_.size(); ++o) {
      const T actual = elements_[o];
      const T wanted = expected.elements_[o];
      const bool both_nan =
          std::isnan(static_cast<float>(actual)) && std::isnan(static_cast<float>(wanted));
      if (both_nan || std::memcmp(&actual, &wanted, sizeof(T)) == 0) continue;
      const auto at = static_cast<int64_t>(o);
      return testing::AssertionFailure()
             << "row " << at / row_step_ << ", column " << at % row_step_ << " is " << +actual
             << " and not " << +wanted;
    }
    return testing::AssertionSuccess();
  }

 private:
  static constexpr int64_t kGuard = 32;
  static constexpr int kFill = 0xC5;

  int64_t rows_;
  int64_t cols_;
  int64_t row_step_;
  std::vector<T> elements_;
};

}  // namespace velostrix
