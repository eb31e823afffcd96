// The first three pixel-side singular vectors of a piece of the image stack.
#pragma once

#include <Eigen/Core>
#include <array>
#include <cstdint>

#include "orientation/image_piece.h"

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

  // Writes the entries of `count` pixels from (row, col) of the frame on, inside one row of the
  // piece.
  void CopyEntries(int64_t row, int64_t col, int64_t count,
                   const std::array<float*, kVectors>& out) const;
  std::array<float, kVectors> At(int64_t row, int64_t col) const;

  void Negate(int vector);

  const ImagePiece& piece() const { return piece_; }

 private:
  ImagePiece piece_;
  std::array<std::array<float, 8>, kVectors> weights_ = {};
  Eigen::MatrixXf entries_;  // empty: the weights answer
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

}  // namespace velostrix
