// The vector types of the byte and float kernels: one set of operations, implemented for each
// instruction set with the same bits.
//
// Float8 is eight floats as one value. Element-wise kernels are templates over V and run with
// V = Float8 over the blocks of a row and with V = float over the rest, so that the rule of a pixel
// is written once. Byte8 is eight bytes, for sums and for exact inner products.
//
//   + - * / - Abs Sqrt       rounded to nearest even, subnormals kept
//   Min(a, b), Max(a, b)     b when either is NaN or both are zero: a NaN changes no running bound
//   IfGreater(a, b, x, y)    x where a > b, otherwise y; a NaN is not above anything
//   Load, Store              from any address; bytes become floats
//   StoreStreaming           writes past the cache, which keeps what it has, where the processor
//                            can; at multiples of 32 bytes. FinishStreaming follows the last
//   StoreRounded             levels rounded to nearest even and clamped to 0..255
//   StoreTruncated           levels truncated and clamped to 0..65535
//                            In both, what no int32 holds, NaN included, counts as the lowest.
//   TruncateToInt            the same of one float or double, which becomes the lowest int32
//   StoreSum                 a + b + offset, modulo 65536 as a signed word, clamped to 0..255
//   AddProducts, Total       ProductSums is four 32-bit sums, to each of which a block adds two
//                            products; their total
//   Prefetch                 fetches the cache line of an address; any address is allowed
//   Pause                    for waiting loops, between two reads
#pragma once

#include <array>
#include <cmath>
#include <cstdint>

#if defined(__aarch64__)
#include "base/vectors_neon.h"
#else
#include "base/vectors_avx.h"
#endif

namespace velostrix {

inline float Abs(float a) { return std::fabs(a); }
inline float Sqrt(float a) { return std::sqrt(a); }
inline float Min(float a, float b) { return a < b ? a : b; }
inline float Max(float a, float b) { return a > b ? a : b; }
inline float IfGreater(float a, float b, float value, float otherwise) {
  return a > b ? value : otherwise;
}
inline void Load(const float* from, float& to) { to = *from; }
inline void Load(const uint8_t* from, float& to) { to = static_cast<float>(*from); }
inline void Store(float* to, float value) { *to = value; }
inline void StoreStreaming(float* to, float value) { *to = value; }

// Pixels from `from` on, as many as V holds, bytes converted to float.
template <typename V, typename T>
V Load(const T* from) {
  V value;
  Load(from, value);
  return value;
}

inline std::array<float, Float8::kCount> ToArray(Float8 value) {
  std::array<float, Float8::kCount> values;
  Store(values.data(), value);
  return values;
}

// Elements from an address on to the first at which a block may be streamed.
inline int64_t ElementsToAlignment(const float* at) {
  return static_cast<int64_t>((0 - reinterpret_cast<uintptr_t>(at)) % sizeof(Float8) / sizeof *at);
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
