// A rectangular piece of the image stack, as the factorisations take it.
#pragma once

#include <cstdint>

#include "tool/uncalibration_tool.h"

namespace velostrix {

// Columns [first_col, end_col) of rows [first_row, end_row) of all images. Pixel j of the piece is
// its j-th in row-major order.
struct ImagePiece {
  const uint8_t* stack;
  int64_t plane_size;
  int64_t row_step;
  int image_count;
  int64_t first_row, end_row;
  int64_t first_col, end_col;

  int64_t rows() const { return end_row - first_row; }
  int64_t cols() const { return end_col - first_col; }
  int64_t pixels() const { return rows() * cols(); }

  // First pixel of image k in a row and column of the frame.
  const uint8_t* At(int image, int64_t row, int64_t col) const {
    return stack + image * plane_size + row * row_step + col;
  }
};

inline ImagePiece PieceOfFrame(const UnCalibrationTool& tool, int64_t first_row, int64_t end_row,
                               int64_t first_col, int64_t end_col) {
  return {tool.image_stack, tool.plane_size, tool.row_step, static_cast<int>(tool.image_count),
          first_row,        end_row,         first_col,     end_col};
}

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

}  // namespace velostrix
