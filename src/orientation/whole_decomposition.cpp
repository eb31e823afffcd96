// The decomposition of all pixels of a piece, for pieces that are small or that leave their vectors
// to round-off.
#include "orientation/whole_decomposition.h"

#include <Eigen/SVD>

namespace velostrix {
namespace {

constexpr int kVectors = 3;

}  // namespace

Eigen::MatrixXf WholeVectors(const ImagePiece& piece, Decomposition decomposition) {
  auto intensities = IntensityRows<Eigen::MatrixXf>(piece, piece.pixels());
  switch (decomposition) {
    case Decomposition::kPixelsByImages: {
      intensities /= 100.0F;  // as in the matrix that the tool keeps
      const Eigen::JacobiSVD<Eigen::MatrixXf> svd(intensities, Eigen::ComputeThinU);
      return svd.matrixU().leftCols(kVectors);
    }
    case Decomposition::kImagesByPixels: {
      const Eigen::JacobiSVD<Eigen::MatrixXf> svd(intensities.transpose(), Eigen::ComputeThinV);
      return svd.matrixV().leftCols(kVectors);
    }
    case Decomposition::kImagesByPixelsBlockwise:
    default: {
      const Eigen::BDCSVD<Eigen::MatrixXf> svd(intensities.transpose(), Eigen::ComputeThinV);
      return svd.matrixV().leftCols(kVectors);
    }
  }
}

}  // namespace velostrix
