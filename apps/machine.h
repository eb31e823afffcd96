// What the machine, or the container around this process, gives it.
#pragma once

#include <cstdint>

namespace velostrix::cli {

// Processor cores that the process may use, at least 1: by its affinity and its control group.
int UsableCores();

// Bytes of memory that are free, or that its control group allows where that is less.
int64_t UsableMemory();

}  // namespace velostrix::cli
