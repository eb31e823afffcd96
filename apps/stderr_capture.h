// Captures what image codecs print on stderr, so that our own messages can contain it.
#pragma once

#include <functional>
#include <string>

namespace velostrix::cli {

// Calls OpenCV's reading or writing of images; returns the first line that this thread printed, or
// the error. Throws when memory runs out.
std::string CodeQuietly(const std::function<void()>& code);

}  // namespace velostrix::cli
