// The decomposition of all pixels of a piece, for small pieces.
#pragma once

#include <Eigen/Core>
#include <cstdint>

#include "orientation/image_piece.h"

namespace velostrix {

// How the matrix of a piece is decomposed; the signs of the vectors follow from it.
enum class Decomposition {
  kPixelsByImages,          // Jacobi after pivoting QR; the vectors are columns of U
  kImagesByPixels,          // Jacobi after pivoting QR; the vectors are columns of V
  kImagesByPixelsBlockwise  // divide and conquer; the vectors are columns of V
};

// A of a piece, or of its first `count` pixels.
template <typename Matrix>
Matrix IntensityRows(const ImagePiece& piece, int64_t count) {
  Matrix intensities(count, piece.image_count);
  for (int k = 0; k < piece.image_count; ++k) {
    for (int64_t j = 0; j < count; ++j) {
      const int64_t row = piece.first_row + j / piece.cols();
      const int64_t col = piece.first_col + j % piece.cols();
      intensities(j, k) = *piece.At(k, row, col);
    }
  }
  return intensities;
}

// Pixels x 3: the first singular vectors on the side of the pixels. Out of memory: std::bad_alloc.
Eigen::MatrixXf WholeVectors(const ImagePiece& piece, Decomposition decomposition);

}  // namespace velostrix
