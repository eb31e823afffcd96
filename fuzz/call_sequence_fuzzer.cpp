// libFuzzer's entry into call sequences.
#include <gtest/gtest.h>

#include "call_sequence.h"

// Sizes that no memory holds are the library's to refuse, not the sanitizer's to end.
extern "C" const char* __asan_default_options() { return "allocator_may_return_null=1"; }

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  testing::FLAGS_gtest_break_on_failure = true;
  velostrix::fuzz::RunCallSequence(data, size);
  return 0;
}
