// The vector types on x86-64 with AVX, whose results are the rule for all processors.
#pragma once

#include <immintrin.h>

#include <cstdint>
#include <cstring>

namespace velostrix {

struct Float8 {
  static constexpr int64_t kCount = 8;

  __m256 v;

  Float8() : v(_mm256_setzero_ps()) {}
  Float8(__m256 lanes) : v(lanes) {}
  Float8(float value) : v(_mm256_set1_ps(value)) {}
};

inline Float8 operator+(Float8 a, Float8 b) { return _mm256_add_ps(a.v, b.v); }
inline Float8 operator-(Float8 a, Float8 b) { return _mm256_sub_ps(a.v, b.v); }
inline Float8 operator*(Float8 a, Float8 b) { return _mm256_mul_ps(a.v, b.v); }
inline Float8 operator/(Float8 a, Float8 b) { return _mm256_div_ps(a.v, b.v); }
inline Float8 operator-(Float8 a) { return _mm256_xor_ps(a.v, _mm256_set1_ps(-0.0F)); }

inline Float8 Abs(Float8 a) { return _mm256_andnot_ps(_mm256_set1_ps(-0.0F), a.v); }
inline Float8 Sqrt(Float8 a) { return _mm256_sqrt_ps(a.v); }
inline Float8 Min(Float8 a, Float8 b) { return _mm256_min_ps(a.v, b.v); }
inline Float8 Max(Float8 a, Float8 b) { return _mm256_max_ps(a.v, b.v); }

// Written with masks: GCC 12 takes a blend with a constant apart into scalar branches.
inline Float8 IfGreater(Float8 a, Float8 b, Float8 value, Float8 otherwise) {
  const __m256 above = _mm256_cmp_ps(a.v, b.v, _CMP_GT_OQ);
  return _mm256_or_ps(_mm256_and_ps(above, value.v), _mm256_andnot_ps(above, otherwise.v));
}

inline void Load(const float* from, Float8& to) { to = _mm256_loadu_ps(from); }
inline void Load(const uint8_t* from, Float8& to) {
  const auto widened = [](const uint8_t* bytes) {
    int32_t four = 0;
    std::memcpy(&four, bytes, sizeof four);
    return _mm_cvtepu8_epi32(_mm_cvtsi32_si128(four));
  };
  const __m128i low = widened(from);
  const __m128i high = widened(from + 4);
  to = _mm256_cvtepi32_ps(_mm256_insertf128_si256(_mm256_castsi128_si256(low), high, 1));
}

inline void Store(float* to, Float8 value) { _mm256_storeu_ps(to, value.v); }

inline void StoreStreaming(float* to, Float8 value) { _mm256_stream_ps(to, value.v); }
inline void FinishStreaming() { _mm_sfence(); }

// What no int32 holds, NaN included, becomes the lowest one, which the packs clamp to 0.
inline __m128i RoundedWords(Float8 levels) {
  const __m256i ints = _mm256_cvtps_epi32(levels.v);
  return _mm_packs_epi32(_mm256_castsi256_si128(ints), _mm256_extractf128_si256(ints, 1));
}
inline void StoreRounded(uint8_t* to, Float8 levels) {
  const __m128i words = RoundedWords(levels);
  _mm_storel_epi64(reinterpret_cast<__m128i*>(to), _mm_packus_epi16(words, words));
}
inline void StoreRounded(uint8_t* to, Float8 first, Float8 second) {
  _mm_storeu_si128(reinterpret_cast<__m128i*>(to),
                   _mm_packus_epi16(RoundedWords(first), RoundedWords(second)));
}
inline void StoreTruncated(uint16_t* to, Float8 levels) {
  const __m256i ints = _mm256_cvttps_epi32(levels.v);
  _mm_storeu_si128(
      reinterpret_cast<__m128i*>(to),
      _mm_packus_epi32(_mm256_castsi256_si128(ints), _mm256_extractf128_si256(ints, 1)));
}

inline int32_t TruncateToInt(float value) { return _mm_cvttss_si32(_mm_set_ss(value)); }
inline int32_t TruncateToInt(double value) { return _mm_cvttsd_si32(_mm_set_sd(value)); }

// Words, as nothing multiplies bytes.
struct Byte8 {
  static constexpr int64_t kCount = 8;

  __m128i v;
};

inline Byte8 LoadByte8(const uint8_t* from) {
  return {_mm_cvtepu8_epi16(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(from)))};
}

inline void StoreSum(uint8_t* to, Byte8 a, Byte8 b, int16_t offset) {
  const __m128i sum = _mm_add_epi16(_mm_add_epi16(a.v, b.v), _mm_set1_epi16(offset));
  _mm_storel_epi64(reinterpret_cast<__m128i*>(to), _mm_packus_epi16(sum, sum));
}

struct ProductSums {
  __m128i v;
};

inline ProductSums AddProducts(ProductSums sums, Byte8 a, Byte8 b) {
  return {_mm_add_epi32(sums.v, _mm_madd_epi16(a.v, b.v))};
}
inline int64_t Total(ProductSums sums) {
  alignas(16) int32_t lanes[4];
  _mm_store_si128(reinterpret_cast<__m128i*>(lanes), sums.v);
  return int64_t{lanes[0]} + lanes[1] + lanes[2] + lanes[3];
}

inline void Prefetch(const float* at) {
  _mm_prefetch(reinterpret_cast<const char*>(at), _MM_HINT_T0);
}
inline void Pause() { _mm_pause(); }

}  // namespace velostrix
