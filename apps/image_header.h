// Size and depth of an image file from its first bytes, without decoding it.
#pragma once

#include <opencv2/core.hpp>
#include <optional>
#include <string>

namespace velostrix::cli {

struct ImageHeader {
  cv::Size size;  // as the pixels are stored
  bool is_deep;   // more than 8 bits a sample
};

// Reads a PNG, BMP, TIFF or JPEG file; nothing when the file cannot be read or is unusual, so that
// only decoding can tell.
std::optional<ImageHeader> ReadImageHeader(const std::string& file);

}  // namespace velostrix::cli
