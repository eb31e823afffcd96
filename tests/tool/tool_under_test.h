// A tool object that lives for one test, and a record of its state to compare moments by.
#pragma once

#include <cstring>
#include <memory>
#include <vector>

#include "tool/buffers.h"
#include "tool/parameters.h"
#include "tool/tool_object.h"
#include "tool/uncalibration_tool.h"

namespace velostrix {

struct ToolDeleter {
  void operator()(UnCalibrationTool* tool) const {
    ReleaseImage(*tool);
    DestroyTool(tool);
  }
};
using ToolPtr = std::unique_ptr<UnCalibrationTool, ToolDeleter>;

inline UnCalibrationParam FrameParam(int32_t width, int32_t height, int32_t image_count = 3) {
  UnCalibrationParam param = {};
  param.image_count = image_count;
  param.width = param.row_step = width;
  param.height = height;
  param.scale = 1.0;
  return param;
}

inline ToolPtr NewTool() { return ToolPtr(CreateTool(nullptr)); }

inline ToolPtr NewTool(const UnCalibrationParam& param) {
  ToolPtr tool = NewTool();
  SetParam(*tool, param);
  return tool;
}

// Every byte of the object, and of what it owns that an image setter may write.
struct ToolState {
  explicit ToolState(const UnCalibrationTool& tool)
      : object(sizeof tool), column_levels(tool.column_levels) {
    std::memcpy(object.data(), static_cast<const void*>(&tool), object.size());
    if (tool.image_stack != nullptr) {
      stack.assign(tool.image_stack, tool.image_stack + tool.allocated_stack_bytes);
    }
  }
  bool operator==(const ToolState& other) const {
    return object == other.object && column_levels == other.column_levels && stack == other.stack;
  }

  std::vector<uint8_t> object;
  std::vector<uint8_t> stack;
  std::vector<double> column_levels;
};

}  // namespace velostrix
