// Eight floats as one value. Element-wise kernels are templates over V and run with V = Lanes over
// the blocks of a row and with V = float over the rest, so that the rule of a pixel stands once and
// gives the same bits on both.
#pragma once

#include <immintrin.h>

#include <cmath>
#include <cstdint>
#include <cstring>

namespace velostrix {

struct Lanes {
  static constexpr int64_t kCount = 8;

  __m256 v;

  Lanes() : v(_mm256_setzero_ps()) {}
  Lanes(__m256 lanes) : v(lanes) {}
  Lanes(float value) : v(_mm256_set1_ps(value)) {}
};

inline Lanes operator+(Lanes a, Lanes b) { return _mm256_add_ps(a.v, b.v); }
inline Lanes operator-(Lanes a, Lanes b) { return _mm256_sub_ps(a.v, b.v); }
inline Lanes operator*(Lanes a, Lanes b) { return _mm256_mul_ps(a.v, b.v); }
inline Lanes operator/(Lanes a, Lanes b) { return _mm256_div_ps(a.v, b.v); }
inline Lanes operator-(Lanes a) { return _mm256_xor_ps(a.v, _mm256_set1_ps(-0.0F)); }

inline Lanes Abs(Lanes a) { return _mm256_andnot_ps(_mm256_set1_ps(-0.0F), a.v); }
inline float Abs(float a) { return std::fabs(a); }

inline Lanes Sqrt(Lanes a) { return _mm256_sqrt_ps(a.v); }
inline float Sqrt(float a) { return std::sqrt(a); }

// value where a > b, otherwise where not; a NaN is not above anything. Written with masks: GCC 12
// takes a blend with a constant apart into scalar branches.
inline Lanes WhereAbove(Lanes a, Lanes b, Lanes value, Lanes otherwise) {
  const __m256 above = _mm256_cmp_ps(a.v, b.v, _CMP_GT_OQ);
  return _mm256_or_ps(_mm256_and_ps(above, value.v), _mm256_andnot_ps(above, otherwise.v));
}
inline float WhereAbove(float a, float b, float value, float otherwise) {
  return a > b ? value : otherwise;
}

inline void Load(const float* from, Lanes& to) { to = _mm256_loadu_ps(from); }
inline void Load(const float* from, float& to) { to = *from; }
inline void Load(const uint8_t* from, Lanes& to) {
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

inline void Store(float* to, Lanes value) { _mm256_storeu_ps(to, value.v); }
inline void Store(float* to, float value) { *to = value; }

// Has the cache line of `at` fetched; any address will do.
inline void Prefetch(const float* at) {
  _mm_prefetch(reinterpret_cast<const char*>(at), _MM_HINT_T0);
}

// Calls visit(j, V()) over the pixels [begin, end) of a row: V is Lanes for whole blocks, float for
// the rest.
template <typename Visitor>
void ForEachBlock(int64_t begin, int64_t end, Visitor visit) {
  int64_t j = begin;
  for (; j + Lanes::kCount <= end; j += Lanes::kCount) visit(j, Lanes());
  for (; j < end; ++j) visit(j, 0.0F);
}

// The same for work that may be done twice on a pixel: the rest of a row is one more block, which
// reaches back, where the row is long enough.
template <typename Visitor>
void CoverWithBlocks(int64_t begin, int64_t end, Visitor visit) {
  int64_t j = begin;
  for (; j + Lanes::kCount <= end; j += Lanes::kCount) visit(j, Lanes());
  if (j == end) return;
  if (j > begin) {
    visit(end - Lanes::kCount, Lanes());
    return;
  }
  for (; j < end; ++j) visit(j, 0.0F);
}

}  // namespace velostrix
