// The vector types on 64-bit ARM, with the results of x86-64 to the last bit. Comments say where
// the processors differ. A NaN from arithmetic has another sign here, which no result shows.
#pragma once

#include <arm_neon.h>

#include <cstdint>
#include <limits>

namespace velostrix {

struct Float8 {
  static constexpr int64_t kCount = 8;

  float32x4_t low;
  float32x4_t high;

  Float8() : Float8(0.0F) {}
  Float8(float32x4_t low_lanes, float32x4_t high_lanes) : low(low_lanes), high(high_lanes) {}
  Float8(float value) : low(vdupq_n_f32(value)), high(low) {}
};

inline Float8 operator+(Float8 a, Float8 b) {
  return {vaddq_f32(a.low, b.low), vaddq_f32(a.high, b.high)};
}
inline Float8 operator-(Float8 a, Float8 b) {
  return {vsubq_f32(a.low, b.low), vsubq_f32(a.high, b.high)};
}
inline Float8 operator*(Float8 a, Float8 b) {
  return {vmulq_f32(a.low, b.low), vmulq_f32(a.high, b.high)};
}
inline Float8 operator/(Float8 a, Float8 b) {
  return {vdivq_f32(a.low, b.low), vdivq_f32(a.high, b.high)};
}
inline Float8 operator-(Float8 a) { return {vnegq_f32(a.low), vnegq_f32(a.high)}; }

inline Float8 Abs(Float8 a) { return {vabsq_f32(a.low), vabsq_f32(a.high)}; }
inline Float8 Sqrt(Float8 a) { return {vsqrtq_f32(a.low), vsqrtq_f32(a.high)}; }

inline Float8 IfGreater(Float8 a, Float8 b, Float8 value, Float8 otherwise) {
  return {vbslq_f32(vcgtq_f32(a.low, b.low), value.low, otherwise.low),
          vbslq_f32(vcgtq_f32(a.high, b.high), value.high, otherwise.high)};
}
// By comparison: ARM's own minimum and maximum return a NaN of either operand and order the zeros.
inline Float8 Min(Float8 a, Float8 b) { return IfGreater(b, a, a, b); }
inline Float8 Max(Float8 a, Float8 b) { return IfGreater(a, b, a, b); }

inline void Load(const float* from, Float8& to) { to = {vld1q_f32(from), vld1q_f32(from + 4)}; }
inline void Load(const uint8_t* from, Float8& to) {
  const uint16x8_t words = vmovl_u8(vld1_u8(from));
  to = {vcvtq_f32_u32(vmovl_u16(vget_low_u16(words))), vcvtq_f32_u32(vmovl_high_u16(words))};
}

inline void Store(float* to, Float8 value) {
  vst1q_f32(to, value.low);
  vst1q_f32(to + 4, value.high);
}

// Compilers have no common way to write past the cache.
inline void StoreStreaming(float* to, Float8 value) { Store(to, value); }
inline void FinishStreaming() {}

// Beyond int32, conversions saturate here and turn NaN into 0; x86 gives the lowest int32 for all.
inline int32x4_t LowestIfNone(float32x4_t levels, int32x4_t converted) {
  const uint32x4_t has_integer = vcltq_f32(levels, vdupq_n_f32(0x1p31F));
  return vbslq_s32(has_integer, converted, vdupq_n_s32(std::numeric_limits<int32_t>::min()));
}
inline int16x8_t RoundedWords(Float8 levels) {
  return vqmovn_high_s32(vqmovn_s32(LowestIfNone(levels.low, vcvtnq_s32_f32(levels.low))),
                         LowestIfNone(levels.high, vcvtnq_s32_f32(levels.high)));
}
inline void StoreRounded(uint8_t* to, Float8 levels) {
  vst1_u8(to, vqmovun_s16(RoundedWords(levels)));
}
inline void StoreRounded(uint8_t* to, Float8 first, Float8 second) {
  vst1q_u8(to, vqmovun_high_s16(vqmovun_s16(RoundedWords(first)), RoundedWords(second)));
}
inline void StoreTruncated(uint16_t* to, Float8 levels) {
  const int32x4_t low = LowestIfNone(levels.low, vcvtq_s32_f32(levels.low));
  const int32x4_t high = LowestIfNone(levels.high, vcvtq_s32_f32(levels.high));
  vst1q_u16(to, vqmovun_high_s32(vqmovun_s32(low), high));
}

inline int32_t TruncateToInt(double value) {
  const bool has_integer = value > -0x1p31 - 1 && value < 0x1p31;
  return has_integer ? static_cast<int32_t>(value) : std::numeric_limits<int32_t>::min();
}

struct Byte8 {
  static constexpr int64_t kCount = 8;

  uint8x8_t v;
};

inline Byte8 LoadByte8(const uint8_t* from) { return {vld1_u8(from)}; }

inline void StoreSum(uint8_t* to, Byte8 a, Byte8 b, int16_t offset) {
  const int16x8_t sum = vreinterpretq_s16_u16(vaddl_u8(a.v, b.v));
  vst1_u8(to, vqmovun_s16(vaddq_s16(sum, vdupq_n_s16(offset))));
}

struct ProductSums {
  uint32x4_t v;
};

inline ProductSums AddProducts(ProductSums sums, Byte8 a, Byte8 b) {
  return {vpadalq_u16(sums.v, vmull_u8(a.v, b.v))};
}
inline int64_t Total(ProductSums sums) { return static_cast<int64_t>(vaddlvq_u32(sums.v)); }

inline void Prefetch(const float* at) { __builtin_prefetch(at); }
inline void Pause() { __asm__ volatile("yield"); }

}  // namespace velostrix
