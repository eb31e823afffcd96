// A tool object that lives for one test, and its working buffers.
#pragma once

#include <cstdint>
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

inline ToolPtr NewTool(const UnCalibrationParam& param) {
  ToolPtr tool(CreateTool(nullptr));
  SetParam(*tool, param);
  return tool;
}

struct Buffer {
  void* data;
  int64_t pixel_bytes;  // in all its planes
};

inline std::vector<Buffer> BuffersOf(const UnCalibrationTool& tool) {
  std::vector<Buffer> buffers = {{tool.image_stack, tool.image_count},
                                 {tool.height_plane, 2},
                                 {tool.spare_stack, 4 * tool.image_count}};
  for (float* map : {tool.factor_map, tool.slope_p, tool.slope_q, tool.gated_factor_map,
                     tool.deriv_p, tool.deriv_q, tool.blurred_deriv_p, tool.blurred_deriv_q,
                     tool.height_map, tool.spare_map}) {
    buffers.push_back({map, 4});
  }
  for (uint8_t* plane :
       {tool.factor_plane, tool.channel_plane[0], tool.channel_plane[1], tool.channel_plane[2],
        tool.derivative_half[0], tool.derivative_half[1], tool.curvature_plane,
        tool.magnitude_plane, tool.spare_plane[0], tool.spare_plane[1]}) {
    buffers.push_back({plane, 1});
  }
  return buffers;
}

}  // namespace velostrix
