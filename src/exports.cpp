// The exported functions of the module, each under both its names: sets the floating-point state,
// refuses null pointers, and makes one call.
#include "base/floating_point_scope.h"
#include "pipeline/run.h"
#include "tool/buffers.h"
#include "tool/image_input.h"
#include "tool/parameters.h"
#include "tool/region.h"
#include "tool/tool_object.h"
#include "velostrix/uncalibration.h"

using velostrix::FloatingPointScope;
using velostrix::RunKind;

UnCalibrationTool* CreateVelostrixUnCalibrationToolPtr_CPU(UnCalibrationTool** out) {
  const FloatingPointScope scope;
  return velostrix::CreateTool(out);
}
UnCalibrationTool* CreateVelostrixUnCalibrationToolPtr_CPU_csharp(UnCalibrationTool** out) {
  return CreateVelostrixUnCalibrationToolPtr_CPU(out);
}

bool SetVelostrixUnCalibrationToolParam_CPU(UnCalibrationTool* tool,
                                            const UnCalibrationParam* param) {
  const FloatingPointScope scope;
  return tool != nullptr && param != nullptr && velostrix::SetParam(*tool, *param);
}
bool SetVelostrixUnCalibrationToolParam_CPU_csharp(UnCalibrationTool* tool,
                                                   const UnCalibrationParam* param) {
  return SetVelostrixUnCalibrationToolParam_CPU(tool, param);
}

bool SetVelostrixUnCalibrationToolROI_CPU(UnCalibrationTool* tool, int32_t x1, int32_t y1,
                                          int32_t x2, int32_t y2) {
  const FloatingPointScope scope;
  return tool != nullptr && velostrix::SetRegion(*tool, x1, y1, x2, y2);
}
bool SetVelostrixUnCalibrationToolROI_CPU_csharp(UnCalibrationTool* tool, int32_t x1, int32_t y1,
                                                 int32_t x2, int32_t y2) {
  return SetVelostrixUnCalibrationToolROI_CPU(tool, x1, y1, x2, y2);
}

int64_t ClearVelostrixUnCalibrationToolROI_CPU(UnCalibrationTool* tool, int32_t rows, int32_t cols,
                                               int32_t row_step) {
  const FloatingPointScope scope;
  return tool != nullptr ? velostrix::ClearRegion(*tool, rows, cols, row_step) : 0;
}
int64_t ClearVelostrixUnCalibrationToolROI_CPU_csharp(UnCalibrationTool* tool, int32_t rows,
                                                      int32_t cols, int32_t row_step) {
  return ClearVelostrixUnCalibrationToolROI_CPU(tool, rows, cols, row_step);
}

void InitialVelostrixUnCalibrationToolImage_CPU(UnCalibrationTool* tool) {
  const FloatingPointScope scope;
  if (tool != nullptr) velostrix::InitialImage(*tool);
}
void InitialVelostrixUnCalibrationToolImage_CPU_csharp(UnCalibrationTool* tool) {
  InitialVelostrixUnCalibrationToolImage_CPU(tool);
}

bool SetVelostrixUnCalibrationToolImage_CPU(UnCalibrationTool* tool, const cv::Mat* image) {
  const FloatingPointScope scope;
  return tool != nullptr && image != nullptr && velostrix::SetImage(*tool, *image);
}
bool SetVelostrixUnCalibrationToolImage_CPU_csharp(UnCalibrationTool* tool,
                                                   const ImageRecord* image) {
  const FloatingPointScope scope;
  return tool != nullptr && image != nullptr && velostrix::SetImage(*tool, *image);
}

void ClearVelostrixUnCalibrationToolImage_CPU(UnCalibrationTool* tool) {
  const FloatingPointScope scope;
  if (tool != nullptr) velostrix::ClearImage(*tool);
}
void ClearVelostrixUnCalibrationToolImage_CPU_csharp(UnCalibrationTool* tool) {
  ClearVelostrixUnCalibrationToolImage_CPU(tool);
}

int32_t RunVelostrixUnCalibration_CPU_uncali(UnCalibrationTool* tool, cv::Mat* factor,
                                             cv::Mat* curvature, cv::Mat* magnitude,
                                             cv::Mat* channel0, cv::Mat* channel1,
                                             cv::Mat* channel2, cv::Mat* normal, cv::Mat* height) {
  const FloatingPointScope scope;
  if (tool == nullptr) return 0;
  return velostrix::Run(
      *tool, {factor, curvature, magnitude, {channel0, channel1, channel2}, normal, height},
      RunKind::kUncalibrated);
}
int32_t RunVelostrixUnCalibration_CPU_csharp_uncali(UnCalibrationTool* tool, cv::Mat* factor,
                                                    cv::Mat* curvature, cv::Mat* magnitude,
                                                    cv::Mat* channel0, cv::Mat* channel1,
                                                    cv::Mat* channel2, cv::Mat* normal,
                                                    cv::Mat* height) {
  return RunVelostrixUnCalibration_CPU_uncali(tool, factor, curvature, magnitude, channel0,
                                              channel1, channel2, normal, height);
}

