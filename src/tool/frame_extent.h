// The size of a frame, or of a band of its rows, in memory.
#pragma once

#include <cstdint>

struct UnCalibrationTool;

namespace velostrix {

struct FrameExtent {
  FrameExtent(int64_t rows, int64_t cols, int64_t stride)
      : rows(rows), cols(cols), stride(stride) {}
  // The working frame of a tool; implicit, because that is what most kernels work on.
  inline FrameExtent(const UnCalibrationTool& tool);

  int64_t rows;
  int64_t cols;
  int64_t stride;  // elements from row to row, whatever the type of an element
};

}  // namespace velostrix
