// The decomposition of all pixels of a piece, for small pieces.
#pragma once

#include <Eigen/Core>

#include "orientation/leading_vectors.h"

namespace velostrix {

// Pixels x 3: the first singular vectors on the side of the pixels. Out of memory: std::bad_alloc.
Eigen::MatrixXf WholeVectors(const ImagePiece& piece, Decomposition decomposition);

}  // namespace velostrix
