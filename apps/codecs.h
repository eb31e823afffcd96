// OpenCV's reading and writing of image files. It brings 120 libraries along, which would take most
// of the time that a command needs to start: a library of its own, loaded when it is needed.
#pragma once

#include <cstdint>
#include <opencv2/core.hpp>
#include <string>
#include <vector>

namespace velostrix::cli {

struct Codecs {
  // Of any depth, in grey or colour, turned as EXIF says; empty when it cannot be read.
  cv::Mat (*decode)(const std::vector<char>& bytes);
  // In the format of a file name's extension, TIFF without loss. False when it cannot be written.
  bool (*encode)(const std::string& extension, const cv::Mat& image, std::vector<uint8_t>& bytes);
};

// Failure when the library is missing.
const Codecs& LoadCodecs();

}  // namespace velostrix::cli
