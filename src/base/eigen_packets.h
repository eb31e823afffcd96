// Eigen on 64-bit ARM, with the results of x86-64 to the last bit. The build includes this file
// before Eigen everywhere (cmake/flags.cmake).
//
// The width of Eigen's packets determines the order of its sums, and so their last digit; its
// packets for ARM are half as wide and fuse products with sums. So Eigen uses its packets for AVX
// here, with their instructions from SIMDe: fast enough, as it only decomposes small matrices.
#pragma once

#if defined(__aarch64__)

#define SIMDE_ENABLE_NATIVE_ALIASES
#include <simde/x86/avx.h>

// Eigen's choice is off, and made here.
#define EIGEN_DONT_VECTORIZE
#define EIGEN_VECTORIZE
#define EIGEN_VECTORIZE_SSE
#define EIGEN_VECTORIZE_SSE2
#define EIGEN_VECTORIZE_SSE3
#define EIGEN_VECTORIZE_SSSE3
#define EIGEN_VECTORIZE_SSE4_1
#define EIGEN_VECTORIZE_SSE4_2
#define EIGEN_VECTORIZE_AVX
#define EIGEN_MAX_ALIGN_BYTES 32
#define EIGEN_MAX_STATIC_ALIGN_BYTES 32

// SIMDe has these as functions and as macros; the macros take no arguments of Eigen's types.
#undef _mm_slli_epi32
#undef _mm_srli_epi32
#undef _mm_slli_epi64
#undef _mm_srli_epi64
#define _mm_slli_epi32(a, count) (simde_mm_slli_epi32)(a, count)
#define _mm_srli_epi32(a, count) (simde_mm_srli_epi32)(a, count)
#define _mm_slli_epi64(a, count) (simde_mm_slli_epi64)(a, count)
#define _mm_srli_epi64(a, count) (simde_mm_srli_epi64)(a, count)

// Eigen asks GCC for this one by its own name.
#define __builtin_ia32_sqrtsd(a) _mm_sqrt_pd(a)

#endif
