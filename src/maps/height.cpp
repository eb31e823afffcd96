// Height from slopes by least squares: conjugate gradients that never form a matrix.
//
// Every pixel k of a frame of W columns has two equations, A z = b:
//   z[k] - z[k+1] = -p[k]     the neighbour is missing in the last column
//   z[k] - z[k+W] =  q[k]     the neighbour is missing in the last row
// The missing neighbours tie the height to zero beyond the right and the bottom edge. The normal
// equations A^T A z = A^T b couple a pixel with its four neighbours,
//   (A^T A z)[k] = d z[k] - z[k-1] - z[k+1] - z[k-W] - z[k+W],
//   d = 2 + (not first column) + (not first row),
//   (A^T b)[k] = p[k-1] - p[k] - q[k-W] + q[k],
// so neither A nor A^T A is stored. They are solved by conjugate gradients (Hestenes and Stiefel,
// 1952) with Jacobi preconditioning, M = diag(d), from z = 0 to a relative residual of 0.001.
//
// With w = A^T A p an iteration is
//   z += alpha p,  r -= alpha w,  alpha = r.M^-1 r / p.w
//   p = M^-1 r + beta p,          beta = new r.M^-1 r / old r.M^-1 r
// It takes one sweep over memory, because beta is known before r is: the new r.M^-1 r is
// alpha^2 w.M^-1 w - r.M^-1 r (Meurant, 1987). The sweep sums the true r.M^-1 r for the next alpha,
// so that the error of the prediction does not accumulate. z is written in every other sweep: the
// direction before follows from p and r again, p_before = (p - M^-1 r) / beta. That makes 20
// bytes a pixel and iteration.
#include "maps/height.h"

#include <algorithm>
#include <iterator>
#include <limits>
#include <numeric>
#include <opencv2/core/utility.hpp>
#include <optional>
#include <vector>

#include "base/large_array.h"
#include "base/thread_team.h"
#include "base/vectors.h"
#include "tool/uncalibration_tool.h"

namespace velostrix {
namespace {

constexpr float kTolerance = 0.001F;

// Directions are recovered only from a beta whose division loses no more than the last digits.
constexpr float kSmallestRecoveringBeta = 0.125F;

// A sum over a row: eight running lanes and one for the pixels that fill no block.
struct RowSum {
  Float8 lanes;
  float rest = 0;

  void Add(float value) { rest += value; }
  void Add(Float8 value) { lanes = lanes + value; }
  double Total() const {
    float values[Float8::kCount];
    Store(values, lanes);
    return std::accumulate(std::begin(values), std::end(values), double{rest});
  }
};

// Sums over rows; M is the preconditioner.
struct Sums {
  double rr = 0;   // r.r
  double rmr = 0;  // r.M^-1 r
  double pw = 0;   // p.w
  double wmw = 0;  // w.M^-1 w

  friend Sums operator+(const Sums& a, const Sums& b) {
    return {a.rr + b.rr, a.rmr + b.rmr, a.pw + b.pw, a.wmw + b.wmw};
  }
};

// z += p_factor p + residual_factor M^-1 r
struct SolutionStep {
  float p_factor;
  float residual_factor;
};

class ConjugateGradients {
 public:
  ConjugateGradients(const HeightProblem& problem, float* z)
      : problem_(problem),
        rows_(problem.rows),
        cols_(problem.cols),
        z_(z),
        r_(AllocateLargeArray(rows_ * cols_)),
        p_(AllocateLargeArray((rows_ + 2) * (cols_ + 2))),
        row_sums_(static_cast<size_t>(rows_)),
        team_(Threads(problem)) {}

  int64_t Solve();

 private:
  static constexpr int64_t kBandRows = 64;

  float* Residual(int64_t i) { return r_.get() + i * cols_; }
  // A row of p, which has a border of zeros: rows -1 to rows_, columns -1 to cols_.
  float* Direction(int64_t i) { return p_.get() + (i + 1) * (cols_ + 2) + 1; }
  float* Solution(int64_t i) { return z_ + i * problem_.stride; }

  // d in columns from 1 on; column 0 has one less.
  static float Diagonal(int64_t i) { return i > 0 ? 4.0F : 3.0F; }

  void StartRow(int64_t i);
  void UpdateResidualRow(int64_t i, float alpha);
  void UpdateSolutionRow(int64_t i, const SolutionStep& step);
  void UpdateDirectionRow(int64_t i, float beta);
  void MeasureRow(int64_t i, bool fetches_solution);

  static int Threads(const HeightProblem& problem) {
    // Below, a thread has begun when the solve ends.
    constexpr int64_t kSmallestShared = 30000;
    if (problem.rows * problem.cols < kSmallestShared) return 1;
    const int64_t bands = (problem.rows + kBandRows - 1) / kBandRows;
    return static_cast<int>(std::min<int64_t>(bands, cv::getNumThreads()));
  }

