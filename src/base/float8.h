// Eight floats as one value. Element-wise kernels are templates over V and run with V = Float8 over
// the blocks of a row and with V = float over the rest, so that the rule of a pixel is written once
// and gives the same bits on both.
#pragma once

#include <immintrin.h>

#include <array>
#include <cmath>
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
inline float Abs(float a) { return std::fabs(a); }

inline Float8 Sqrt(Float8 a) { return _mm256_sqrt_ps(a.v); }
inline float Sqrt(float a) { return std::sqrt(a); }

// The second operand when either is NaN: a NaN changes no running bound.
inline Float8 Min(Float8 a, Float8 b) { return _mm256_min_ps(a.v, b.v); }
inline float Min(float a, float b) { return a < b ? a : b; }
inline Float8 Max(Float8 a, Float8 b) { return _mm256_max_ps(a.v, b.v); }
inline float Max(float a, float b) { return a > b ? a : b; }

// value where a > b, otherwise where not; a NaN is not above anything. Written with masks: GCC 12
// takes a blend with a constant apart into scalar branches.
inline Float8 IfGreater(Float8 a, Float8 b, Float8 value, Float8 otherwise) {
  const __m256 above = _mm256_cmp_ps(a.v, b.v, _CMP_GT_OQ);
  return _mm256_or_ps(_mm256_and_ps(above, value.v), _mm256_andnot_ps(above, otherwise.v));
}
inline float IfGreater(float a, float b, float value, float otherwise) {
  return a > b ? value : otherwise;
}

inline void Load(const float* from, Float8& to) { to = _mm256_loadu_ps(from); }
inline void Load(const float* from, float& to) { to = *from; }
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
inline void Load(const uint8_t* from, float& to) { to = static_cast<float>(*from); }

// Pixels from `from` on, as many as V holds, bytes converted to float.
template <typename V, typename T>
V Load(const T* from) {
  V value;
  Load(from, value);
  return value;
}

inline void Store(float* to, Float8 value) { _mm256_storeu_ps(to, value.v); }
inline void Store(float* to, float value) { *to = value; }

inline std::array<float, Float8::kCount> ToArray(Float8 value) {
  std::array<float, Float8::kCount> values;
  Store(values.data(), value);
  return values;
}

// Writes past the cache, which keeps what it has. Blocks lie at multiples of 32 bytes;
// FinishStreaming follows the last of them.
inline void StoreStreaming(float* to, Float8 value) { _mm256_stream_ps(to, value.v); }
inline void StoreStreaming(float* to, float value) { *to = value; }
inline void FinishStreaming() { _mm_sfence(); }

// Elements from an address on to the first at which a block may be streamed.
inline int64_t ElementsToAlignment(const float* at) {
  return static_cast<int64_t>((0 - reinterpret_cast<uintptr_t>(at)) % sizeof(Float8) / sizeof *at);
}

// Eight levels, rounded to nearest even and clamped to 0..255. What no int32 holds, NaN included,
// counts as the lowest.
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

// Eight levels, truncated and clamped to 0..65535.
inline void StoreTruncated(uint16_t* to, Float8 levels) {
  const __m256i ints = _mm256_cvttps_epi32(levels.v);
  _mm_storeu_si128(
      reinterpret_cast<__m128i*>(to),
      _mm_packus_epi32(_mm256_castsi256_si128(ints), _mm256_extractf128_si256(ints, 1)));
}

// Has the cache line of `at` fetched; any address will do.
inline void Prefetch(const float* at) {
  _mm_prefetch(reinterpret_cast<const char*>(at), _MM_HINT_T0);
}

// Calls visit(j, V()) over the pixels [begin, end) of a row: V is Float8 for whole blocks, float
// for the rest.
template <typename Visitor>
void ForEachBlock(int64_t begin, int64_t end, Visitor visit) {
  int64_t j = begin;
  for (; j + Float8::kCount <= end; j += Float8::kCount) visit(j, Float8());
  for (; j < end; ++j) visit(j, 0.0F);
}

}  // namespace velostrix
