// The first three pixel-side singular vectors of a piece of the image stack.
#pragma once

#include <Eigen/Core>
#include <array>
#include <cstdint>

#include "orientation/image_count.h"
#include "orientation/image_piece.h"
#include "orientation/whole_decomposition.h"
#include "tool/lanes.h"

namespace velostrix {

// Answers for every pixel of a piece with its entries of the first three singular vectors, signs as
// the decomposition gives them.
class LeadingVectors {
 public:
  static constexpr int kVectors = 3;

  // Entry of vector v at a pixel: the sum over images k of weight (k, v) x intensity.
  LeadingVectors(const ImagePiece& piece, const Eigen::MatrixXd& weights);
  // Entry of vector v at pixel j of the piece: (j, v).
  LeadingVectors(const ImagePiece& piece, Eigen::MatrixXf entries);

  // Calls visit(j, x0, x1, x2) with the entries of the pixels from (row, first_col + j) of the
  // frame on: Lanes of a block, which may overlap the one before, or floats where there are fewer
  // pixels than a block has.
  template <typename Visitor>
  void Visit(int64_t row, int64_t first_col, int64_t end_col, Visitor visit) const;
  std::array<float, kVectors> At(int64_t row, int64_t col) const;

  void Negate(int vector);

  const ImagePiece& piece() const { return piece_; }

 private:
  ImagePiece piece_;
  std::array<std::array<float, 8>, kVectors> weights_ = {};
  Eigen::MatrixXf entries_;  // empty: the weights answer
};

// Decomposes a piece of at least three pixels. intensity_products are its images' inner products.
// Out of memory: std::bad_alloc.
LeadingVectors DecomposePiece(const ImagePiece& piece, const Eigen::MatrixXd& intensity_products,
                              Decomposition decomposition);

template <typename Visitor>
void LeadingVectors::Visit(int64_t row, int64_t first_col, int64_t end_col, Visitor visit) const {
  const int64_t count = end_col - first_col;
  if (entries_.size() > 0) {
    const int64_t first = (row - piece_.first_row) * piece_.cols() + (first_col - piece_.first_col);
    const float* entries = &entries_(first, 0);
    const int64_t next_vector = entries_.rows();
    CoverWithBlocks(0, count, [&](int64_t j, auto zero) {
      using V = decltype(zero);
      visit(j, Load<V>(entries + j), Load<V>(entries + next_vector + j),
            Load<V>(entries + 2 * next_vector + j));
    });
    return;
  }
  WithImageCount(piece_.image_count, [&](auto image_count) {
    constexpr size_t kImages = decltype(image_count)::value;
    const uint8_t* bytes[kImages];
    for (size_t k = 0; k < kImages; ++k) bytes[k] = piece_.At(static_cast<int>(k), row, first_col);
    const auto weights = weights_;  // a copy, which nothing that the visitor writes can overlap
    CoverWithBlocks(0, count, [&](int64_t j, auto zero) {
      using V = decltype(zero);
      V x[kVectors];
      for (size_t v = 0; v < kVectors; ++v) x[v] = Load<V>(bytes[0] + j) * weights[v][0];
      for (size_t k = 1; k < kImages; ++k) {
        const auto intensity = Load<V>(bytes[k] + j);
        for (size_t v = 0; v < kVectors; ++v) x[v] = x[v] + intensity * weights[v][k];
      }
      visit(j, x[0], x[1], x[2]);
    });
  });
}

}  // namespace velostrix
