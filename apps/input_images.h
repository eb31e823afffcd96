// Image files as 8-bit grey images.
#pragma once

#include <opencv2/core.hpp>
#include <string>
#include <vector>

#include "velostrix/recipe.hpp"

namespace velostrix::cli {

// Natural order of names: 2 before 10.
bool IsBefore(const std::string& a, const std::string& b);

// The image files of the folder in natural order. Throws Failure when there is no folder or image.
std::vector<std::string> ImagesIn(const std::string& folder);

// Whether the name ends like that of an image file.
bool IsImageName(const std::string& file);

// Throws UsageError when a file of this name cannot be a picture.
void RequirePictureName(const std::string& out);

// The bytes of the file. Throws Failure, which says what is wrong with it, and then `expected`.
std::vector<char> ReadBytes(const std::string& file, const std::string& expected);

// Why the path cannot be an image file, and what to give instead; empty when it may be one.
std::string WhyUnreadable(const std::string& file);

// The SHA-256 of the file, as InputImage has it.
std::string HashFile(const std::string& file);

// The pixels of a PNG, BMP, TIFF or JPEG file, turned as EXIF says. Throws Failure, which names the
// file and what is wrong with it.
cv::Mat DecodeFile(const std::string& file);

struct InputImage {
  std::string file;
  std::string sha256;   // of the file
  int orientation = 1;  // as EXIF numbers it; the pixels are turned by it
  std::string note;     // how the pixels were converted; empty if they were not
  cv::Mat pixels;       // CV_8UC1
  std::string warning;  // of this file or of all; empty as a rule
};

// What the files contain.
struct Reading {
  bool split_channels = false;  // one colour file, whose red, green and blue channel are the images
  std::string bayer;            // pattern of raw frames of a colour sensor; empty: none
};

// The flat fields of references, one for each lamp, which have the size of the image unless that is
// null; 16-bit ones by the white level, unless that is 0.
std::vector<FlatField> LoadFlat(const std::vector<std::string>& files, const Reading& reading,
                                int white, const InputImage* image);

// Reads the files, which have images of one size, converts colour and 16-bit pixels to 8-bit grey
// by the recipe's white level or bits, and divides them by its flat fields. When the recipe has
// neither white level nor bits, sets its bits to what the largest sample of all files needs.
// `flat`, a reference for each lamp, sets its flat fields. Also throws Failure when EXIF turns the
// images differently.
std::vector<InputImage> LoadImages(const std::vector<std::string>& files,
                                   const std::vector<std::string>& flat, const Reading& reading,
                                   Recipe& recipe);

// Throws Failure if the images differ in size.
void RequireOneSize(const std::vector<InputImage>& images);

}  // namespace velostrix::cli
