// Image files as 8-bit grey images.
#include "apps/input_images.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include "apps/commands.h"
#include "apps/stderr_capture.h"

namespace velostrix::cli {
namespace {

constexpr const char* kExpected = "; expected a PNG, BMP, TIFF or JPEG file";

std::vector<char> ReadBytes(const std::string& file) {
  if (!std::filesystem::exists(file)) throw Failure(file + ": no such file" + kExpected);
  if (std::filesystem::is_directory(file)) throw Failure(file + ": is a folder" + kExpected);
  errno = 0;
  std::ifstream stream(file, std::ios::binary);
  std::vector<char> bytes{std::istreambuf_iterator<char>(stream), {}};
  if (!stream || bytes.empty()) {
    const std::string reason = errno == 0 ? "is empty" : std::strerror(errno);
    throw Failure(file + ": " + reason + kExpected);
  }
  return bytes;
}

std::string SizeText(const cv::Mat& image) {
  return std::to_string(image.cols) + " x " + std::to_string(image.rows) + " pixels";
}

// Appends to a note.
void Add(std::string& note, const std::string& text) { note += (note.empty() ? "" : ", ") + text; }

// To 8 bits a sample.
cv::Mat ReducedDepth(const std::string& file, const cv::Mat& image, std::string& note) {
  if (image.depth() == CV_8U) return image;
  if (image.depth() != CV_16U) {
    throw Failure(file + ": pixels of type " + cv::typeToString(image.type()) +
                  "; expected 8 or 16 bits a sample");
  }
  Add(note, "16-bit samples divided by 257");
  cv::Mat reduced;
  image.convertTo(reduced, CV_8U, 1.0 / 257.0);
  return reduced;
}

cv::Mat Grey(const cv::Mat& image, std::string& note) {
  if (image.channels() == 1) return image;
  Add(note, "colour converted to grey");
  cv::Mat grey;
  cv::cvtColor(image, grey, image.channels() == 4 ? cv::COLOR_BGRA2GRAY : cv::COLOR_BGR2GRAY);
  return grey;
}

}  // namespace

cv::Mat DecodeFile(const std::string& file, std::string* remark) {
  const std::vector<char> bytes = ReadBytes(file);
  cv::Mat image;
  std::string said;
  try {
    StderrCapture capture;
    image = cv::imdecode(bytes, cv::IMREAD_UNCHANGED);
    said = capture.End();
  } catch (const cv::Exception& e) {
    said = e.err;
  }
  if (image.empty()) {
    throw Failure(file + ": cannot be decoded" + (said.empty() ? "" : " (" + said + ")") +
                  kExpected);
  }
  if (remark != nullptr) *remark = said;
  return image;
}

std::vector<InputImage> LoadImages(const std::vector<std::string>& files) {
  std::vector<InputImage> images;
  for (const std::string& file : files) {
    std::string note;
    const cv::Mat decoded = DecodeFile(file, &note);
    const cv::Mat reduced = ReducedDepth(file, decoded, note);
    const cv::Mat grey = Grey(reduced, note);
    images.push_back({file, note, grey});
  }
  return images;
}

std::vector<InputImage> LoadChannels(const std::string& file) {
  std::string note;
  const cv::Mat decoded = DecodeFile(file, &note);
  const cv::Mat image = ReducedDepth(file, decoded, note);
  if (image.channels() < 3) {
    throw Failure(file + ": one channel; expected a colour image, whose channels are three lamps");
  }
  constexpr std::array<const char*, 3> kNames = {"red", "green", "blue"};
  std::vector<InputImage> images(3);
  for (int k = 0; k < 3; ++k) {
    const auto at = static_cast<size_t>(k);
    images[at] = {file, note, {}};
    Add(images[at].note, std::string(kNames[at]) + " channel");
    cv::extractChannel(image, images[at].pixels, 2 - k);  // OpenCV keeps blue, green, red
  }
  return images;
}

void RequireOneSize(const std::vector<InputImage>& images) {
  const InputImage& first = images.front();
  for (const InputImage& image : images) {
    if (image.pixels.size() == first.pixels.size()) continue;
    throw Failure(image.file + ": " + SizeText(image.pixels) + ", but " + first.file + " has " +
                  SizeText(first.pixels) + "; expected images of one size");
  }
}

}  // namespace velostrix::cli
