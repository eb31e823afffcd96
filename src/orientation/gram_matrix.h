// The inner products of the images of a piece, exact.
#pragma once

#include <Eigen/Core>
#include <cstdint>

#include "base/vectors.h"
#include "orientation/image_piece.h"

namespace velostrix {

// Sums products of intensities over the rows that it is given.
class GramAccumulator {
 public:
  explicit GramAccumulator(const ImagePiece& piece) : piece_(piece) {}

  void AddRow(int64_t row);

  const ImagePiece& piece() const { return piece_; }

  // The N x N matrix of sums so far: integers below 2^53, exact in double.
  Eigen::MatrixXd Products();

 private:
  // Pixels, in blocks of eight, until a 32-bit lane may be full: each of the four takes up two
  // products of 255 x 255 from a block.
  static constexpr int64_t kPixelsToFlush = int64_t{1} << 16;

  void Flush();

  ImagePiece piece_;
  int64_t pixels_to_flush_ = kPixelsToFlush;
  ProductSums lanes_[8][8] = {};
  int64_t sums_[8][8] = {};
};

}  // namespace velostrix
