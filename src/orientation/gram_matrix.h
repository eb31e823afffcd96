// The inner products of the images of a piece, exact.
#pragma once

#include <Eigen/Core>
#include <cstdint>

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
  // A product sum over so many pixels of 255 x 255 stays inside an int32.
  static constexpr int64_t kChunk = 512;

  void Flush();

  ImagePiece piece_;
  int64_t pending_ = 0;
  alignas(64) int16_t intensities_[8][kChunk];
  int64_t sums_[8][8] = {};
};

}  // namespace velostrix
