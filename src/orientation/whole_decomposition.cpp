// The decomposition of all pixels of a piece, for small pieces.
#include "orientation/whole_decomposition.h"

#include "orientation/exception_safe_svd.h"

namespace velostrix {
namespace {

constexpr int kVectors = 3;

// With fewer columns BDCSVD is JacobiSVD.
constexpr int64_t kFewestBlockwisePixels = 16;

}  // namespace

Eigen::MatrixXf WholeVectors(const ImagePiece& piece, Decomposition decomposition) {
  auto intensities = IntensityRows<Eigen::MatrixXf>(piece, piece.pixels());
  switch (decomposition) {
    case Decomposition::kPixelsByImages: {
      intensities /= 100.0F;  // as in the matrix that the tool keeps
      const JacobiSvd<Eigen::MatrixXf> svd(intensities, Eigen::ComputeThinU);
      return svd.matrixU().leftCols(kVectors);
    }
    case Decomposition::kImagesByPixelsBlockwise:
      if (piece.pixels() >= kFewestBlockwisePixels) {
        return BlockwiseSvd<Eigen::MatrixXf>(intensities).long_side.leftCols(kVectors);
      }
      [[fallthrough]];
    case Decomposition::kImagesByPixels:
    default: {
      const JacobiSvd<Eigen::MatrixXf> svd(intensities.transpose(), Eigen::ComputeThinV);
      return svd.matrixV().leftCols(kVectors);
    }
  }
}

}  // namespace velostrix
