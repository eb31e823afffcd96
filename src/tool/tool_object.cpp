// Creation and destruction of the tool object.
#include "tool/tool_object.h"

#include "tool/uncalibration_tool.h"

namespace velostrix {

UnCalibrationTool* CreateTool(UnCalibrationTool** out) {
  auto* tool = new UnCalibrationTool();
  if (out != nullptr) *out = tool;
  return tool;
}

void DestroyTool(UnCalibrationTool* tool) { delete tool; }

}  // namespace velostrix
