// Reads arguments from fuzzer bytes: mostly plausible values, some hostile ones.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <iterator>
#include <limits>

namespace velostrix::fuzz {

// Zeros follow the end of the bytes.
class ByteSource {
 public:
  ByteSource(const uint8_t* data, size_t size) : data_(data), size_(size) {}

  bool empty() const { return size_ == 0; }

  uint8_t Byte() {
    if (size_ == 0) return 0;
    --size_;
    return *data_++;
  }
  int Below(int end) { return Byte() % end; }

  template <typename T>
  T Raw() {
    T value = {};
    uint8_t bytes[sizeof(T)];
    for (uint8_t& byte : bytes) byte = Byte();
    std::memcpy(&value, bytes, sizeof value);
    return value;
  }

  int32_t Int() {
    constexpr int32_t kMin = std::numeric_limits<int32_t>::min();
    constexpr int32_t kMax = std::numeric_limits<int32_t>::max();
    constexpr int32_t kHostile[] = {-1,       kMin,    kMax,          kMin + 1, kMax - 1, 300,
                                    -1000000, 1 << 15, 32767,         65536,    1 << 24,  1 << 30,
                                    0,        9,       (1 << 30) + 1, -9};
    const uint8_t kind = Byte();
    if (kind < 192) return kind % 48;
    if (kind < 248) return kHostile[static_cast<size_t>(kind) % std::size(kHostile)];
    return Raw<int32_t>();
  }

  double Double() {
    constexpr double kInfinity = std::numeric_limits<double>::infinity();
    constexpr double kHostile[] = {std::numeric_limits<double>::quiet_NaN(),
                                   kInfinity,
                                   -kInfinity,
                                   1e300,
                                   -1e300,
                                   5e-324,
                                   3e9,
                                   0.99,
                                   0.995,
                                   0.0,
                                   -0.0,
                                   -1.0};
    const uint8_t kind = Byte();
    if (kind < 128) return (kind + 1) / 64.0;
    if (kind < 240) return kHostile[kind % std::size(kHostile)];
    return Raw<double>();
  }

 private:
  const uint8_t* data_;
  size_t size_;
};

}  // namespace velostrix::fuzz
