// Image files as 8-bit grey images.
#pragma once

#include <opencv2/core.hpp>
#include <string>
#include <vector>

namespace velostrix::cli {

// The pixels of a PNG, BMP, TIFF or JPEG file as they stand. Failure names the file and what is
// wrong with it. Anything that the decoder had to remark is returned in *remark, if that is not
// null.
cv::Mat DecodeFile(const std::string& file, std::string* remark = nullptr);

struct InputImage {
  std::string file;
  std::string note;  // how the pixels were converted; empty if they were not
  cv::Mat pixels;    // CV_8UC1
};

// Reads the files and converts colour and 16-bit pixels to 8-bit grey.
std::vector<InputImage> LoadImages(const std::vector<std::string>& files);

// Reads one colour file as three images: its red, green and blue channel.
std::vector<InputImage> LoadChannels(const std::string& file);

// Failure if the images differ in size.
void RequireOneSize(const std::vector<InputImage>& images);

}  // namespace velostrix::cli
