// Kernels that turn float maps into 8-bit and 16-bit planes.
#include "maps/byte_maps.h"

#include <emmintrin.h>
#include <smmintrin.h>

#include <algorithm>
#include <cmath>
#include <cstring>

#include "tool/float_conversion.h"

namespace velostrix {
namespace {

// What a truncating conversion adds to round: just under a half, so that no sum reaches the next
// integer.
constexpr float kAlmostHalf = 0.4999999F;

bool IsRefused(const FrameExtent& frame, const void* map) {
  return map == nullptr || frame.rows < 1 || frame.cols < 1;
}

uint8_t SaturatedByte(int64_t level) {
  return static_cast<uint8_t>(std::clamp<int64_t>(level, 0, 255));
}

// One row to bytes. block: four values scaled to levels, not rounded yet; tail: one value to its
// byte. Saturating packs clamp the rounded levels to 0..255.
template <typename Block, typename Tail>
void RowToBytes(const float* in, uint8_t* out, int64_t cols, Block block, Tail tail) {
  const auto rounded = [&](int64_t j) { return _mm_cvtps_epi32(block(_mm_loadu_ps(in + j))); };
  int64_t j = 0;
  for (; j + 16 <= cols; j += 16) {
    const __m128i low = _mm_packs_epi32(rounded(j), rounded(j + 4));
    const __m128i high = _mm_packs_epi32(rounded(j + 8), rounded(j + 12));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(out + j), _mm_packus_epi16(low, high));
  }
  for (; j + 4 <= cols; j += 4) {
    const __m128i words = _mm_packs_epi32(rounded(j), _mm_setzero_si128());
    const int32_t bytes = _mm_cvtsi128_si32(_mm_packus_epi16(words, _mm_setzero_si128()));
    std::memcpy(out + j, &bytes, sizeof bytes);
  }
  for (; j < cols; ++j) out[j] = tail(in[j]);
}

template <typename Block, typename Tail>
void MapToBytes(const FrameExtent& frame, const float* map, uint8_t* out, Block block, Tail tail) {
  for (int64_t i = 0; i < frame.rows; ++i) {
    RowToBytes(map + i * frame.stride, out + i * frame.stride, frame.cols, block, tail);
  }
}

// Blocks are scaled in single precision, the tail in double and truncated; magnitude picks |v| or
// v.
template <typename Magnitude4, typename Magnitude>
int32_t LinearToBytes(const FrameExtent& frame, const float* map, uint8_t* out, double gain,
                      int32_t offset, Magnitude4 magnitude4, Magnitude magnitude) {
  if (IsRefused(frame, map)) return 0;
  const __m128 gain4 = _mm_set1_ps(static_cast<float>(gain));
  const __m128 offset4 = _mm_set1_ps(static_cast<float>(offset));
  MapToBytes(
      frame, map, out,
      [=](__m128 v) { return _mm_add_ps(_mm_mul_ps(magnitude4(v), gain4), offset4); },
      [=](float v) {
        return SaturatedByte(
            TruncateToInt(double{magnitude(v)} * gain + static_cast<double>(offset)));
      });
  return 1;
}

}  // namespace

void MinMaxOfMap(const float* map, int64_t width, int64_t height, int64_t stride, float& min,
                 float& max) {
  // Two steps inside the largest finite float; deliberate.
  min = 0x1.fffffap+127F;
  max = -0x1.fffffap+127F;

  // minps and maxps return their second operand when either is NaN: a NaN changes no bound.
  __m128 min4[2] = {_mm_set1_ps(min), _mm_set1_ps(min)};
  __m128 max4[2] = {_mm_set1_ps(max), _mm_set1_ps(max)};
  for (int64_t i = 0; i < height; ++i) {
    const float* row = map + i * stride;
    int64_t j = 0;
    for (; j + 8 <= width; j += 8) {
      for (int half = 0; half < 2; ++half) {
        const __m128 v = _mm_loadu_ps(row + j + 4 * half);
        min4[half] = _mm_min_ps(v, min4[half]);
        max4[half] = _mm_max_ps(v, max4[half]);
      }
    }
    for (; j < width; ++j) {
      if (min > row[j]) min = row[j];
      if (row[j] > max) max = row[j];
    }
  }
  float lanes[4];
  _mm_storeu_ps(lanes, _mm_min_ps(min4[0], min4[1]));
  for (const float lane : lanes) min = std::min(min, lane);
  _mm_storeu_ps(lanes, _mm_max_ps(max4[0], max4[1]));
  for (const float lane : lanes) max = std::max(max, lane);
}

