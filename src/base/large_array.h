// Zero-filled memory for working vectors of whole frames.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <new>

#if defined(__linux__)
#include <sys/mman.h>
#include <unistd.h>
#endif

namespace velostrix {

struct FreeLargeArray {
  void operator()(float* block) const { std::free(block); }
};

using LargeArray = std::unique_ptr<float[], FreeLargeArray>;

// Uses pages of 2 MB where the system has them: a frame spans thousands of the usual pages, and
// looking them up takes up to a tenth of a sweep's time. Out of memory: std::bad_alloc.
inline LargeArray AllocateLargeArray(int64_t count) {
  const size_t bytes = static_cast<size_t>(count) * sizeof(float);
  LargeArray array(static_cast<float*>(std::calloc(bytes, 1)));
  if (array == nullptr) throw std::bad_alloc();
#if defined(__linux__)
  constexpr size_t kWorthwhile = size_t{4} << 20U;
  if (bytes >= kWorthwhile) {
    const size_t skipped =
        (0 - reinterpret_cast<uintptr_t>(array.get())) % static_cast<size_t>(sysconf(_SC_PAGESIZE));
    madvise(reinterpret_cast<char*>(array.get()) + skipped, bytes - skipped, MADV_HUGEPAGE);
  }
#endif
  return array;
}

}  // namespace velostrix
