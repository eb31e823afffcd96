// The public header in C++ without OpenCV in reach: included twice, every function of its type.
#include "velostrix/uncalibration.h"

namespace {

using Tool = UnCalibrationTool*;
using Mat = VelostrixMat*;
using Run = int32_t(Tool, Mat, Mat, Mat, Mat, Mat, Mat, Mat, Mat);
using PartialRun = int32_t(Tool, Mat, Mat, Mat, Mat, Mat, Mat, Mat, Mat, int32_t);

template <typename Type>
constexpr bool AreOf(Type*, Type* = nullptr) {
  return true;
}

static_assert(AreOf<Tool(Tool*)>(CreateVelostrixUnCalibrationToolPtr_CPU,
                                 CreateVelostrixUnCalibrationToolPtr_CPU_csharp));
static_assert(AreOf<bool(Tool, const UnCalibrationParam*)>(
    SetVelostrixUnCalibrationToolParam_CPU, SetVelostrixUnCalibrationToolParam_CPU_csharp));
static_assert(AreOf<bool(Tool, int32_t, int32_t, int32_t, int32_t)>(
    SetVelostrixUnCalibrationToolROI_CPU, SetVelostrixUnCalibrationToolROI_CPU_csharp));
static_assert(AreOf<int64_t(Tool, int32_t, int32_t, int32_t)>(
    ClearVelostrixUnCalibrationToolROI_CPU, ClearVelostrixUnCalibrationToolROI_CPU_csharp));
static_assert(AreOf<bool(Tool, const VelostrixMat*)>(SetVelostrixUnCalibrationToolImage_CPU));
static_assert(AreOf<bool(Tool, const ImageRecord*)>(SetVelostrixUnCalibrationToolImage_CPU_csharp));
static_assert(AreOf<Run>(RunVelostrixUnCalibration_CPU_uncali, RunVelostrixUnCalibration_CPU_cali));
static_assert(AreOf<Run>(RunVelostrixUnCalibration_CPU_csharp_uncali,
                         RunVelostrixUnCalibration_CPU_csharp_cali));
static_assert(AreOf<PartialRun>(RunVelostrixUnCalibration_CPU_partcols_uncali,
                                RunVelostrixUnCalibration_CPU_partrows_uncali));
static_assert(AreOf<PartialRun>(RunVelostrixUnCalibration_CPU_partcols_csharp_uncali,
                                RunVelostrixUnCalibration_CPU_partrows_csharp_uncali));
static_assert(sizeof(bool) == 1 && sizeof(void*) == 8);

}  // namespace
