// The first three pixel-side singular vectors of a piece of the image stack.
#pragma once

#include <Eigen/Core>
#include <algorithm>
#include <array>
#include <cstdint>
#include <type_traits>

#include "base/vectors.h"
#include "orientation/image_count.h"
#include "orientation/image_piece.h"

namespace velostrix {

// Gives, for every pixel of a piece, the entries of the first three singular vectors, with the
// decomposition's signs.
class LeadingVectors {
 public:
  static constexpr int kVectors = 3;

  // Entry of vector v at pixel j of the piece: (j, v), for as many pixels as there are rows.
  LeadingVectors(const ImagePiece& piece, Eigen::MatrixXf entries);
  // Behind them: the sum over images k of weight (k, v) x intensity. Where terms cancel almost
  // whole, weights in two parts keep the sum from being their round-off.
  LeadingVectors(const ImagePiece& piece, Eigen::MatrixXf entries, const Eigen::MatrixXd& weights,
                 bool in_two_parts);

  // Calls visit(j, x0, x1, x2) with the entries of the pixels from (row, first_col + j) of the
  // frame on: Float8 of a block, which may overlap the one before, or floats where there are fewer
  // pixels than a block has.
  template <typename Visitor>
  void Visit(int64_t row, int64_t first_col, int64_t end_col, Visitor visit) const;
  std::array<float, kVectors> At(int64_t row, int64_t col) const;

  void Negate(int vector);

  const ImagePiece& piece() const { return piece_; }

 private:
  template <typename Parts, typename Visitor>
  void VisitSums(int64_t row, int64_t first_col, int64_t begin, int64_t end, Parts parts,
                 Visitor visit) const;

  ImagePiece piece_;
  Eigen::MatrixXf entries_;
  // Of vector v: the N first parts, then the N second ones.
  std::array<std::array<float, 16>, kVectors> weights_ = {};
  bool in_two_parts_ = false;
};

// How the matrix of a piece is decomposed; the signs of the vectors follow from it.
enum class Decomposition {
  kPixelsByImages,          // Jacobi after pivoting QR; the vectors are columns of U
  kImagesByPixels,          // Jacobi after pivoting QR; the vectors are columns of V
  kImagesByPixelsBlockwise  // divide and conquer; the vectors are columns of V
};

// Decomposes a piece of at least three pixels. intensity_products are its images' inner products.
// Out of memory: std::bad_alloc.
LeadingVectors DecomposePiece(const ImagePiece& piece, const Eigen::MatrixXd& intensity_products,
                              Decomposition decomposition);

template <typename Visitor>
void LeadingVectors::Visit(int64_t row, int64_t first_col, int64_t end_col, Visitor visit) const {
  const int64_t count = end_col - first_col;
  const int64_t first = (row - piece_.first_row) * piece_.cols() + (first_col - piece_.first_col);
  const int64_t listed = std::clamp<int64_t>(entries_.rows() - first, 0, count);
  ForEachBlock(0, listed, [&](int64_t j, auto zero) {
    using V = decltype(zero);
    const float* entry = entries_.data() + first + j;
    const int64_t next_vector = entries_.rows();
    visit(j, Load<V>(entry), Load<V>(entry + next_vector), Load<V>(entry + 2 * next_vector));
  });
  if (listed == count) return;
  if (in_two_parts_) {
    VisitSums(row, first_col, listed, count, std::integral_constant<size_t, 2>(), visit);
  } else {
    VisitSums(row, first_col, listed, count, std::integral_constant<size_t, 1>(), visit);
  }
}

template <typename Parts, typename Visitor>
void LeadingVectors::VisitSums(int64_t row, int64_t first_col, int64_t begin, int64_t end,
                               Parts /*parts*/, Visitor visit) const {
  WithImageCount(piece_.image_count, [&](auto image_count) {
    constexpr size_t kImages = decltype(image_count)::value;
    constexpr size_t kTerms = Parts::value * kImages;
    const uint8_t* bytes[kImages];
    for (size_t k = 0; k < kImages; ++k) bytes[k] = piece_.At(static_cast<int>(k), row, first_col);
    float weights[kVectors][kTerms];  // a copy, which nothing that the visitor writes can overlap
    for (size_t v = 0; v < kVectors; ++v) std::copy_n(weights_[v].data(), kTerms, weights[v]);
    ForEachBlock(begin, end, [&](int64_t j, auto zero) {
      using V = decltype(zero);
      V x[kVectors];
      for (size_t v = 0; v < kVectors; ++v) x[v] = Load<V>(bytes[0] + j) * weights[v][0];
      for (size_t k = 1; k < kTerms; ++k) {
        const auto intensity = Load<V>(bytes[k % kImages] + j);
        for (size_t v = 0; v < kVectors; ++v) x[v] = x[v] + intensity * weights[v][k];
      }
      visit(j, x[0], x[1], x[2]);
    });
  });
}

}  // namespace velostrix
