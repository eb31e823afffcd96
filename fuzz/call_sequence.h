// A sequence of exported calls that bytes choose, each checked against a model of the tool and the
// plain implementation.
#pragma once

#include <cstddef>
#include <cstdint>

namespace velostrix::fuzz {

// Reads calls and their arguments from the bytes and makes them, on up to three tools. What does
// not hold is a failure of the test. Bytes that ask for much memory or time are passed over:
// bounding those is the host's part.
void RunCallSequence(const uint8_t* data, size_t size);

}  // namespace velostrix::fuzz
