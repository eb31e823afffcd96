// Least-squares height by conjugate gradients that never form a matrix.
//
// Every pixel k of a frame of W columns has two equations, A z = b:
//   z[k] - z[k+1] = -p[k]     the neighbour is missing in the last column
//   z[k] - z[k+W] =  q[k]     the neighbour is missing in the last row
// The missing neighbours tie the height to zero beyond the right and the bottom edge. The normal
// equations A^T A z = A^T b couple a pixel with its four neighbours,
//   (A^T A z)[k] = d z[k] - z[k-1] - z[k+1] - z[k-W] - z[k+W],   d = 2 + (not first column) + (not
//   first row), (A^T b)[k]   = p[k-1] - p[k] - q[k-W] + q[k],
// so neither A nor A^T A is stored. They are solved by conjugate gradients (Hestenes and Stiefel,
// 1952) with Jacobi preconditioning, M = diag(d), from z = 0 to a relative residual of 0.001.
//
// An iteration makes two passes over memory, 12 bytes a pixel for the search direction and 20 for
// solution and residual:
//   1. p = M^-1 r + beta p,  p.A^T A p = |A p|^2
//   2. z += alpha p,  r -= alpha A^T A p,  r.r,  r.M^-1 r
#include "maps/height_solver.h"

#include <algorithm>
#include <iterator>
#include <limits>
#include <memory>
#include <numeric>
#include <vector>

#include "tool/lanes.h"

namespace velostrix {
namespace {

constexpr float kTolerance = 0.001F;

// The sum of a quantity over a row: eight running lanes and one for the pixels that fill no block.
struct RowSum {
  Lanes lanes;
  float rest = 0;

  void Add(float value) { rest += value; }
  void Add(Lanes value) { lanes = lanes + value; }
  double Total() const {
    float values[Lanes::kCount];
    Store(values, lanes);
    return std::accumulate(std::begin(values), std::end(values), double{rest});
  }
};

// Adds the squares of A p that belong to a pixel: its differences to the right and to below.
template <typename V>
void AddEnergy(V self, V right, V below, RowSum& energy) {
  const V along = self - right;
  const V across = self - below;
  energy.Add(along * along + across * across);
}

class ConjugateGradients {
 public:
  ConjugateGradients(const HeightProblem& problem, float* z)
      : problem_(problem),
        rows_(problem.rows),
        cols_(problem.cols),
        z_(z),
        r_(new float[static_cast<size_t>(rows_ * cols_)]),
        p_(new float[static_cast<size_t>(rows_ * cols_)]),
        zero_row_(static_cast<size_t>(cols_), 0.0F),
        row_sums_(static_cast<size_t>(rows_)),
        // Where a sparse product over five entries a row becomes worth its threads.
        parallel_(rows_ * cols_ * 5 > 20000) {}

  int64_t Solve();

 private:
  static constexpr int64_t kBandRows = 32;

  struct ResidualSums {
    double rr = 0;  // r.r
    double rz = 0;  // r.M^-1 r

    friend ResidualSums operator+(const ResidualSums& a, const ResidualSums& b) {
      return {a.rr + b.rr, a.rz + b.rz};
    }
  };

  float* Residual(int64_t i) { return r_.get() + i * cols_; }
  float* Direction(int64_t i) { return p_.get() + i * cols_; }
  float* Solution(int64_t i) { return z_ + i * problem_.stride; }
  // A row of p, zeros beyond the frame.
  const float* DirectionOrZero(int64_t i) {
    return i >= 0 && i < rows_ ? Direction(i) : zero_row_.data();
  }

  // d in columns from 1 on; column 0 has one less.
  static float Diagonal(int64_t i) { return i > 0 ? 4.0F : 3.0F; }

  ResidualSums StartRow(int64_t i);
  double UpdateDirectionRow(int64_t i, float beta, const float* above);
  double EnergyOfRow(int64_t i);
  ResidualSums UpdateRow(int64_t i, float alpha);

