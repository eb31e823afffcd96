// Chooses those of many images of one part whose lamps differ most.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace velostrix::cli {

// The indices, ascending, of the `count` files whose images differ most in their light.
std::vector<size_t> ChooseImages(const std::vector<std::string>& files, size_t count);

}  // namespace velostrix::cli
