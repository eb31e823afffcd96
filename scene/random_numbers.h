// Random numbers, the same bits on every platform, unlike the distributions of <random>.
#pragma once

#include <cstdint>

namespace velostrix::scene {

// SplitMix64 (Steele, Lea, Flood 2014).
class RandomNumbers {
 public:
  explicit RandomNumbers(uint64_t seed) : state_(seed) {}

  uint64_t Bits() {
    state_ += 0x9E3779B97F4A7C15U;
    uint64_t z = state_;
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9U;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBU;
    return z ^ (z >> 31);
  }

  // Uniform in [low, high).
  double Uniform(double low, double high) {
    constexpr double kUnit = 1.0 / (uint64_t{1} << 53);
    return low + (high - low) * static_cast<double>(Bits() >> 11) * kUnit;
  }

  // Mean 0, variance 1: the sum of twelve uniform numbers of 16 bits. Only integer arithmetic and
  // one product, so that no library's logarithm decides about a grey level; the tails end at 6.
  double Gaussian() {
    int64_t sum = 0;
    for (int draw = 0; draw < 3; ++draw) {
      uint64_t bits = Bits();
      for (int part = 0; part < 4; ++part, bits >>= 16) sum += static_cast<int64_t>(bits & 0xFFFFU);
    }
    return static_cast<double>(2 * sum - 12 * 0xFFFF) / (2.0 * 65536.0);
  }

 private:
  uint64_t state_;
};

}  // namespace velostrix::scene
