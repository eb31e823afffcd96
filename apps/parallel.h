// Independent pieces of work on all cores.
#pragma once

#include <cstddef>
#include <functional>

namespace velostrix::cli {

// Calls work(k) for every k below count, on as many threads as there are cores, the caller's among
// them, or as can be started; all have ended on return. After an exception no further piece is
// begun, and that of the least k is thrown.
void InParallel(size_t count, const std::function<void(size_t)>& work);

}  // namespace velostrix::cli