  // Calls work(first_row, end_row) for every band.
  template <typename Work>
  void ForEachBand(const Work& work) {
    for (int64_t first = 0; first < rows_; first += kBandRows) {
      work(first, std::min(first + kBandRows, rows_));
    }
  }
  // The same, on all threads.
  template <typename Work>
  void ShareBands(const Work& work) {
    team_.ForEach((rows_ + kBandRows - 1) / kBandRows, [&](int64_t band) {
      work(band * kBandRows, std::min((band + 1) * kBandRows, rows_));
    });
  }

  void Start();
  void Sweep(float alpha, float beta, const std::optional<SolutionStep>& step);
  void AdvanceSolution(const SolutionStep& step);

  // Rows are summed in their order, whatever thread has made them.
  Sums Total() const { return std::accumulate(row_sums_.begin(), row_sums_.end(), Sums()); }

  const HeightProblem& problem_;
  const int64_t rows_;
  const int64_t cols_;
  float* const z_;
  const LargeArray r_;
  const LargeArray p_;
  std::vector<Sums> row_sums_;
  ThreadTeam team_;
};

// z = 0, r = A^T b
void ConjugateGradients::StartRow(int64_t i) {
  const float* slope_p = problem_.p + i * problem_.stride;
  const float* slope_q = problem_.q + i * problem_.stride;
  float* r = Residual(i);
  const auto start = [&](int64_t j, auto slope_p_left) {
    using V = decltype(slope_p_left);
    const V slope_q_above = i > 0 ? Load<V>(slope_q + j - problem_.stride) : V();
    Store(r + j, slope_p_left - Load<V>(slope_p + j) - slope_q_above + Load<V>(slope_q + j));
  };
  start(0, 0.0F);
  ForEachBlock(1, cols_,
               [&](int64_t j, auto zero) { start(j, Load<decltype(zero)>(slope_p + j - 1)); });
  std::fill_n(Solution(i), cols_, 0.0F);
}

// r -= alpha w
void ConjugateGradients::UpdateResidualRow(int64_t i, float alpha) {
  const float* above = Direction(i - 1);
  const float* p = Direction(i);
  const float* below = Direction(i + 1);
  float* r = Residual(i);
  RowSum squares;
  const auto update = [&](int64_t j, auto diagonal) {
    using V = decltype(diagonal);
    const V w = diagonal * Load<V>(p + j) - Load<V>(p + j - 1) - Load<V>(p + j + 1) -
                Load<V>(above + j) - Load<V>(below + j);
    const V residual = Load<V>(r + j) - w * V(alpha);
    Store(r + j, residual);
    if (j > 0) squares.Add(residual * residual);
  };
  const float diagonal = Diagonal(i);
  update(0, diagonal - 1.0F);
  ForEachBlock(1, cols_, [&](int64_t j, auto zero) { update(j, decltype(zero)(diagonal)); });
  const double first = double{r[0]} * r[0];
  const double others = squares.Total();
  Sums& sums = row_sums_[static_cast<size_t>(i)];
  sums.rr = first + others;
  sums.rmr = first / (diagonal - 1.0F) + others / diagonal;
}

// z += the step along p
void ConjugateGradients::UpdateSolutionRow(int64_t i, const SolutionStep& step) {
  const float* p = Direction(i);
  const float* r = Residual(i);
  float* z = Solution(i);
  const auto update = [&](int64_t j, auto residual_factor) {
    using V = decltype(residual_factor);
    const V change = Load<V>(p + j) * V(step.p_factor) + Load<V>(r + j) * residual_factor;
    Store(z + j, Load<V>(z + j) + change);
  };
  update(0, step.residual_factor / (Diagonal(i) - 1.0F));
  const float residual_factor = step.residual_factor / Diagonal(i);
  ForEachBlock(1, cols_, [&](int64_t j, auto zero) { update(j, decltype(zero)(residual_factor)); });
}

// p = M^-1 r + beta p
void ConjugateGradients::UpdateDirectionRow(int64_t i, float beta) {
  const float* r = Residual(i);
  float* p = Direction(i);
  const auto update = [&](int64_t j, auto inverse_diagonal) {
    using V = decltype(inverse_diagonal);
    Store(p + j, Load<V>(r + j) * inverse_diagonal + Load<V>(p + j) * V(beta));
  };
  update(0, 1.0F / (Diagonal(i) - 1.0F));
  const float inverse_diagonal = 1.0F / Diagonal(i);
  ForEachBlock(1, cols_,
               [&](int64_t j, auto zero) { update(j, decltype(zero)(inverse_diagonal)); });
}

// p.w and w.M^-1 w of a row whose p and those around it are complete. All of that is in the cache:
// meanwhile memory fetches the rows that the sweep comes to next.
void ConjugateGradients::MeasureRow(int64_t i, bool fetches_solution) {
  const float* above = Direction(i - 1);
  const float* p = Direction(i);
  const float* below = Direction(i + 1);
  const int64_t next = std::min(i + 3, rows_ - 1);
  const float* next_p = Direction(next + 1);
  const float* next_r = Residual(next);
  const float* next_z = Solution(next);
  RowSum energy;
  RowSum squares;
  const auto measure = [&](int64_t j, auto diagonal) {
    using V = decltype(diagonal);
    Prefetch(next_p + j);
    Prefetch(next_r + j);
    if (fetches_solution) Prefetch(next_z + j);
    const V self = Load<V>(p + j);
    const V w = diagonal * self - Load<V>(p + j - 1) - Load<V>(p + j + 1) - Load<V>(above + j) -
                Load<V>(below + j);
    energy.Add(self * w);
    if (j > 0) squares.Add(w * w);
    return w;
  };
  const float diagonal = Diagonal(i);
  const double first = measure(0, diagonal - 1.0F);
  ForEachBlock(1, cols_, [&](int64_t j, auto zero) { measure(j, decltype(zero)(diagonal)); });
  Sums& sums = row_sums_[static_cast<size_t>(i)];
  sums.pw = energy.Total();
  sums.wmw = first * first / (diagonal - 1.0F) + squares.Total() / diagonal;
}

void ConjugateGradients::Start() {
  ShareBands([&](int64_t first, int64_t end) {
    for (int64_t i = first; i < end; ++i) {
      StartRow(i);
      UpdateResidualRow(i, 0.0F);  // p is zero: for the sums only
    }
  });
  ShareBands([&](int64_t first, int64_t end) {
    for (int64_t i = first; i < end; ++i) UpdateDirectionRow(i, 0.0F);
  });
  ShareBands([&](int64_t first, int64_t end) {
    for (int64_t i = first; i < end; ++i) MeasureRow(i, false);
  });
}

// One iteration, with what it has to know before it begins:
//   for every row i of a band
//     z[i]     += step along p                     in every other sweep
//     r[i]     -= alpha w                          w = A^T A p
//     p[i - 1]  = M^-1 r + beta p
//     sums of row i - 2: p.w, w.M^-1 w             of the new p
//   sums of row i: r.r, r.M^-1 r                   with the new r
void ConjugateGradients::Sweep(float alpha, float beta, const std::optional<SolutionStep>& step) {
  const auto update = [&](int64_t i) {
    if (step) UpdateSolutionRow(i, *step);
    UpdateResidualRow(i, alpha);
  };
  // The outer rows of a band need the p of its neighbours as well, before and after: they are
  // updated ahead of all others and measured behind them. They are too few to be shared.
  ForEachBand([&](int64_t first, int64_t end) {
    update(first);
    if (end - 1 > first) update(end - 1);
  });
  ShareBands([&](int64_t first, int64_t end) {
    for (int64_t i = first + 1; i <= end; ++i) {
      if (i < end - 1) update(i);
      UpdateDirectionRow(i - 1, beta);
      if (i - 2 > first) MeasureRow(i - 2, step.has_value());
    }
  });
  ForEachBand([&](int64_t first, int64_t end) {
    MeasureRow(first, false);
    if (end - 1 > first) MeasureRow(end - 1, false);
  });
}

void ConjugateGradients::AdvanceSolution(const SolutionStep& step) {
  ShareBands([&](int64_t first, int64_t end) {
    for (int64_t i = first; i < end; ++i) UpdateSolutionRow(i, step);
  });
}

int64_t ConjugateGradients::Solve() {
  const int64_t cap = problem_.iteration_cap < 0 ? 2 * rows_ * cols_ : problem_.iteration_cap;
  Start();
  Sums sums = Total();
  const auto threshold = std::max(static_cast<float>(sums.rr) * (kTolerance * kTolerance),
                                  std::numeric_limits<float>::min());
  if (sums.rr == 0 || sums.rr < double{threshold}) return 0;

  float beta = 0;       // the one that made p
  float postponed = 0;  // the alpha of the sweep before, when that has not advanced z
  for (int64_t iteration = 0; iteration < cap; ++iteration) {
    const double alpha = sums.rmr / sums.pw;
    const double next_beta = std::max(alpha * alpha * sums.wmw / sums.rmr - 1.0, 0.0);
    const bool postpones =
        postponed == 0 && next_beta > kSmallestRecoveringBeta && iteration + 1 < cap;
    std::optional<SolutionStep> step;
    if (!postpones) {
      const float before = postponed == 0 ? 0 : postponed / beta;
      step = SolutionStep{static_cast<float>(alpha) + before, -before};
    }
    Sweep(static_cast<float>(alpha), static_cast<float>(next_beta), step);
    beta = static_cast<float>(next_beta);
    postponed = postpones ? static_cast<float>(alpha) : 0;
    sums = Total();
    // Written so that a NaN, which has spread over all of z by now, ends the iteration too.
    if (!(sums.rr >= double{threshold})) {
      if (postpones) AdvanceSolution({postponed / beta, -postponed / beta});
      return iteration;
    }
  }
  return cap;
}

}  // namespace

bool IntegrateHeight(const UnCalibrationTool& tool, const float* p, const float* q,
                     float** height_map) {
  if (tool.rows < 1 || tool.cols < 1) return true;
  SolveHeight({tool.rows, tool.cols, tool.row_step, p, q, tool.iteration_cap}, *height_map);
  return true;
}

int64_t SolveHeight(const HeightProblem& problem, float* z) {
  return ConjugateGradients(problem, z).Solve();
}

}  // namespace velostrix
