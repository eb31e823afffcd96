// The first three pixel-side singular vectors of a piece of the image stack.
//
// A piece of P pixels under N lamps is a P x N matrix A = U S V^T. Its left vectors need not be
// computed from all of A. With A_top its first N rows, A_bot the rest and R^T R = A_bot^T A_bot,
//   A = blockdiag(I, Q) Y,   Y = [A_top; R] (2N x N),   Q^T Q = I,
// and every Householder reflection, pivot choice and Jacobi rotation that the decomposition makes
// on A is the image of the one that it makes on Y: the entries whose sign decides a reflection lie
// in the first N rows, which Y keeps. So Y has the singular values of A, its V, and U up to Q with
// the same signs, and
//   u(pixel) = a(pixel) W,   W = V S^-1 (N x 3).
// The same holds for A^T and its right vectors.
//
// The inner products are exact. Their eigenvalues s^2, found in double, have errors of about
// N eps s1^2 (Weyl 1912), so u of a singular value s has unit length and right angles to within
//   N eps (s1 / s)^2.
// Where this nears 1, s cannot be distinguished from 0 and u is free: any unit vector orthogonal to
// the determined ones, and so to the images, is correct. A vector that is 0 outside three pixels
// only has to be orthogonal to three entries of each, and at most two vectors are determined.
#include "orientation/leading_vectors.h"

#include <Eigen/Eigenvalues>
#include <Eigen/QR>
#include <cmath>
#include <limits>
#include <utility>

#include "orientation/exception_safe_svd.h"
#include "orientation/whole_decomposition.h"

namespace velostrix {
namespace {

constexpr int kVectors = LeadingVectors::kVectors;

// Pieces below this are decomposed whole: the small matrix gains nothing there.
constexpr int64_t kSmallestReducedPiece = 1024;

// Vectors are free from where their lengths may be wrong by a hundredth on.
constexpr double kLargestError = 0.01;

// A vector's weights exceed those of the first by s1 / s, but its entries are no larger: the sums
// cancel to s / s1. From here on floats would leave a hundredth of round-off.
constexpr double kDeepCancellation = 1e-5;

// The singular values of a piece and its vectors on the side of the images.
struct ImageSide {
  Eigen::VectorXd singular_values;
  Eigen::MatrixXd vectors;
};

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

ImageSide DecomposeReduced(const Eigen::MatrixXd& reduced, Decomposition decomposition) {
  constexpr int kBothSides = Eigen::ComputeThinU | Eigen::ComputeThinV;
  switch (decomposition) {
    case Decomposition::kPixelsByImages: {
      const JacobiSvd<Eigen::MatrixXd> svd(reduced, kBothSides);
      return {svd.singularValues(), svd.matrixV()};
    }
    case Decomposition::kImagesByPixels: {
      const JacobiSvd<Eigen::MatrixXd> svd(reduced.transpose(), kBothSides);
      return {svd.singularValues(), svd.matrixU()};
    }
    case Decomposition::kImagesByPixelsBlockwise:
    default: {
      const BlockwiseSvd<Eigen::MatrixXd> svd(reduced);
      return {svd.singular_values, svd.short_side};
    }
  }
}

int CountDetermined(const Eigen::VectorXd& singular_values) {
  const double squared_limit = static_cast<double>(singular_values.size()) *
                               std::numeric_limits<double>::epsilon() / kLargestError;
  const double limit = std::sqrt(squared_limit) * singular_values[0];
  int count = 0;
  while (count < kVectors && singular_values[count] > limit) ++count;
  return count;
}

// The entries of all vectors at the first three pixels, where those that are free live.
Eigen::MatrixXf EntriesWithFreeVectors(const ImagePiece& piece, const Eigen::MatrixXd& weights,
                                       int determined) {
  Eigen::Matrix3d entries = IntensityRows<Eigen::MatrixXd>(piece, kVectors) * weights;
  const Eigen::Matrix3d basis = Eigen::HouseholderQR<Eigen::Matrix3d>(entries).householderQ();
  entries.rightCols(kVectors - determined) = basis.rightCols(kVectors - determined);
  return entries.cast<float>();
}

LeadingVectors ReducedVectors(const ImagePiece& piece, const ImageSide& side) {
  const Eigen::VectorXd& s = side.singular_values;
  const int determined = CountDetermined(s);
  Eigen::MatrixXd weights = Eigen::MatrixXd::Zero(piece.image_count, kVectors);
  weights.leftCols(determined) =
      side.vectors.leftCols(determined) * s.head(determined).cwiseInverse().asDiagonal();
  Eigen::MatrixXf entries;
  if (determined < kVectors) entries = EntriesWithFreeVectors(piece, weights, determined);
  const bool cancels = determined > 0 && s[determined - 1] <= kDeepCancellation * s[0];
  return {piece, std::move(entries), weights, cancels};
}

}  // namespace

LeadingVectors::LeadingVectors(const ImagePiece& piece, Eigen::MatrixXf entries)
    : piece_(piece), entries_(std::move(entries)) {}

LeadingVectors::LeadingVectors(const ImagePiece& piece, Eigen::MatrixXf entries,
                               const Eigen::MatrixXd& weights, bool in_two_parts)
    : piece_(piece), entries_(std::move(entries)), in_two_parts_(in_two_parts) {
  for (int v = 0; v < kVectors; ++v) {
    // First parts are multiples of a step, up to 2^13 of them: their products with 8 bytes add up
    // to no more than 2^24, without rounding.
    int exponent = 0;
    std::frexp(weights.col(v).cwiseAbs().maxCoeff(), &exponent);
    const double step = std::ldexp(1, exponent - 13);
    for (int k = 0; k < piece.image_count; ++k) {
      const double weight = weights(k, v);
      const double first = in_two_parts ? std::nearbyint(weight / step) * step : weight;
      float* const parts = weights_[static_cast<size_t>(v)].data() + k;
      parts[0] = static_cast<float>(first);
      parts[piece.image_count] = static_cast<float>(weight - first);
    }
  }
}

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
  if (piece.pixels() < kSmallestReducedPiece) return {piece, WholeVectors(piece, decomposition)};
  return ReducedVectors(piece,
                        DecomposeReduced(ReducedMatrix(piece, intensity_products), decomposition));
}

}  // namespace velostrix
