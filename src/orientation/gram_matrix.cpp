// The inner products of the images of a piece, exact.
#include "orientation/gram_matrix.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "orientation/image_count.h"

namespace velostrix {
namespace {

constexpr int64_t kBlock = Byte8::kCount;

// Adds the products of images kFirst and kFirst + 1 with themselves and all later ones, in blocks.
template <int kImages, int kFirst>
void AddProductsOfPair(const uint8_t* const (&bytes)[kImages], int64_t count,
                       ProductSums (&sums)[8][8]) {
  constexpr int kCount = kImages - kFirst;
  constexpr bool kHasSecond = kCount > 1;
  ProductSums first[kCount];
  ProductSums second[kCount];
  for (int k = 0; k < kCount; ++k) {
    first[k] = sums[kFirst][kFirst + k];
    second[k] = sums[kFirst + kHasSecond][kFirst + k];
  }
  for (int64_t j = 0; j < count; j += kBlock) {
    const Byte8 a = LoadByte8(bytes[kFirst] + j);
    const Byte8 b = LoadByte8(bytes[kFirst + kHasSecond] + j);
    for (int k = 0; k < kCount; ++k) {
      const Byte8 c = k == 0 ? a : k == 1 ? b : LoadByte8(bytes[kFirst + k] + j);
      first[k] = AddProducts(first[k], a, c);
      if (k > 0) second[k] = AddProducts(second[k], b, c);
    }
  }
  for (int k = 0; k < kCount; ++k) {
    sums[kFirst][kFirst + k] = first[k];
    if (k > 0) sums[kFirst + 1][kFirst + k] = second[k];
  }
}

template <int kImages, int... kPairs>
void AddProducts(const uint8_t* const (&bytes)[kImages], int64_t count, ProductSums (&sums)[8][8],
                 std::integer_sequence<int, kPairs...> /*pairs*/) {
  (AddProductsOfPair<kImages, 2 * kPairs>(bytes, count, sums), ...);
}

}  // namespace

void GramAccumulator::AddRow(int64_t row) {
  WithImageCount(piece_.image_count, [&](auto image_count) {
    constexpr int kImages = decltype(image_count)::value;
    constexpr auto kPairs = std::make_integer_sequence<int, (kImages + 1) / 2>();
    for (int64_t col = piece_.first_col; col < piece_.end_col;) {
      if (pixels_to_flush_ == 0) Flush();
      const int64_t count = std::min(piece_.end_col - col, pixels_to_flush_);
      const int64_t whole = count - count % kBlock;
      const uint8_t* bytes[kImages];
      for (int k = 0; k < kImages; ++k) bytes[k] = piece_.At(k, row, col);
      AddProducts(bytes, whole, lanes_, kPairs);
      if (whole < count) {
        uint8_t rest[kImages][kBlock] = {};
        for (int k = 0; k < kImages; ++k) {
          std::memcpy(rest[k], bytes[k] + whole, static_cast<size_t>(count - whole));
          bytes[k] = rest[k];
        }
        AddProducts(bytes, kBlock, lanes_, kPairs);
      }
      col += count;
      pixels_to_flush_ -= whole + (whole < count ? kBlock : 0);
    }
  });
}

void GramAccumulator::Flush() {
  for (int a = 0; a < piece_.image_count; ++a) {
    for (int b = a; b < piece_.image_count; ++b) {
      sums_[a][b] += Total(lanes_[a][b]);
      lanes_[a][b] = ProductSums();
    }
  }
  pixels_to_flush_ = kPixelsToFlush;
}

Eigen::MatrixXd GramAccumulator::Products() {
  Flush();
  const int n = piece_.image_count;
  Eigen::MatrixXd products(n, n);
  for (int a = 0; a < n; ++a) {
    for (int b = a; b < n; ++b) products(a, b) = products(b, a) = static_cast<double>(sums_[a][b]);
  }
  return products;
}

}  // namespace velostrix
