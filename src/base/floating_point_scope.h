// The floating-point state that the library computes in.
#pragma once

#include <cfenv>

namespace velostrix {

// Sets the default state of this thread (round to nearest, no traps, subnormals kept) and restores
// the caller's, flags included. Use it around calls that the compiler cannot see into: it does not
// know that arithmetic depends on the state.
class FloatingPointScope {
 public:
  FloatingPointScope() {
    std::fegetenv(&host_state_);
    std::fesetenv(FE_DFL_ENV);
  }
  ~FloatingPointScope() { std::fesetenv(&host_state_); }
  FloatingPointScope(const FloatingPointScope&) = delete;
  FloatingPointScope& operator=(const FloatingPointScope&) = delete;

 private:
  std::fenv_t host_state_;
};

}  // namespace velostrix