int32_t RunVelostrixUnCalibration_CPU_cali(UnCalibrationTool* tool, cv::Mat* factor,
                                           cv::Mat* curvature, cv::Mat* magnitude,
                                           cv::Mat* channel0, cv::Mat* channel1, cv::Mat* channel2,
                                           cv::Mat* normal, cv::Mat* height) {
  const FloatingPointScope scope;
  if (tool == nullptr) return 0;
  return velostrix::Run(
      *tool, {factor, curvature, magnitude, {channel0, channel1, channel2}, normal, height},
      RunKind::kCalibrated);
}
int32_t RunVelostrixUnCalibration_CPU_csharp_cali(UnCalibrationTool* tool, cv::Mat* factor,
                                                  cv::Mat* curvature, cv::Mat* magnitude,
                                                  cv::Mat* channel0, cv::Mat* channel1,
                                                  cv::Mat* channel2, cv::Mat* normal,
                                                  cv::Mat* height) {
  return RunVelostrixUnCalibration_CPU_cali(tool, factor, curvature, magnitude, channel0, channel1,
                                            channel2, normal, height);
}

int32_t RunVelostrixUnCalibration_CPU_partcols_uncali(UnCalibrationTool* tool, cv::Mat* factor,
                                                      cv::Mat* curvature, cv::Mat* magnitude,
                                                      cv::Mat* channel0, cv::Mat* channel1,
                                                      cv::Mat* channel2, cv::Mat* normal,
                                                      cv::Mat* height, int32_t band) {
  const FloatingPointScope scope;
  if (tool == nullptr) return 0;
  return velostrix::Run(
      *tool, {factor, curvature, magnitude, {channel0, channel1, channel2}, normal, height},
      RunKind::kPartCols, band);
}
int32_t RunVelostrixUnCalibration_CPU_partcols_csharp_uncali(UnCalibrationTool* tool,
                                                             cv::Mat* factor, cv::Mat* curvature,
                                                             cv::Mat* magnitude, cv::Mat* channel0,
                                                             cv::Mat* channel1, cv::Mat* channel2,
                                                             cv::Mat* normal, cv::Mat* height,
                                                             int32_t band) {
  return RunVelostrixUnCalibration_CPU_partcols_uncali(tool, factor, curvature, magnitude, channel0,
                                                       channel1, channel2, normal, height, band);
}

int32_t RunVelostrixUnCalibration_CPU_partrows_uncali(UnCalibrationTool* tool, cv::Mat* factor,
                                                      cv::Mat* curvature, cv::Mat* magnitude,
                                                      cv::Mat* channel0, cv::Mat* channel1,
                                                      cv::Mat* channel2, cv::Mat* normal,
                                                      cv::Mat* height, int32_t band) {
  const FloatingPointScope scope;
  if (tool == nullptr) return 0;
  return velostrix::Run(
      *tool, {factor, curvature, magnitude, {channel0, channel1, channel2}, normal, height},
      RunKind::kPartRows, band);
}
int32_t RunVelostrixUnCalibration_CPU_partrows_csharp_uncali(UnCalibrationTool* tool,
                                                             cv::Mat* factor, cv::Mat* curvature,
                                                             cv::Mat* magnitude, cv::Mat* channel0,
                                                             cv::Mat* channel1, cv::Mat* channel2,
                                                             cv::Mat* normal, cv::Mat* height,
                                                             int32_t band) {
  return RunVelostrixUnCalibration_CPU_partrows_uncali(tool, factor, curvature, magnitude, channel0,
                                                       channel1, channel2, normal, height, band);
}

void ReleaseVelostrixUnCalibrationToolImage_CPU(UnCalibrationTool* tool) {
  const FloatingPointScope scope;
  if (tool != nullptr) velostrix::ReleaseImage(*tool);
}
void ReleaseVelostrixUnCalibrationToolImage_CPU_csharp(UnCalibrationTool* tool) {
  ReleaseVelostrixUnCalibrationToolImage_CPU(tool);
}

void DestroyImageArrayCPU(cv::Mat* first) {
  const FloatingPointScope scope;
  velostrix::DestroyImageArray(first);
}
void DestroyImageArrayCPU_csharp(cv::Mat* first) { DestroyImageArrayCPU(first); }

void DestroyVelostrixUnCalibrationToolPtr_CPU(UnCalibrationTool* tool) {
  const FloatingPointScope scope;
  velostrix::DestroyTool(tool);
}
void DestroyVelostrixUnCalibrationToolPtr_CPU_csharp(UnCalibrationTool* tool) {
  DestroyVelostrixUnCalibrationToolPtr_CPU(tool);
}
