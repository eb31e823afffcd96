// OpenCV's functions without OpenCV's threads.
#pragma once

#include <opencv2/core/utility.hpp>

namespace velostrix {

// Makes the calls on this thread. OpenCV's own pool must not start in the host's process: it cannot
// where threads are scarce, and a forked child waits for it for ever. Inside a parallel loop OpenCV
// runs all further loops serially; a loop over one element stays on its caller's thread. The host's
// settings are left alone.
template <typename Calls>
void OnThisThread(const Calls& calls) {
  cv::parallel_for_(cv::Range(0, 1), [&](const cv::Range&) { calls(); });
}

}  // namespace velostrix
