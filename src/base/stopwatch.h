// Stage timing.
#pragma once

#include <opencv2/core/utility.hpp>

namespace velostrix {

// Measures one stage after another.
class Stopwatch {
 public:
  // Milliseconds since the last lap or the start.
  double Lap() {
    const int64_t now = cv::getTickCount();
    const double elapsed = static_cast<double>(now - start_) / cv::getTickFrequency() * 1000.0;
    start_ = now;
    return elapsed;
  }

 private:
  int64_t start_ = cv::getTickCount();
};

}  // namespace velostrix
