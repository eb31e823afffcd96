// Independent pieces of work on all cores.
#pragma once

#include <cstddef>
#include <functional>

namespace velostrix::cli {

// How many threads one InParallel may use from here on: as many as there are cores when not set.
// For who uses the cores otherwise.
void LimitParallel(size_t threads);

// Calls work(k) for every k below count, on as many threads as are allowed, the caller's among
// them, or as can be started; all have ended on return. After an exception no further piece is
// begun, and that of the least k is thrown.
void InParallel(size_t count, const std::function<void(size_t)>& work);

}  // namespace velostrix::cli
