// The first three pixel-side singular vectors of a piece of the image stack.
//
// A piece of P pixels under N lamps is a P x N matrix A = U S V^T. Its left vectors need not be
// computed from all of A. With A_top its first N rows, A_bot the rest and any R with R^T R =
// A_bot^T A_bot,
//   A = blockdiag(I, Q) Y,   Y = [A_top; R] (2N x N),   Q^T Q = I,
// and every Householder reflection, pivot choice and Jacobi rotation that the decomposition makes
// on A is the image of the one that it makes on Y: the entries whose sign decides a reflection lie
// in the first N rows, which Y keeps. So Y has the singular values of A, its V, and U up to Q with
// the same signs, and
//   u(pixel) = a(pixel) W,   W = V S^-1 (N x 3).
// The same holds for A^T, whose right vectors are wanted then.
#include "orientation/leading_vectors.h"

#include <Eigen/Eigenvalues>
#include <optional>
#include <utility>

#include "orientation/exception_safe_svd.h"
#include "orientation/whole_decomposition.h"

namespace velostrix {
namespace {

constexpr int kVectors = LeadingVectors::kVectors;

// Pieces below this are decomposed whole: the small matrix gains nothing there.
constexpr int64_t kSmallestReducedPiece = 1024;

// Singular values closer than this, relative to the first, leave their vectors to the round-off of
// single precision: the piece is decomposed whole then, so that the vectors are whatever that
// decomposition returns.
constexpr double kDeterminedGap = 1e-5;

bool VectorsAreDetermined(const Eigen::VectorXd& singular_values) {
  const double gap = kDeterminedGap * singular_values[0];
  for (int v = 0; v < kVectors; ++v) {
    const double next = v + 1 < singular_values.size() ? singular_values[v + 1] : 0.0;
    if (!(singular_values[v] - next > gap)) return false;
  }
  return true;
}

Eigen::MatrixXd ReducedMatrix(const ImagePiece& piece, const Eigen::MatrixXd& products) {
  const int n = piece.image_count;
  const auto top = IntensityRows<Eigen::MatrixXd>(piece, n);
  const Eigen::SelfAdjointEigenSolver<Eigen::MatrixXd> bottom(products - top.transpose() * top);
  Eigen::MatrixXd reduced(2 * n, n);
  reduced.topRows(n) = top;
  reduced.bottomRows(n) =
      bottom.eigenvalues().cwiseMax(0).cwiseSqrt().asDiagonal() * bottom.eigenvectors().transpose();
  return reduced;
}

// W of a decomposition whose image side is given; nothing where the vectors are not determined.
std::optional<Eigen::MatrixXd> Weights(const Eigen::VectorXd& singular_values,
                                       const Eigen::MatrixXd& image_side) {
  if (!VectorsAreDetermined(singular_values)) return std::nullopt;
  return image_side.leftCols(kVectors) * singular_values.head(kVectors).cwiseInverse().asDiagonal();
}

std::optional<Eigen::MatrixXd> ReducedWeights(const ImagePiece& piece,
                                              const Eigen::MatrixXd& products,
                                              Decomposition decomposition) {
  constexpr int kBothSides = Eigen::ComputeThinU | Eigen::ComputeThinV;
  switch (decomposition) {
    case Decomposition::kPixelsByImages: {
      const JacobiSvd<Eigen::MatrixXd> svd(ReducedMatrix(piece, products), kBothSides);
      return Weights(svd.singularValues(), svd.matrixV());
    }
    case Decomposition::kImagesByPixels: {
      const JacobiSvd<Eigen::MatrixXd> svd(ReducedMatrix(piece, products).transpose(), kBothSides);
      return Weights(svd.singularValues(), svd.matrixU());
    }
    case Decomposition::kImagesByPixelsBlockwise:
    default: {
      const BlockwiseSvd<Eigen::MatrixXd> svd(ReducedMatrix(piece, products));
      return Weights(svd.singular_values, svd.short_side);
    }
  }
}

}  // namespace

LeadingVectors::LeadingVectors(const ImagePiece& piece, const Eigen::MatrixXd& weights)
    : piece_(piece) {
  for (int v = 0; v < kVectors; ++v) {
    for (int k = 0; k < piece.image_count; ++k) {
      weights_[static_cast<size_t>(v)][static_cast<size_t>(k)] = static_cast<float>(weights(k, v));
    }
  }
}

LeadingVectors::LeadingVectors(const ImagePiece& piece, Eigen::MatrixXf entries)
    : piece_(piece), entries_(std::move(entries)) {}

std::array<float, LeadingVectors::kVectors> LeadingVectors::At(int64_t row, int64_t col) const {
  std::array<float, kVectors> entries = {};
  Visit(row, col, col + 1, [&](int64_t, auto x0, auto x1, auto x2) {
    Store(&entries[0], x0);
    Store(&entries[1], x1);
    Store(&entries[2], x2);
  });
  return entries;
}

void LeadingVectors::Negate(int vector) {
  for (float& weight : weights_[static_cast<size_t>(vector)]) weight = -weight;
  if (entries_.size() > 0) entries_.col(vector) *= -1.0F;
}

LeadingVectors DecomposePiece(const ImagePiece& piece, const Eigen::MatrixXd& intensity_products,
                              Decomposition decomposition) {
  if (piece.pixels() >= kSmallestReducedPiece) {
    if (const auto weights = ReducedWeights(piece, intensity_products, decomposition)) {
      return {piece, *weights};
    }
  }
  return {piece, WholeVectors(piece, decomposition)};
}

}  // namespace velostrix