int32_t MapToByteLinear(const FrameExtent& frame, const float* map, uint8_t* out, double gain,
                        int32_t offset) {
  return LinearToBytes(
      frame, map, out, gain, offset, [](__m128 v) { return v; }, [](float v) { return v; });
}

int32_t MapToByteAbsLinear(const FrameExtent& frame, const float* map, uint8_t* out, double gain,
                           int32_t offset) {
  return LinearToBytes(
      frame, map, out, gain, offset, [](__m128 v) { return _mm_andnot_ps(_mm_set1_ps(-0.0F), v); },
      [](float v) { return std::fabs(v); });
}

int32_t MapToByteNormalized(const FrameExtent& frame, const float* map, uint8_t* out, double gain) {
  if (IsRefused(frame, map)) return 0;
  float min = 0;
  float max = 0;
  MinMaxOfMap(map, frame.cols, frame.rows, frame.stride, min, max);
  if (max == min) {
    if (out != nullptr) std::memset(out, 128, static_cast<size_t>(frame.rows * frame.stride));
    return 1;
  }
  const float scale = static_cast<float>(double{255.0F / (max - min)} * gain);
  const __m128 min4 = _mm_set1_ps(min);
  const __m128 scale4 = _mm_set1_ps(scale);
  MapToBytes(
      frame, map, out, [=](__m128 v) { return _mm_mul_ps(_mm_sub_ps(v, min4), scale4); },
      [=](float v) { return SaturatedByte(TruncateToInt((v - min) * scale + kAlmostHalf)); });
  return 1;
}

bool MapToWordNormalized(const FrameExtent& frame, const float* map, uint16_t* out) {
  if (IsRefused(frame, map)) return false;
  float min = 0;
  float max = 0;
  MinMaxOfMap(map, frame.cols, frame.rows, frame.stride, min, max);
  if (max == min) {
    std::fill_n(out, frame.rows * frame.stride, uint16_t{0});
    return true;
  }
  const float scale = 65535.0F / (max - min);
  const auto level4 = [=](__m128 v) {
    const __m128 scaled = _mm_mul_ps(_mm_sub_ps(v, _mm_set1_ps(min)), _mm_set1_ps(scale));
    return _mm_cvttps_epi32(_mm_add_ps(scaled, _mm_set1_ps(kAlmostHalf)));
  };
  for (int64_t i = 0; i < frame.rows; ++i) {
    const float* in = map + i * frame.stride;
    uint16_t* words = out + i * frame.stride;
    int64_t j = 0;
    for (; j + 8 <= frame.cols; j += 8) {
      _mm_storeu_si128(
          reinterpret_cast<__m128i*>(words + j),
          _mm_packus_epi32(level4(_mm_loadu_ps(in + j)), level4(_mm_loadu_ps(in + j + 4))));
    }
    for (; j < frame.cols; ++j) {
      const __m128i level = _mm_packus_epi32(level4(_mm_set_ss(in[j])), _mm_setzero_si128());
      words[j] = static_cast<uint16_t>(_mm_cvtsi128_si32(level));
    }
  }
  return true;
}

int32_t SumBytes(const FrameExtent& frame, const uint8_t* a, const uint8_t* b, uint8_t* out,
                 int32_t offset) {
  if (IsRefused(frame, a)) return 0;
  const __m128i offset8 = _mm_set1_epi16(static_cast<int16_t>(offset));  // modulo 65536; deliberate
  const auto widened = [](const uint8_t* bytes) {
    return _mm_cvtepu8_epi16(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(bytes)));
  };
  for (int64_t i = 0; i < frame.rows; ++i) {
    const int64_t row = i * frame.stride;
    int64_t j = 0;
    for (; j + 8 <= frame.cols; j += 8) {
      const __m128i sum =
          _mm_add_epi16(_mm_add_epi16(widened(a + row + j), widened(b + row + j)), offset8);
      _mm_storel_epi64(reinterpret_cast<__m128i*>(out + row + j), _mm_packus_epi16(sum, sum));
    }
    for (; j < frame.cols; ++j) {
      out[row + j] = SaturatedByte(int64_t{b[row + j]} + offset + a[row + j]);
    }
  }
  return 0;
}

}  // namespace velostrix
