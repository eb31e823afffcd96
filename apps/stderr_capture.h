// Keeps what image codecs print on stderr, so that it can be said in a line of our own.
#pragma once

#include <functional>
#include <string>

namespace velostrix::cli {

// Calls OpenCV's reading or writing of images; returns the first line that was remarked on this
// thread, or the error. Memory that cannot be had is thrown.
std::string CodeQuietly(const std::function<void()>& code);

}  // namespace velostrix::cli
