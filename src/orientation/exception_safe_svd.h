// Eigen's singular value decompositions in a form that survives running out of memory.
//
// JacobiSVD of Eigen 3.4 destroys its pivoting QR and constructs a new one in the same place. When
// memory for the new one runs out, the old one is destroyed a second time. BDCSVD contains a
// JacobiSVD. Here the QR is a local variable; operations and results are Eigen's to the bit.
#pragma once

#include <Eigen/SVD>

namespace velostrix {

// Chooses the QR below. None of Eigen's own choices.
constexpr int kLocalPivotingQr = 0x1000;
static_assert(EIGEN_WORLD_VERSION == 3 && EIGEN_MAJOR_VERSION == 4,
              "this file follows the implementation of Eigen 3.4");

template <typename Matrix>
using JacobiSvd = Eigen::JacobiSVD<Matrix, kLocalPivotingQr>;

}  // namespace velostrix

template <typename MatrixType, int Case>
class Eigen::internal::qr_preconditioner_impl<MatrixType, velostrix::kLocalPivotingQr, Case, true> {
 public:
  using Svd = velostrix::JacobiSvd<MatrixType>;

  void allocate(const Svd&) {}  // NOLINT(readability-identifier-naming): called by JacobiSVD

  // NOLINTNEXTLINE(readability-identifier-naming): called by JacobiSVD
  bool run(Svd& svd, const MatrixType& matrix) {
    constexpr bool kIsWide = Case == PreconditionIfMoreColsThanRows;
    if (kIsWide ? matrix.cols() <= matrix.rows() : matrix.rows() <= matrix.cols()) return false;
    MatrixType adjoint;
    if (kIsWide) adjoint = matrix.adjoint();
    const MatrixType& tall = kIsWide ? adjoint : matrix;
    const Index n = tall.cols();

    const ColPivHouseholderQR<MatrixType> qr(tall);
    svd.m_workMatrix = qr.matrixQR().topRows(n).template triangularView<Upper>();
    if (kIsWide) svd.m_workMatrix.adjointInPlace();

    // Their columns tell which sides are wanted, and whether the long one is thin.
    MatrixType& long_side = kIsWide ? svd.m_matrixV : svd.m_matrixU;
    MatrixType& short_side = kIsWide ? svd.m_matrixU : svd.m_matrixV;
    if (long_side.cols() == tall.rows()) {
      long_side = qr.householderQ();
    } else if (long_side.cols() > 0) {
      long_side.setIdentity(tall.rows(), n);
      long_side.applyOnTheLeft(qr.householderQ());
    }
    if (short_side.cols() > 0) short_side = qr.colsPermutation();
    return true;
  }
};

namespace velostrix {

// BDCSVD of the transpose of a tall matrix with fewer than 16 columns, both sides thin: bidiagonal
// matrix and its Jacobi decomposition. Eigen goes this way from 16 rows on; fewer work as well.
template <typename Matrix>
struct BlockwiseSvd {
  explicit BlockwiseSvd(const Matrix& tall) {
    const Eigen::Index n = tall.cols();
    const auto largest = tall.cwiseAbs().maxCoeff();
    const auto scale = largest > 0 ? largest : 1;
    Eigen::internal::UpperBidiagonalization<Matrix> bidiagonal(tall / scale);
    Matrix core = Matrix::Zero(n + 1, n);
    core.topRows(n) = bidiagonal.bidiagonal().toDenseMatrix().transpose();
    const JacobiSvd<Matrix> svd(core, Eigen::ComputeFullU | Eigen::ComputeFullV);
    singular_values = svd.singularValues() * scale;
    short_side = svd.matrixU().topLeftCorner(n, n);
    short_side.applyOnTheLeft(bidiagonal.householderV());
    long_side = Matrix::Identity(tall.rows(), n);
    long_side.topRows(n) = svd.matrixV();
    long_side.applyOnTheLeft(bidiagonal.householderU());
  }

  Eigen::Matrix<typename Matrix::Scalar, Eigen::Dynamic, 1> singular_values;
  Matrix short_side;  // vectors of n numbers
  Matrix long_side;   // vectors of as many numbers as the matrix has rows
};

}  // namespace velostrix
