// Image files as 8-bit grey images.
#pragma once

#include <opencv2/core.hpp>
#include <string>
#include <vector>

namespace velostrix::cli {

// The image files of the folder in natural order: 2 before 10. Failure when there is no such folder
// or no image in it.
std::vector<std::string> ImagesIn(const std::string& folder);

// Whether the name ends as those of image files do.
bool IsImageName(const std::string& file);

// The whole file. Failure says what is wrong with it, and then `expected`.
std::vector<char> ReadBytes(const std::string& file, const std::string& expected);

// Why the path cannot be an image file, and what to give; empty when it may be one.
std::string WhyUnreadable(const std::string& file);

// The pixels of a PNG, BMP, TIFF or JPEG file as they stand. Failure names the file and what is
// wrong with it.
cv::Mat DecodeFile(const std::string& file);

struct InputImage {
  std::string file;
  std::string sha256;  // of the file
  std::string note;    // how the pixels were converted; empty if they were not
  cv::Mat pixels;      // CV_8UC1
};

// Reads the files and converts colour and 16-bit pixels to 8-bit grey. Of 16-bit samples, `bits`
// are in use, in all files alike; 0 stands for as many as the largest sample needs, and becomes
// their number.
std::vector<InputImage> LoadImages(const std::vector<std::string>& files, int& bits);

// Reads one colour file as three images: its red, green and blue channel. Bits as above.
std::vector<InputImage> LoadChannels(const std::string& file, int& bits);

// Failure if the images differ in size.
void RequireOneSize(const std::vector<InputImage>& images);

}  // namespace velostrix::cli
