// Kernels that turn float maps into 8-bit and 16-bit planes.
//
// All walk a frame, or a band of its rows, with one stride in elements for every map and plane.
// Blocks of a row and its last few pixels deliberately follow different rounding rules; both are
// part of the output. Buffers are the caller's. "Refused" means: null map, or a frame without rows
// or columns; nothing is written then.
#pragma once

#include <cstdint>

#include "tool/frame_extent.h"

namespace velostrix {

// The range of a float map of height rows and width columns. NaNs count for nothing. Without any
// value min is above max.
void MinMaxOfMap(const float* map, int64_t width, int64_t height, int64_t stride, float& min,
                 float& max);

// out = saturate(v x gain + offset): in blocks of four in single precision, rounded to nearest
// even; the last cols mod 4 pixels of a row in double precision, truncated. Returns 1; 0 when
// refused.
int32_t MapToByteLinear(const FrameExtent& frame, const float* map, uint8_t* out, double gain,
                        int32_t offset);

// The same of |v|.
int32_t MapToByteAbsLinear(const FrameExtent& frame, const float* map, uint8_t* out, double gain,
                           int32_t offset);

// out = saturate((v - min) x 255 / (max - min) x gain), blocks of four rounded to nearest even, the
// last cols mod 4 pixels by adding just under a half and truncating. A flat map fills all rows x
// stride bytes with 128 (out may be null only then). Returns 1; 0 when refused.
int32_t MapToByteNormalized(const FrameExtent& frame, const float* map, uint8_t* out, double gain);

// out = saturate((v - min) x 65535 / (max - min)), by adding just under a half and truncating. A
// flat map deliberately gives zeros, in all rows x stride words, not mid-grey. Returns true;
// false when refused.
bool MapToWordNormalized(const FrameExtent& frame, const float* map, uint16_t* out);

// out = saturate(a + b + offset); a, b and out may be the same plane. In blocks of eight the sum
// wraps at 16 bits; the last cols mod 8 pixels do not wrap. Returns 0 always; nothing is written
// when a is null or the frame is empty.
int32_t SumBytes(const FrameExtent& frame, const uint8_t* a, const uint8_t* b, uint8_t* out,
                 int32_t offset);

}  // namespace velostrix
