// Height from slopes: the assembled sparse system and Eigen's conjugate gradient.
#include <Eigen/IterativeLinearSolvers>
#include <Eigen/SparseCore>
#include <vector>

#include "reference/reference_stages.h"

namespace velostrix::reference {

int64_t IntegrateHeight(const Frame& frame, const float* p, const float* q, int32_t iteration_cap,
                        float* height) {
  const auto rows = static_cast<int>(frame.rows);
  const auto cols = static_cast<int>(frame.cols);
  const int n = rows * cols;
  if (n < 1) return 0;

  std::vector<Eigen::Triplet<float>> entries;
  entries.reserve(
      static_cast<size_t>((3 * frame.cols - 1) * frame.rows + (frame.rows - 1) * frame.cols));
  Eigen::VectorXf b(2 * n);
  for (int i = 0; i < rows; ++i) {
    for (int j = 0; j < cols; ++j) {
      const int k = i * cols + j;
      entries.emplace_back(k, k, 1.0F);
      if (j < cols - 1) entries.emplace_back(k, k + 1, -1.0F);
      b[k] = -p[frame.At(i, j)];
      entries.emplace_back(n + k, k, 1.0F);
      if (i < rows - 1) entries.emplace_back(n + k, k + cols, -1.0F);
      b[n + k] = q[frame.At(i, j)];
    }
  }
  Eigen::SparseMatrix<float> a(2 * n, n);
  a.setFromTriplets(entries.begin(), entries.end());
  a.makeCompressed();

  Eigen::ConjugateGradient<Eigen::SparseMatrix<float>, Eigen::Lower | Eigen::Upper,
                           Eigen::DiagonalPreconditioner<float>>
      solver;
  solver.compute(a.transpose() * a);
  solver.setTolerance(0.001F);
  solver.setMaxIterations(iteration_cap);
  const Eigen::VectorXf z = solver.solve(a.transpose() * b);
  for (int i = 0; i < rows; ++i) {
    for (int j = 0; j < cols; ++j) height[frame.At(i, j)] = z[i * cols + j];
  }
  return solver.iterations();
}

}  // namespace velostrix::reference
