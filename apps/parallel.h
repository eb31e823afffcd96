// Independent pieces of work on all cores.
#pragma once

#include <cstddef>
#include <functional>

namespace velostrix::cli {

// Sets how many threads an InParallel may use from now on; the default is one for each core. For
// commands that use the cores themselves.
void LimitParallel(size_t threads);

// Calls work(k) for every k below count on the allowed number of threads, the caller included, or
// on as many as can be started; all have ended on return. After an exception no further piece
// begins, and the exception of the smallest k is thrown.
void InParallel(size_t count, const std::function<void(size_t)>& work);

}  // namespace velostrix::cli