  // Calls work(first_row, end_row) for every band, on all threads. Bands are dealt out as threads
  // become free: a thread that the machine holds up costs the others one band at most.
  template <typename Work>
  void ForEachBand(Work work) {
    const int64_t bands = (rows_ + kBandRows - 1) / kBandRows;
#pragma omp parallel for schedule(dynamic) if (parallel_)
    for (int64_t band = 0; band < bands; ++band) {
      work(band * kBandRows, std::min((band + 1) * kBandRows, rows_));
    }
  }

  ResidualSums Start();
  double UpdateDirection(float beta);
  ResidualSums UpdateSolution(float alpha);

  // Rows are summed in their order, whatever thread has made them.
  ResidualSums Total() const {
    return std::accumulate(row_sums_.begin(), row_sums_.end(), ResidualSums());
  }

  const HeightProblem& problem_;
  const int64_t rows_;
  const int64_t cols_;
  float* const z_;
  const std::unique_ptr<float[]> r_;
  const std::unique_ptr<float[]> p_;
  const std::vector<float> zero_row_;
  std::vector<ResidualSums> row_sums_;
  const bool parallel_;
};

// z = 0, r = A^T b, p = M^-1 r
ConjugateGradients::ResidualSums ConjugateGradients::StartRow(int64_t i) {
  const float* slope_p = problem_.p + i * problem_.stride;
  const float* slope_q = problem_.q + i * problem_.stride;
  const float* slope_q_above = i > 0 ? slope_q - problem_.stride : zero_row_.data();
  float* r = Residual(i);
  float* p = Direction(i);
  RowSum rr;
  RowSum rz;
  const auto start = [&](int64_t j, auto slope_p_left, float inverse_diagonal) {
    using V = decltype(slope_p_left);
    const V residual =
        slope_p_left - Load<V>(slope_p + j) - Load<V>(slope_q_above + j) + Load<V>(slope_q + j);
    const V direction = residual * inverse_diagonal;
    Store(r + j, residual);
    Store(p + j, direction);
    rr.Add(residual * residual);
    rz.Add(residual * direction);
  };
  start(0, 0.0F, 1.0F / (Diagonal(i) - 1.0F));
  ForEachBlock(1, cols_, [&](int64_t j, auto zero) {
    start(j, Load<decltype(zero)>(slope_p + j - 1), 1.0F / Diagonal(i));
  });
  std::fill_n(Solution(i), cols_, 0.0F);
  return {rr.Total(), rz.Total()};
}

// p = M^-1 r + beta p in row i; returns the energy of the row above, whose new p is given.
double ConjugateGradients::UpdateDirectionRow(int64_t i, float beta, const float* above) {
  const float* r = Residual(i);
  float* p = Direction(i);
  RowSum energy;
  const auto update = [&](int64_t j, auto above_right, float inverse_diagonal) {
    using V = decltype(above_right);
    const V direction = Load<V>(r + j) * inverse_diagonal + Load<V>(p + j) * beta;
    Store(p + j, direction);
    AddEnergy(Load<V>(above + j), above_right, direction, energy);
  };
  const int64_t last = cols_ - 1;
  update(0, last > 0 ? above[1] : 0.0F, 1.0F / (Diagonal(i) - 1.0F));
  ForEachBlock(1, last, [&](int64_t j, auto zero) {
    update(j, Load<decltype(zero)>(above + j + 1), 1.0F / Diagonal(i));
  });
  if (last > 0) update(last, 0.0F, 1.0F / Diagonal(i));
  return energy.Total();
}

// The energy of a row whose new p and that of the row below are complete.
double ConjugateGradients::EnergyOfRow(int64_t i) {
  const float* p = Direction(i);
  const float* below = DirectionOrZero(i + 1);
  RowSum energy;
  ForEachBlock(0, cols_ - 1, [&](int64_t j, auto zero) {
    using V = decltype(zero);
    AddEnergy(Load<V>(p + j), Load<V>(p + j + 1), Load<V>(below + j), energy);
  });
  AddEnergy(p[cols_ - 1], 0.0F, below[cols_ - 1], energy);
  return energy.Total();
}

// z += alpha p, r -= alpha A^T A p
ConjugateGradients::ResidualSums ConjugateGradients::UpdateRow(int64_t i, float alpha) {
  const float* above = DirectionOrZero(i - 1);
  const float* p = Direction(i);
  const float* below = DirectionOrZero(i + 1);
  float* z = Solution(i);
  float* r = Residual(i);
  RowSum rr;
  RowSum rz;
  const auto update = [&](int64_t j, auto left, auto right, float diagonal) {
    using V = decltype(left);
    const V direction = Load<V>(p + j);
    const V product =
        -Load<V>(above + j) - left + direction * diagonal - right - Load<V>(below + j);
    const V residual = Load<V>(r + j) - product * alpha;
    Store(z + j, Load<V>(z + j) + direction * alpha);
    Store(r + j, residual);
    rr.Add(residual * residual);
    rz.Add(residual * (residual * (1.0F / diagonal)));
  };
  const int64_t last = cols_ - 1;
  const float diagonal = Diagonal(i);
  update(0, 0.0F, last > 0 ? p[1] : 0.0F, diagonal - 1.0F);
  ForEachBlock(1, last, [&](int64_t j, auto zero) {
    using V = decltype(zero);
    update(j, Load<V>(p + j - 1), Load<V>(p + j + 1), diagonal);
  });
  if (last > 0) update(last, p[last - 1], 0.0F, diagonal);
  return {rr.Total(), rz.Total()};
}

ConjugateGradients::ResidualSums ConjugateGradients::Start() {
  for (int64_t i = 0; i < rows_; ++i) row_sums_[static_cast<size_t>(i)] = StartRow(i);
  return Total();
}

// Returns p.A^T A p. The energy of a row needs the row below, so it is formed with that one; for
// the last row of a band that is after all bands.
double ConjugateGradients::UpdateDirection(float beta) {
  ForEachBand([&](int64_t first, int64_t end) {
    UpdateDirectionRow(first, beta, zero_row_.data());
    for (int64_t i = first + 1; i < end; ++i) {
      row_sums_[static_cast<size_t>(i - 1)].rr = UpdateDirectionRow(i, beta, Direction(i - 1));
    }
  });
  for (int64_t end = kBandRows; end < rows_ + kBandRows; end += kBandRows) {
    const int64_t last = std::min(end, rows_) - 1;
    row_sums_[static_cast<size_t>(last)].rr = EnergyOfRow(last);
  }
  return Total().rr;
}

ConjugateGradients::ResidualSums ConjugateGradients::UpdateSolution(float alpha) {
  ForEachBand([&](int64_t first, int64_t end) {
    for (int64_t i = first; i < end; ++i) row_sums_[static_cast<size_t>(i)] = UpdateRow(i, alpha);
  });
  return Total();
}

int64_t ConjugateGradients::Solve() {
  const int64_t cap = problem_.iteration_cap < 0 ? 2 * rows_ * cols_ : problem_.iteration_cap;
  ResidualSums sums = Start();
  const auto threshold = std::max(static_cast<float>(sums.rr) * (kTolerance * kTolerance),
                                  std::numeric_limits<float>::min());
  if (sums.rr == 0 || sums.rr < double{threshold}) return 0;

  double beta = 0;
  for (int64_t iteration = 0; iteration < cap; ++iteration) {
    // The first direction is M^-1 r already.
    const double energy = UpdateDirection(static_cast<float>(beta));
    const double rz = sums.rz;
    sums = UpdateSolution(static_cast<float>(rz / energy));
    // Written so that a NaN, which has spread over all of z by now, ends the iteration too.
    if (!(sums.rr >= double{threshold})) return iteration;
    beta = sums.rz / rz;
  }
  return cap;
}

}  // namespace

int64_t SolveHeight(const HeightProblem& problem, float* z) {
  return ConjugateGradients(problem, z).Solve();
}

}  // namespace velostrix
