// The library that LoadCodecs loads.
#include <opencv2/imgcodecs.hpp>

#include "apps/codecs.h"

namespace {

cv::Mat Decode(const std::vector<char>& bytes) {
  return cv::imdecode(bytes, cv::IMREAD_ANYDEPTH | cv::IMREAD_ANYCOLOR);
}

bool Encode(const std::string& extension, const cv::Mat& image, std::vector<uint8_t>& bytes) {
  // OpenCV's default for three channels of float loses signs.
  constexpr int kDeflate = 8;
  constexpr int kJpegQuality = 85;
  return cv::imencode(
      extension, image, bytes,
      {cv::IMWRITE_TIFF_COMPRESSION, kDeflate, cv::IMWRITE_JPEG_QUALITY, kJpegQuality});
}

constexpr velostrix::cli::Codecs kCodecs = {Decode, Encode};

}  // namespace

extern "C" [[gnu::visibility("default")]] const velostrix::cli::Codecs* VelostrixCodecs() {
  // Has all of them made ready.
  cv::haveImageWriter(".png");
  return &kCodecs;
}
