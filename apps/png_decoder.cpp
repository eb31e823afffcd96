// The usual PNG files by libdeflate, in a third of the time of libpng's zlib.
#include "apps/png_decoder.h"

#include <libdeflate.h>

#include <array>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <opencv2/imgproc.hpp>
#include <optional>
#include <string_view>

namespace velostrix::cli {
namespace {

using namespace std::string_view_literals;

uint32_t Word(const uint8_t* at) {
  return uint32_t{at[0]} << 24 | uint32_t{at[1]} << 16 | uint32_t{at[2]} << 8 | at[3];
}

struct Chunks {
  const uint8_t* header = nullptr;
  std::vector<uint8_t> stream;  // the compressed rows
};

// Nothing when a checksum is wrong, or a chunk changes what the pixels mean.
std::optional<Chunks> ReadChunks(const std::vector<char>& file) {
  constexpr std::string_view kSignature = "\x89PNG\r\n\x1a\n"sv;
  constexpr size_t kFrame = 12;  // length, type and checksum
  constexpr size_t kHeader = 13;
  if (std::string_view(file.data(), file.size()).substr(0, kSignature.size()) != kSignature) {
    return std::nullopt;
  }
  Chunks chunks;
  for (size_t at = kSignature.size(); file.size() - at >= kFrame;) {
    const auto* const chunk = reinterpret_cast<const uint8_t*>(file.data() + at);
    const size_t length = Word(chunk);
    if (length > file.size() - at - kFrame) return std::nullopt;
    const std::string_view type(file.data() + at + 4, 4);
    const uint8_t* const data = chunk + 8;
    if (libdeflate_crc32(0, chunk + 4, length + 4) != Word(data + length)) return std::nullopt;
    if (type == "IEND") return chunks;
    if ((type == "IHDR") != (chunks.header == nullptr)) return std::nullopt;  // it is the first
    if (type == "IHDR" && length == kHeader) {
      chunks.header = data;
    } else if (type == "IDAT") {
      chunks.stream.insert(chunks.stream.end(), data, data + length);
    } else {
      const bool is_needed = (chunk[4] & 0x20) == 0;
      if (is_needed || type == "tRNS" || type == "eXIf") return std::nullopt;
    }
    at += kFrame + length;
  }
  return std::nullopt;
}

uint8_t Paeth(int left, int above, int above_left) {
  const int to_left = std::abs(above - above_left);
  const int to_above = std::abs(left - above_left);
  const int to_both = std::abs(left + above - 2 * above_left);
  if (to_left <= to_above && to_left <= to_both) return static_cast<uint8_t>(left);
  return static_cast<uint8_t>(to_above <= to_both ? above : above_left);
}

// Undoes the filter of a row, in place. above: the row before, zeros for the first. Both have a
// pixel of zeros in front. False when there is no such filter.
bool Unfilter(uint8_t filter, uint8_t* row, const uint8_t* above, size_t size, size_t pixel) {
  const auto add = [&](const auto& predicted) {
    for (size_t j = 0; j < size; ++j) row[j] = static_cast<uint8_t>(row[j] + predicted(j));
    return true;
  };
  const uint8_t* const left = row - pixel;
  const uint8_t* const above_left = above - pixel;
  switch (filter) {
    case 0:
      return true;
    case 1:  // what cameras write; a sum in a register does not wait for memory
      for (size_t first = 0; first < pixel; ++first) {
        uint8_t sum = 0;
        for (size_t j = first; j < size; j += pixel) {
          sum = static_cast<uint8_t>(sum + row[j]);
          row[j] = sum;
        }
      }
      return true;
    case 2:
      return add([&](size_t j) { return above[j]; });
    case 3:
      return add([&](size_t j) { return (left[j] + above[j]) / 2; });
    case 4:
      return add([&](size_t j) { return Paeth(left[j], above[j], above_left[j]); });
    default:
      return false;
  }
}

}  // namespace

cv::Mat DecodePng(const std::vector<char>& file) {
  const std::optional<Chunks> chunks = ReadChunks(file);
  if (!chunks || chunks->header == nullptr) return {};
  const uint32_t width = Word(chunks->header);
  const uint32_t height = Word(chunks->header + 4);
  const auto [bits, colour, compression, filters, interlace] =
      std::array{chunks->header[8], chunks->header[9], chunks->header[10], chunks->header[11],
                 chunks->header[12]};
  constexpr uint32_t kMostPixels = 1U << 20U;  // of a side, as OpenCV has it
  const bool is_usual = width > 0 && height > 0 && width <= kMostPixels && height <= kMostPixels &&
                        (bits == 8 || bits == 16) && (colour == 0 || colour == 2) &&
                        compression == 0 && filters == 0 && interlace == 0;
  if (!is_usual) return {};
  const size_t pixel = (colour == 0 ? 1U : 3U) * bits / 8U;
  const size_t row_size = width * pixel;
  const size_t size = (row_size + 1) * height;
  constexpr size_t kMostExpansion = 1100;  // of deflate: files with a larger ratio are damaged
  if (size / kMostExpansion > chunks->stream.size()) return {};

  const std::unique_ptr<uint8_t[]> filtered(new uint8_t[size]);
  const std::unique_ptr<libdeflate_decompressor, decltype(&libdeflate_free_decompressor)>
      decompressor(libdeflate_alloc_decompressor(), libdeflate_free_decompressor);
  if (!decompressor) throw std::bad_alloc();
  const libdeflate_result result =
      libdeflate_zlib_decompress(decompressor.get(), chunks->stream.data(), chunks->stream.size(),
                                 filtered.get(), size, nullptr);
  if (result != LIBDEFLATE_SUCCESS) return {};

  cv::Mat image(static_cast<int>(height), static_cast<int>(width),
                CV_MAKETYPE(bits == 8 ? CV_8U : CV_16U, colour == 0 ? 1 : 3));
  std::vector<uint8_t> row(pixel + row_size);
  std::vector<uint8_t> above(row.size());
  for (int i = 0; i < image.rows; ++i) {
    const uint8_t* const from = filtered.get() + static_cast<size_t>(i) * (row_size + 1);
    std::memcpy(row.data() + pixel, from + 1, row_size);
    if (!Unfilter(from[0], row.data() + pixel, above.data() + pixel, row_size, pixel)) return {};
    if (bits == 8) {
      std::memcpy(image.ptr(i), row.data() + pixel, row_size);
    } else {
      auto* const words = image.ptr<uint16_t>(i);
      for (size_t j = 0; j < row_size / 2; ++j) {
        const uint8_t* const high = row.data() + pixel + 2 * j;
        words[j] = static_cast<uint16_t>(high[0] << 8 | high[1]);
      }
    }
    row.swap(above);
  }
  if (colour != 0) cv::cvtColor(image, image, cv::COLOR_RGB2BGR);
  return image;
}

}  // namespace velostrix::cli
