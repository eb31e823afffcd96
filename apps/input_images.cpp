// Image files as 8-bit grey images.
#include "apps/input_images.h"

#include <nettle/base16.h>
#include <nettle/sha2.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <opencv2/imgproc.hpp>
#include <sstream>
#include <system_error>

#include "apps/bayer.h"
#include "apps/codecs.h"
#include "apps/commands.h"
#include "apps/exif_orientation.h"
#include "apps/parallel.h"
#include "apps/png_decoder.h"
#include "apps/stderr_capture.h"
#include "velostrix/tool.hpp"

namespace velostrix::cli {
namespace {

namespace fs = std::filesystem;

constexpr const char* kExpected = "; expected a PNG, BMP, TIFF or JPEG file";

std::string SizeText(const cv::Mat& image) {
  return std::to_string(image.cols) + " x " + std::to_string(image.rows) + " pixels";
}

// Appends to a note.
void Add(std::string& note, const std::string& text) { note += (note.empty() ? "" : ", ") + text; }

// Of any depth, in grey or colour, and turned as EXIF says.
cv::Mat DecodeBytes(const std::vector<char>& bytes, const std::string& file, std::string* remark) {
  cv::Mat image = DecodePng(bytes);
  if (!image.empty()) return image;
  const Codecs& codecs = LoadCodecs();
  *remark = CodeQuietly([&] { image = codecs.decode(bytes); });
  if (image.empty()) {
    throw Failure(file + ": cannot be decoded" + (remark->empty() ? "" : " (" + *remark + ")") +
                  kExpected);
  }
  return image;
}

std::string Sha256(const std::vector<char>& bytes) {
  sha256_ctx context;
  std::array<uint8_t, SHA256_DIGEST_SIZE> digest;
  sha256_init(&context);
  sha256_update(&context, bytes.size(), reinterpret_cast<const uint8_t*>(bytes.data()));
  sha256_digest(&context, digest.size(), digest.data());
  std::array<char, BASE16_ENCODE_LENGTH(SHA256_DIGEST_SIZE)> text;
  base16_encode_update(text.data(), digest.size(), digest.data());
  return {text.begin(), text.end()};
}

std::vector<InputImage> DecodeFiles(const std::vector<std::string>& files) {
  std::vector<std::vector<char>> bytes;
  bytes.reserve(files.size());
  for (const std::string& file : files) bytes.push_back(ReadBytes(file, kExpected));
  std::vector<InputImage> images(files.size());
  InParallel(files.size(), [&](size_t k) {
    images[k] = {files[k], Sha256(bytes[k]), ExifOrientation(bytes[k]), {}, {}, {}};
    images[k].pixels = DecodePng(bytes[k]);
  });
  std::vector<size_t> others;
  for (size_t k = 0; k < images.size(); ++k) {
    if (images[k].pixels.empty()) others.push_back(k);
  }
  if (!others.empty()) LoadCodecs();  // by a thread that goes on
  InParallel(others.size(), [&](size_t j) {
    InputImage& image = images[others[j]];
    image.pixels = DecodeBytes(bytes[others[j]], image.file, &image.note);
  });
  for (const InputImage& image : images) {
    if (image.pixels.depth() == CV_8U || image.pixels.depth() == CV_16U) continue;
    throw Failure(image.file + ": pixels of type " + cv::typeToString(image.pixels.type()) +
                  "; expected 8 or 16 bits a sample");
  }
  return images;
}

// The camera did not move, but marked its images with different orientations.
void RequireOneOrientation(const std::vector<InputImage>& images) {
  const InputImage& first = images.front();
  for (const InputImage& image : images) {
    if (image.orientation == first.orientation) continue;
    const auto text = [](int orientation) {
      return "EXIF orientation " + std::to_string(orientation);
    };
    throw Failure(image.file + ": has " + text(image.orientation) + ", but " + first.file +
                  " has " + std::to_string(first.orientation) +
                  "; give all files the one that is right, or remove it from all");
  }
}

// Converts raw frames if the pattern of their sensor is given; else warns of them.
void ConvertBayer(std::vector<InputImage>& images, const std::string& pattern, bool in_colour) {
  std::atomic<size_t> recognised = 0;
  InParallel(images.size(), [&](size_t k) {
    InputImage& image = images[k];
    const bool is_grey = image.pixels.channels() == 1;
    if (pattern.empty()) {
      if (is_grey && IsBayerFrame(image.pixels)) ++recognised;
      return;
    }
    if (!is_grey) {
      throw Failure(image.file + ": a colour image; --bayer expects raw frames in grey files");
    }
    Add(image.note, "Bayer frame (" + pattern + ") converted");
    image.pixels = Demosaic(image.pixels, pattern, in_colour);
  });
  if (recognised == 0) return;
  images.front().warning = std::to_string(recognised) + " of " + std::to_string(images.size()) +
                           " files: look like raw frames of a colour sensor, whose filters show as "
                           "a checkerboard; give its pattern, as in --bayer rggb";
}

void Grey(InputImage& image) {
  const int channels = image.pixels.channels();
  if (channels == 1) return;
  Add(image.note, "colour converted to grey");
  cv::cvtColor(image.pixels, image.pixels,
               channels == 4 ? cv::COLOR_BGRA2GRAY : cv::COLOR_BGR2GRAY);
}

std::vector<InputImage> DecodeGrey(const std::vector<std::string>& files,
                                   const std::string& bayer) {
  std::vector<InputImage> images = DecodeFiles(files);
  RequireOneOrientation(images);
  ConvertBayer(images, bayer, false);
  for (InputImage& image : images) Grey(image);
  return images;
}

std::vector<InputImage> DecodeChannels(const std::string& file, const std::string& bayer) {
  std::vector<InputImage> decoded = DecodeFiles({file});
  if (!bayer.empty()) ConvertBayer(decoded, bayer, true);
  const InputImage& colour = decoded.front();
  if (colour.pixels.channels() < 3) {
    throw Failure(file + ": one channel; expected a colour image, whose channels are three lamps");
  }
  constexpr std::array<const char*, 3> kNames = {"red", "green", "blue"};
  std::vector<InputImage> images(3, colour);
  for (int k = 0; k < 3; ++k) {
    const auto at = static_cast<size_t>(k);
    Add(images[at].note, std::string(kNames[at]) + " channel");
    cv::Mat channel;  // of its own: all three share the colour image
    cv::extractChannel(colour.pixels, channel, 2 - k);  // OpenCV keeps blue, green, red
    images[at].pixels = channel;
  }
  return images;
}

std::vector<InputImage> DecodeAll(const std::vector<std::string>& files, const Reading& reading) {
  return reading.split_channels ? DecodeChannels(files.front(), reading.bayer)
                                : DecodeGrey(files, reading.bayer);
}

// The largest sample of the 16-bit images; -1 when there is none.
int LargestSample(const std::vector<InputImage>& images) {
  int largest = -1;
  for (const InputImage& image : images) {
    if (image.pixels.depth() != CV_16U) continue;
    double most = 0.0;
    cv::minMaxLoc(image.pixels, nullptr, &most);
    largest = std::max(largest, static_cast<int>(most));
  }
  return largest;
}

// 10, 12, 14 or 16, as converters have.
int BitsOf(int sample) {
  int bits = 10;
  while (sample >= 1 << bits) bits += 2;
  return bits;
}

}  // namespace

// Reads exactly the size of the file: some files that the system generates never end.
std::vector<char> ReadBytes(const std::string& file, const std::string& expected) {
  const std::string refusal = WhyUnreadable(file);
  if (!refusal.empty()) throw Failure(refusal + expected);
  errno = 0;
  std::ifstream stream(file, std::ios::binary);
  std::vector<char> bytes(fs::file_size(file));
  stream.read(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  if (!stream || bytes.empty()) {
    const std::string reason = errno == 0 ? "is empty" : std::strerror(errno);
    throw Failure(file + ": " + reason + expected);
  }
  return bytes;
}

std::string WhyUnreadable(const std::string& file) {
  std::error_code error;
  const fs::file_status status = fs::status(file, error);
  if (fs::is_regular_file(status)) return {};
  if (fs::is_directory(status)) {
    return file + ": is a folder; give its files, as in " + (fs::path(file) / "*").string();
  }
  if (fs::exists(status)) return file + ": is not a regular file";
  if (status.type() != fs::file_type::not_found) return file + ": " + error.message();
  const bool is_pattern = file.find_first_of("*?[") != std::string::npos;
  return file + (is_pattern ? ": no file matches this pattern" : ": no such file");
}

std::string HashFile(const std::string& file) { return Sha256(ReadBytes(file, kExpected)); }

cv::Mat DecodeFile(const std::string& file) {
  std::string remark;
  return DecodeBytes(ReadBytes(file, kExpected), file, &remark);
}

bool IsImageName(const std::string& file) {
  constexpr std::array<const char*, 6> kExtensions = {".png",  ".bmp", ".tif",
                                                      ".tiff", ".jpg", ".jpeg"};
  const std::string extension = CLI::detail::to_lower(fs::path(file).extension().string());
  return std::find(kExtensions.begin(), kExtensions.end(), extension) != kExtensions.end();
}

void RequirePictureName(const std::string& out) {
  if (IsImageName(out)) return;
  throw UsageError("--out " + out + ": expected a name that ends in .png, .tiff or .jpg");
}

bool IsBefore(const std::string& a, const std::string& b) {
  return VelostrixCompareNames(a.c_str(), b.c_str()) < 0;
}

std::vector<std::string> ImagesIn(const std::string& folder) {
  std::error_code error;
  if (!fs::is_directory(folder, error)) {
    throw Failure(folder + ": no such folder; expected one of pictures");
  }
  std::vector<std::string> files;
  for (const fs::directory_entry& entry : fs::directory_iterator(folder)) {
    const std::string file = entry.path().string();
    if (entry.is_regular_file() && IsImageName(file)) files.push_back(file);
  }
  if (files.empty()) throw Failure(folder + ": no pictures; expected PNG, BMP, TIFF or JPEG files");
  std::sort(files.begin(), files.end(), IsBefore);
  return files;
}

std::vector<FlatField> LoadFlat(const std::vector<std::string>& files, const Reading& reading,
                                int white, const InputImage* image) {
  const std::vector<InputImage> references = DecodeAll(files, reading);
  std::vector<cv::Mat> pixels;
  for (const InputImage& reference : references) {
    RequireOneSize({image != nullptr ? *image : references.front(), reference});
    pixels.push_back(reference.pixels);
  }
  try {
    return FitFlat(pixels, white != 0 ? white : (1 << BitsOf(LargestSample(references))) - 1);
  } catch (const Error& error) {
    throw Failure(std::string("--flat: ") + error.what());
  }
}

std::vector<InputImage> LoadImages(const std::vector<std::string>& files,
                                   const std::vector<std::string>& flat, const Reading& reading,
                                   Recipe& recipe) {
  std::vector<InputImage> images = DecodeAll(files, reading);
  RequireOneSize(images);
  if (!flat.empty()) recipe.flat = LoadFlat(flat, reading, recipe.white, &images.front());
  CheckFlat(recipe, static_cast<int64_t>(images.size()));
  const int largest = LargestSample(images);
  const bool is_found = largest >= 0 && WhiteLevel(recipe) == 0;
  if (is_found) recipe.bits = BitsOf(largest);
  std::ostringstream note;  // of 16-bit images
  note << "16-bit samples";
  if (recipe.white == 0 && recipe.bits < 16) note << " with " << recipe.bits << " bits in use";
  note << " divided by " << WhiteLevel(recipe) / 255.0;
  constexpr int kDim = 3;  // of the range is left: two bits are lost
  if (is_found && largest * kDim < WhiteLevel(recipe)) {
    note << "; the largest of all is " << largest << ", --white " << largest << " uses all levels";
  }
  for (size_t k = 0; k < images.size(); ++k) {
    InputImage& image = images[k];
    if (image.pixels.depth() == CV_16U) Add(image.note, note.str());
    if (!recipe.flat.empty()) Add(image.note, "divided by its flat field");
    image.pixels = ToLevels(image.pixels, recipe, k, image.file + ':');
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
