// Images as PNG files: the headers of the format around data compressed by libdeflate, in half the
// time of libpng's zlib.
#include "apps/png_encoder.h"

#include <libdeflate.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <new>

namespace velostrix::cli {
namespace {

enum Filter : uint8_t { kNone = 0, kSub = 1 };  // of a row

void AppendWord(uint32_t word, std::vector<uint8_t>& to) {
  for (const int shift : {24, 16, 8, 0}) to.push_back(static_cast<uint8_t>(word >> shift));
}

// Length, type, data and checksum of type and data.
void AppendChunk(const char* type, const uint8_t* data, size_t size, std::vector<uint8_t>& to) {
  AppendWord(static_cast<uint32_t>(size), to);
  const size_t start = to.size();
  to.insert(to.end(), type, type + 4);
  to.insert(to.end(), data, data + size);
  AppendWord(libdeflate_crc32(0, to.data() + start, size + 4), to);
}

// A row's samples in the order of the format: red first, high byte first.
void Serialise(const cv::Mat& image, int row, uint8_t* to) {
  const auto* const from = image.ptr(row);
  const size_t size = static_cast<size_t>(image.cols) * image.elemSize();
  if (image.type() == CV_8UC1) {
    std::memcpy(to, from, size);
  } else if (image.type() == CV_16UC1) {
    const auto* const words = image.ptr<uint16_t>(row);
    for (size_t j = 0; j < size; j += 2) {
      to[j] = static_cast<uint8_t>(words[j / 2] >> 8);
      to[j + 1] = static_cast<uint8_t>(words[j / 2]);
    }
  } else {
    CV_Assert(image.type() == CV_8UC3);
    for (size_t j = 0; j < size; j += 3) {
      to[j] = from[j + 2];
      to[j + 1] = from[j + 1];
      to[j + 2] = from[j];
    }
  }
}

}  // namespace

std::vector<uint8_t> EncodePng(const cv::Mat& image, int compression) {
  const size_t pixel = image.elemSize();
  const size_t row = static_cast<size_t>(image.cols) * pixel;
  const size_t size = (row + 1) * static_cast<size_t>(image.rows);
  const auto filter = compression == 0 ? Filter::kNone : Filter::kSub;
  // Not vectors, whose zeros would cost as much as the filter.
  std::unique_ptr<uint8_t[]> filtered(new uint8_t[size]);
  std::vector<uint8_t> samples(row);
  for (int i = 0; i < image.rows; ++i) {
    uint8_t* const to = filtered.get() + static_cast<size_t>(i) * (row + 1);
    Serialise(image, i, samples.data());
    to[0] = filter;
    std::memcpy(to + 1, samples.data(), row);
    if (filter == Filter::kNone) continue;
    const uint8_t* const s = samples.data();
    for (size_t j = pixel; j < row; ++j) to[1 + j] = static_cast<uint8_t>(s[j] - s[j - pixel]);
  }

  const std::unique_ptr<libdeflate_compressor, decltype(&libdeflate_free_compressor)> compressor(
      libdeflate_alloc_compressor(compression), libdeflate_free_compressor);
  if (!compressor) throw std::bad_alloc();
  const size_t bound = libdeflate_zlib_compress_bound(compressor.get(), size);
  const std::unique_ptr<uint8_t[]> stream(new uint8_t[bound]);
  const size_t used =
      libdeflate_zlib_compress(compressor.get(), filtered.get(), size, stream.get(), bound);
  CV_Assert(used != 0);  // as the bound holds
  filtered.reset();

  constexpr uint8_t kSignature[] = {0x89, 'P', 'N', 'G', '\r', '\n', 0x1a, '\n'};
  constexpr size_t kLargestChunk = size_t{1} << 30;
  std::vector<uint8_t> file(std::begin(kSignature), std::end(kSignature));
  file.reserve(used + 12 * (used / kLargestChunk) + 64);
  std::vector<uint8_t> header;
  AppendWord(static_cast<uint32_t>(image.cols), header);
  AppendWord(static_cast<uint32_t>(image.rows), header);
  const uint8_t colour = image.channels() == 3 ? 2 : 0;
  const auto bits = static_cast<uint8_t>(8 * image.elemSize1());
  header.insert(header.end(), {bits, colour, 0, 0, 0});  // deflate, filters by row, no interlace
  AppendChunk("IHDR", header.data(), header.size(), file);
  for (size_t done = 0; done < used; done += kLargestChunk) {
    AppendChunk("IDAT", stream.get() + done, std::min(kLargestChunk, used - done), file);
  }
  AppendChunk("IEND", nullptr, 0, file);
  return file;
}

}  // namespace velostrix::cli
