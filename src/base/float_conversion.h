// Float-to-integer conversions that are defined for every input, as the processor defines them: a
// value outside the int32 range and a NaN give the integer-indefinite value INT32_MIN, where a cast
// would be undefined.
#pragma once

#include <emmintrin.h>

#include <cstdint>

namespace velostrix {

inline int32_t TruncateToInt(float value) { return _mm_cvttss_si32(_mm_set_ss(value)); }
inline int32_t TruncateToInt(double value) { return _mm_cvttsd_si32(_mm_set_sd(value)); }

}  // namespace velostrix
