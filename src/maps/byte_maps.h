// Kernels that turn a row of a float map into a row of an 8-bit or 16-bit plane.
//
// The blocks of a row and its last few pixels deliberately follow different rounding rules; both
// are part of the output. A NaN becomes 0. Plain counterparts:
// bench/reference/reference_byte_maps.cpp.
#pragma once

#include <cstdint>

#include "base/range.h"

namespace velostrix {

// out = saturate(v x gain + offset): in blocks of four in single precision, rounded to nearest
// even; the last cols mod 4 pixels in double precision, truncated.
void MapToByteLinear(const float* row, int64_t cols, double gain, int32_t offset, uint8_t* out);

// The same of |v|.
void MapToByteAbsLinear(const float* row, int64_t cols, double gain, int32_t offset, uint8_t* out);

// out = saturate((v - min) x 255 / (max - min) x gain) for the range of the whole map, blocks of
// four rounded to nearest even, the last cols mod 4 pixels by adding just under a half and
// truncating. A flat map fills the whole stride with 128.
void MapToByteNormalized(const float* row, int64_t cols, int64_t stride, const Range& range,
                         double gain, uint8_t* out);

// out = saturate((v - min) x 65535 / (max - min)) for the range of the whole map, by adding just
// under a half and truncating. A flat map deliberately fills the whole stride with 0, not mid-grey.
void MapToWordNormalized(const float* row, int64_t cols, int64_t stride, const Range& range,
                         uint16_t* out);

// out = saturate(a + b + offset); a, b and out may be the same row. In blocks of eight the sum
// wraps at 16 bits; the last cols mod 8 pixels do not wrap.
void SumBytes(const uint8_t* a, const uint8_t* b, int64_t cols, int32_t offset, uint8_t* out);

}  // namespace velostrix
