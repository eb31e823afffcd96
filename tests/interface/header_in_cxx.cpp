// The public header in C++, included alone and twice.
#include "velostrix/uncalibration.h"

// Both names of an entry have one type, but for the image setter.
template <typename A, typename B>
constexpr bool kSameType = false;
template <typename A>
constexpr bool kSameType<A, A> = true;

static_assert(kSameType<decltype(SetVelostrixUnCalibrationToolROI_CPU),
                        bool(UnCalibrationTool*, int32_t, int32_t, int32_t, int32_t)>);
static_assert(kSameType<decltype(ClearVelostrixUnCalibrationToolROI_CPU),
                        int64_t(UnCalibrationTool*, int32_t, int32_t, int32_t)>);
static_assert(kSameType<decltype(RunVelostrixUnCalibration_CPU_uncali),
                        decltype(RunVelostrixUnCalibration_CPU_cali)>);
static_assert(kSameType<decltype(RunVelostrixUnCalibration_CPU_partrows_uncali),
                        decltype(RunVelostrixUnCalibration_CPU_partcols_uncali)>);
static_assert(!kSameType<decltype(SetVelostrixUnCalibrationToolImage_CPU),
                         decltype(SetVelostrixUnCalibrationToolImage_CPU_csharp)>);
static_assert(sizeof(bool) == 1 && sizeof(void*) == 8);
