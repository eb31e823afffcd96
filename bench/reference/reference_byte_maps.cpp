// 8-bit and 16-bit planes from float maps, one pixel at a time.
//
// The last few pixels of a row follow other rules than its blocks. Conversions are those of x86
// processors: what does not fit an int32, NaN included, becomes INT32_MIN and then 0.
#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>

#include "reference/reference_stages.h"

namespace velostrix::reference {
namespace {

int32_t Truncate(double value) {
  const double whole = std::trunc(value);
  return std::fabs(whole) < 0x1p31 ? static_cast<int32_t>(whole)
                                   : std::numeric_limits<int32_t>::min();
}
int32_t Round(float value) { return Truncate(std::rint(value)); }

uint8_t ToByte(int64_t level) { return static_cast<uint8_t>(std::clamp<int64_t>(level, 0, 255)); }

constexpr float kJustUnderHalf = 0x1.fffffap-2F;

// Calls in_block(o) for the whole blocks of every row and in_tail(o) for the rest of the row.
template <typename InBlock, typename InTail>
void ForEachPixel(const Frame& frame, int64_t block, InBlock in_block, InTail in_tail) {
  for (int64_t i = 0; i < frame.rows; ++i) {
    const int64_t tail = frame.cols - frame.cols % block;
    for (int64_t j = 0; j < tail; ++j) in_block(frame.At(i, j));
    for (int64_t j = tail; j < frame.cols; ++j) in_tail(frame.At(i, j));
  }
}

template <typename Value>
void Linear(const Frame& frame, const float* map, uint8_t* out, double gain, int32_t offset,
            Value value) {
  const auto gain_f = static_cast<float>(gain);
  const auto offset_f = static_cast<float>(offset);
  ForEachPixel(
      frame, 4, [&](int64_t o) { out[o] = ToByte(Round(value(map[o]) * gain_f + offset_f)); },
      [&](int64_t o) {
        const double y = static_cast<double>(value(map[o])) * gain + static_cast<double>(offset);
        out[o] = ToByte(Truncate(y));
      });
}

}  // namespace

void MinMaxOfMap(const Frame& frame, const float* map, float& min, float& max) {
  min = 0x1.fffffap127F;
  max = -0x1.fffffap127F;
  for (int64_t i = 0; i < frame.rows; ++i) {
    for (int64_t j = 0; j < frame.cols; ++j) {
      const float v = map[frame.At(i, j)];
      if (min > v) min = v;
      if (v > max) max = v;
    }
  }
}

void MapToByteLinear(const Frame& frame, const float* map, uint8_t* out, double gain,
                     int32_t offset) {
  Linear(frame, map, out, gain, offset, [](float v) { return v; });
}

void MapToByteAbsLinear(const Frame& frame, const float* map, uint8_t* out, double gain,
                        int32_t offset) {
  Linear(frame, map, out, gain, offset, [](float v) { return std::fabs(v); });
}

void MapToByteNormalized(const Frame& frame, const float* map, uint8_t* out, double gain) {
  float min = 0.0F;
  float max = 0.0F;
  MinMaxOfMap(frame, map, min, max);
  if (max == min) {
    std::memset(out, 128, static_cast<size_t>(frame.rows * frame.row_step));
    return;
  }
  const float scale = 255.0F / (max - min);
  const auto s = static_cast<float>(static_cast<double>(scale) * gain);
  ForEachPixel(
      frame, 4, [&](int64_t o) { out[o] = ToByte(Round((map[o] - min) * s)); },
      [&](int64_t o) { out[o] = ToByte(Truncate((map[o] - min) * s + kJustUnderHalf)); });
}

void MapToWordNormalized(const Frame& frame, const float* map, uint16_t* out) {
  float min = 0.0F;
  float max = 0.0F;
  MinMaxOfMap(frame, map, min, max);
  if (max == min) {
    std::fill_n(out, frame.rows * frame.row_step, uint16_t{0});
    return;
  }
  const float scale = 65535.0F / (max - min);
  for (int64_t i = 0; i < frame.rows; ++i) {
    for (int64_t j = 0; j < frame.cols; ++j) {
      const int64_t o = frame.At(i, j);
      const int32_t level = Truncate((map[o] - min) * scale + kJustUnderHalf);
      out[o] = static_cast<uint16_t>(std::clamp(level, 0, 65535));
    }
  }
}

void SumBytes(const Frame& frame, const uint8_t* a, const uint8_t* b, uint8_t* out,
              int32_t offset) {
  // In blocks the sum is one of 16 bits and wraps.
  ForEachPixel(
      frame, 8,
      [&](int64_t o) { out[o] = ToByte(static_cast<int16_t>(int64_t{offset} + a[o] + b[o])); },
      [&](int64_t o) { out[o] = ToByte(int64_t{offset} + a[o] + b[o]); });
}

}  // namespace velostrix::reference
