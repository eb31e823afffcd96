// The cores and the memory that this process may use.
#pragma once

#include <cstdint>

namespace velostrix::cli {

// The processor cores that the process may use by its affinity and control group; at least 1.
int UsableCores();

// The bytes of free memory, or those that the control group allows where that is less.
int64_t UsableMemory();

}  // namespace velostrix::cli
