// A sequence of exported calls that bytes choose, each checked against a model of the tool.
#pragma once

#include <cstddef>
#include <cstdint>

namespace velostrix::fuzz {

// Reads calls and their arguments from the bytes and makes them, on up to three tools. Says on
// stderr what does not hold after a call, and aborts. Bytes that ask for much memory or time are
// passed over: bounding those is the host's part.
void RunCallSequence(const uint8_t* data, size_t size);

}  // namespace velostrix::fuzz
