// The image count as a compile-time constant, so that sums over the images are written out.
#pragma once

#include <type_traits>

namespace velostrix {

// Returns work(std::integral_constant<int, N>()) for N = image_count, 3 to 8.
template <typename Work>
auto WithImageCount(int image_count, Work work) {
  switch (image_count) {
    case 3:
      return work(std::integral_constant<int, 3>());
    case 4:
      return work(std::integral_constant<int, 4>());
    case 5:
      return work(std::integral_constant<int, 5>());
    case 6:
      return work(std::integral_constant<int, 6>());
    case 7:
      return work(std::integral_constant<int, 7>());
    default:
      return work(std::integral_constant<int, 8>());
  }
}

}  // namespace velostrix
