// OpenCV's functions without OpenCV's threads.
#pragma once

#include <functional>

namespace velostrix {

// Makes the calls on this thread. OpenCV's thread pool must not start in the application's process:
// it cannot where threads are scarce, and a forked child would wait for it endlessly. The
// application's OpenCV settings are unchanged. The calls must not call this function again.
void OnThisThread(const std::function<void()>& calls);

}  // namespace velostrix
