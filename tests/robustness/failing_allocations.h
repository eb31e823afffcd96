// Lets one allocation of the library fail.
#pragma once

#include <cstdint>

namespace velostrix {

// From Start on, allocations are counted and the one with the given number, from 0, fails: heap,
// Eigen (blocks of 512 bytes or more) and OpenCV images. Stop ends that and says whether it came to
// that.
void StartFailingAllocations(int64_t failing);
bool StopFailingAllocations();

}  // namespace velostrix
