// Kernels that turn a row of a float map into a row of an 8-bit or 16-bit plane.
#include "maps/byte_maps.h"

#include <algorithm>

namespace velostrix {
namespace {

// Truncating conversions add just under a half to round, so that no sum reaches the next integer.
constexpr float kAlmostHalf = 0.4999999F;

uint8_t SaturatedByte(int64_t level) {
  return static_cast<uint8_t>(std::clamp<int64_t>(level, 0, 255));
}

// block: scales values to unrounded levels; tail: makes one of the last cols mod 4 values a byte.
template <typename Block, typename Tail>
void RowToBytes(const float* in, int64_t cols, uint8_t* out, Block block, Tail tail) {
  const auto levels = [&](int64_t j) { return block(Load<Float8>(in + j)); };
  int64_t j = 0;
  for (; j + 16 <= cols; j += 16) StoreRounded(out + j, levels(j), levels(j + 8));
  for (; j + 8 <= cols; j += 8) StoreRounded(out + j, levels(j));
  if (j + 4 <= cols) {
    float four[Float8::kCount] = {};
    uint8_t bytes[Float8::kCount];
    std::copy_n(in + j, 4, four);
    StoreRounded(bytes, block(Load<Float8>(four)));
    std::copy_n(bytes, 4, out + j);
    j += 4;
  }
  for (; j < cols; ++j) out[j] = tail(in[j]);
}

// Blocks are scaled in single precision, the tail in double and truncated; magnitude: |v| or v.
template <typename Magnitude>
void LinearToBytes(const float* row, int64_t cols, double gain, int32_t offset, uint8_t* out,
                   Magnitude magnitude) {
  const Float8 gain8 = static_cast<float>(gain);
  const Float8 offset8 = static_cast<float>(offset);
  RowToBytes(
      row, cols, out, [=](Float8 v) { return magnitude(v) * gain8 + offset8; },
      [=](float v) {
        return SaturatedByte(
            TruncateToInt(double{magnitude(v)} * gain + static_cast<double>(offset)));
      });
}

}  // namespace

void MapToByteLinear(const float* row, int64_t cols, double gain, int32_t offset, uint8_t* out) {
  LinearToBytes(row, cols, gain, offset, out, [](auto v) { return v; });
}

void MapToByteAbsLinear(const float* row, int64_t cols, double gain, int32_t offset, uint8_t* out) {
  LinearToBytes(row, cols, gain, offset, out, [](auto v) { return Abs(v); });
}

void MapToByteNormalized(const float* row, int64_t cols, int64_t stride, const Range& range,
                         double gain, uint8_t* out) {
  if (range.IsFlat()) {
    std::fill_n(out, stride, uint8_t{128});
    return;
  }
  const float min = range.min;
  const float scale = static_cast<float>(double{255.0F / (range.max - min)} * gain);
  RowToBytes(
      row, cols, out, [=](Float8 v) { return (v - min) * scale; },
      [=](float v) { return SaturatedByte(TruncateToInt((v - min) * scale + kAlmostHalf)); });
}

void MapToWordNormalized(const float* row, int64_t cols, int64_t stride, const Range& range,
                         uint16_t* out) {
  if (range.IsFlat()) {
    std::fill_n(out, stride, uint16_t{0});
    return;
  }
  const float scale = 65535.0F / (range.max - range.min);
  const auto levels = [&](const float* in) {
    return (Load<Float8>(in) - range.min) * scale + kAlmostHalf;
  };
  int64_t j = 0;
  for (; j + Float8::kCount <= cols; j += Float8::kCount) StoreTruncated(out + j, levels(row + j));
  if (j == cols) return;
  float rest[Float8::kCount] = {};
  uint16_t words[Float8::kCount];
  std::copy(row + j, row + cols, rest);
  StoreTruncated(words, levels(rest));
  std::copy_n(words, cols - j, out + j);
}

void SumBytes(const uint8_t* a, const uint8_t* b, int64_t cols, int32_t offset, uint8_t* out) {
  const auto wrapped_offset = static_cast<int16_t>(offset);  // deliberate
  int64_t j = 0;
  for (; j + Byte8::kCount <= cols; j += Byte8::kCount) {
    StoreSum(out + j, LoadByte8(a + j), LoadByte8(b + j), wrapped_offset);
  }
  for (; j < cols; ++j) out[j] = SaturatedByte(int64_t{b[j]} + offset + a[j]);
}

}  // namespace velostrix
