// Timing of two implementations in turn, memory bandwidth, peak memory.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <vector>

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

// The median time of the work in milliseconds: what is usual, where the best would be luck.
double MedianMs(const std::function<void()>& work, int repeats);

// As many processes as the machine has cores, each busy as long as this object lives.
class BusyCores {
 public:
  BusyCores();
  ~BusyCores();
  BusyCores(const BusyCores&) = delete;
  BusyCores& operator=(const BusyCores&) = delete;

 private:
  std::vector<pid_t> processes_;
};

// Gigabytes per second of a triad a = b + s c over arrays of `count` floats: 12 bytes an element,
// on all threads or one.
double TriadBandwidth(int64_t count, bool all_threads);

// Peak resident bytes that `work` adds, measured in a child process.
int64_t PeakMemory(const std::function<void()>& work);

}  // namespace velostrix::bench
