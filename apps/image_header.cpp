// Size and depth of an image file from its first bytes, without decoding it.
#include "apps/image_header.h"

#include <cstdint>
#include <fstream>
#include <limits>
#include <vector>

namespace velostrix::cli {
namespace {

// Numbers at places of a file; a place beyond its end makes the whole header invalid.
class Reader {
 public:
  explicit Reader(const std::string& file) : stream_(file, std::ios::binary) {}

  std::string Text(uint64_t place, size_t length) {
    std::string text(length, '\0');
    stream_.seekg(static_cast<std::streamoff>(place));
    stream_.read(text.data(), static_cast<std::streamsize>(length));
    return text;
  }
  uint32_t Number(uint64_t place, size_t length) {
    uint32_t number = 0;
    const std::string bytes = Text(place, length);
    for (size_t k = 0; k < length; ++k) {
      number = number << 8U | static_cast<uint8_t>(bytes[is_little_ ? length - 1 - k : k]);
    }
    return number;
  }
  void LittleEndian() { is_little_ = true; }
  bool is_good() const { return stream_.good(); }

 private:
  std::ifstream stream_;
  bool is_little_ = false;
};

struct Found {
  uint32_t width = 0;
  uint32_t height = 0;
  uint32_t bits = 8;
};

Found OfPng(Reader& file) { return {file.Number(16, 4), file.Number(20, 4), file.Number(24, 1)}; }

Found OfBmp(Reader& file) {
  file.LittleEndian();
  const auto height = static_cast<int32_t>(file.Number(22, 4));  // negative: from the top
  return {file.Number(18, 4), static_cast<uint32_t>(std::abs(int64_t{height})), 8};
}

// The size is in the segment that starts the frame.
Found OfJpeg(Reader& file) {
  constexpr uint32_t kFirstFrame = 0xC0;
  constexpr uint32_t kLastFrame = 0xCF;
  for (uint64_t place = 2; file.is_good();) {
    if (file.Number(place, 1) != 0xFF) break;
    const uint32_t marker = file.Number(place + 1, 1);
    if (marker == 0xFF) {  // padding
      ++place;
      continue;
    }
    // Between those of frames lie the tables of codes and of arithmetic coding, and an extension.
    const bool is_frame = marker >= kFirstFrame && marker <= kLastFrame && marker != 0xC4 &&
                          marker != 0xC8 && marker != 0xCC;
    if (is_frame) {
      return {file.Number(place + 7, 2), file.Number(place + 5, 2), file.Number(place + 4, 1)};
    }
    place += 2 + file.Number(place + 2, 2);
  }
  return {};
}

// Describes the first image in the file.
Found OfTiff(Reader& file, bool is_little) {
  constexpr uint32_t kShort = 3;
  enum Tag : uint32_t { kWidth = 256, kHeight = 257, kBits = 258 };
  if (is_little) file.LittleEndian();
  const uint64_t directory = file.Number(4, 4);
  const uint32_t count = file.Number(directory, 2);
  Found found = {0, 0, 1};
  for (uint32_t k = 0; k < count && file.is_good(); ++k) {
    const uint64_t entry = directory + 2 + uint64_t{12} * k;
    const uint32_t tag = file.Number(entry, 2);
    const size_t length = file.Number(entry + 2, 2) == kShort ? 2 : 4;
    if (tag == kWidth) found.width = file.Number(entry + 8, length);
    if (tag == kHeight) found.height = file.Number(entry + 8, length);
    // Of more samples than two the value is elsewhere.
    const bool is_elsewhere = file.Number(entry + 4, 4) > 2;
    if (tag == kBits)
      found.bits = file.Number(is_elsewhere ? file.Number(entry + 8, 4) : entry + 8, 2);
    if (tag >= kBits) break;  // tags ascend
  }
  return found;
}

}  // namespace

std::optional<ImageHeader> ReadImageHeader(const std::string& name) {
  Reader file(name);
  const std::string magic = file.Text(0, 4);
  Found found;
  if (magic == "\x89PNG") {
    found = OfPng(file);
  } else if (magic.rfind("BM", 0) == 0) {
    found = OfBmp(file);
  } else if (magic.rfind("\xFF\xD8", 0) == 0) {
    found = OfJpeg(file);
  } else if (magic == std::string("II*\0", 4) || magic == std::string("MM\0*", 4)) {
    found = OfTiff(file, magic.front() == 'I');
  }
  constexpr uint32_t kMost = std::numeric_limits<int>::max();
  const bool is_usual = found.width > 0 && found.height > 0 && found.width <= kMost &&
                        found.height <= kMost && file.is_good();
  if (!is_usual) return std::nullopt;
  return ImageHeader{{static_cast<int>(found.width), static_cast<int>(found.height)},
                     found.bits > 8};
}

}  // namespace velostrix::cli
