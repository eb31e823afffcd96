// The inner products of the images of a piece, exact.
#include "orientation/gram_matrix.h"

#include <algorithm>

namespace velostrix {
namespace {

int32_t InnerProduct(const int16_t* a, const int16_t* b, int64_t count) {
  int32_t sum = 0;
  for (int64_t j = 0; j < count; ++j) sum += int32_t{a[j]} * int32_t{b[j]};
  return sum;
}

}  // namespace

void GramAccumulator::AddRow(int64_t row) {
  for (int64_t col = piece_.first_col; col < piece_.end_col;) {
    const int64_t count = std::min(piece_.end_col - col, kChunk - pending_);
    for (int k = 0; k < piece_.image_count; ++k) {
      const uint8_t* bytes = piece_.At(k, row, col);
      std::copy(bytes, bytes + count, intensities_[k] + pending_);
    }
    pending_ += count;
    col += count;
    if (pending_ == kChunk) Flush();
  }
}

void GramAccumulator::Flush() {
  for (int a = 0; a < piece_.image_count; ++a) {
    for (int b = a; b < piece_.image_count; ++b) {
      sums_[a][b] += InnerProduct(intensities_[a], intensities_[b], pending_);
    }
  }
  pending_ = 0;
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
