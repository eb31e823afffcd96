// Height from slopes by least squares.
#include "maps/height.h"

#include "maps/height_solver.h"
#include "tool/uncalibration_tool.h"

namespace velostrix {

bool IntegrateHeight(const UnCalibrationTool& tool, const float* p, const float* q,
                     float** height_map) {
  if (tool.rows < 1 || tool.cols < 1) return true;
  SolveHeight({tool.rows, tool.cols, tool.row_step, p, q, tool.iteration_cap}, *height_map);
  return true;
}

}  // namespace velostrix
