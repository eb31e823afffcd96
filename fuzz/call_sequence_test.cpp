// The corpus, and sequences of random bytes.
#include "call_sequence.h"

#include <gtest/gtest.h>
#include <malloc.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>

namespace velostrix::fuzz {
namespace {

TEST(CallSequences, OfTheCorpus) {
  for (const auto& entry : std::filesystem::directory_iterator(VELOSTRIX_CORPUS)) {
    SCOPED_TRACE(entry.path());
    std::ifstream file(entry.path(), std::ios::binary);
    const std::vector<char> bytes{std::istreambuf_iterator<char>(file), {}};
    RunCallSequence(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
  }
}

// They leave no memory behind either; sanitizers count that themselves.
TEST(CallSequences, OfRandomBytes) {
  const char* const asked = std::getenv("VELOSTRIX_RANDOM_SEQUENCES");
  const int count = asked != nullptr ? std::atoi(asked) : 100000;
  std::mt19937 random(1);
  std::vector<uint8_t> bytes(256);
  size_t bytes_in_use = 0;
  for (int k = 0; k < count && !HasFailure(); ++k) {
    SCOPED_TRACE(k);
    std::generate(bytes.begin(), bytes.end(), [&] { return static_cast<uint8_t>(random()); });
    RunCallSequence(bytes.data(), bytes.size());
    if (k == count / 4) bytes_in_use = mallinfo2().uordblks;
  }
  EXPECT_LE(mallinfo2().uordblks, bytes_in_use + 65536);
}

}  // namespace
}  // namespace velostrix::fuzz
