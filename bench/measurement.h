// Timing of two implementations in turn, memory bandwidth, peak memory.
#pragma once

#include <cstdint>
#include <functional>

namespace velostrix::bench {

struct Comparison {
  double product_ms = 0;
  double reference_ms = 0;

  double Ratio() const { return reference_ms / product_ms; }
};

// Best times of both, run in turn so that a noisy machine disturbs both alike. The slower reference
// is repeated less often.
Comparison Compare(const std::function<void()>& product, const std::function<void()>& reference,
                   int repeats);

// Gigabytes per second of a triad a = b + s c over arrays of `count` floats: 12 bytes an element,
// on all threads or one.
double TriadBandwidth(int64_t count, bool all_threads);

// Peak resident bytes that `work` adds, measured in a child process.
int64_t PeakMemory(const std::function<void()>& work);

}  // namespace velostrix::bench
