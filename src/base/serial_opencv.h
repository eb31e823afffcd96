// OpenCV's functions without OpenCV's threads.
#pragma once

#include <functional>

namespace velostrix {

// Makes the calls on this thread. OpenCV's own pool must not start in the host's process: it cannot
// where threads are scarce, and a forked child waits for it for ever. The host's settings of OpenCV
// are left alone. Calls must not come here again.
void OnThisThread(const std::function<void()>& calls);

}  // namespace velostrix
