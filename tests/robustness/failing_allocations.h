// Lets one allocation of the library fail.
#pragma once

#include <cstddef>
#include <cstdint>

namespace velostrix {

// From Start on, allocations of at least so many bytes are counted and the one with the given
// number, from 0, fails: heap, Eigen and, whatever their size, OpenCV images. Stop ends that and
// says whether it came to that.
void StartFailingAllocations(int64_t failing, size_t smallest_bytes);
bool StopFailingAllocations();

}  // namespace velostrix
