// Height from slopes: the iteration of Eigen's solver on the assembled system, and surfaces that
// come back.
#include "maps/height.h"

#include <omp.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <random>

#include "maps/height_solver.h"
#include "support/frames_and_planes.h"

namespace velostrix {
namespace {

constexpr float kInf = std::numeric_limits<float>::infinity();
constexpr float kNaN = std::numeric_limits<float>::quiet_NaN();
constexpr double kPi = 3.14159265358979323846;
constexpr double kEpsilon = std::numeric_limits<float>::epsilon();

struct Slopes {
  Slopes(const UnCalibrationTool& tool, float mean, float spread) : p(tool), q(tool) {
    std::mt19937 random(23);
    std::uniform_real_distribution<float> slope(mean - spread, mean + spread);
    p.Fill([&](int64_t, int64_t) { return slope(random); });
    q.Fill([&](int64_t, int64_t) { return slope(random); });
  }

  GuardedPlane<float> p, q;
};

GuardedPlane<float> Integrate(const UnCalibrationTool& tool, const Slopes& slopes) {
  GuardedPlane<float> height(tool);
  float* slot = height.data();
  EXPECT_TRUE(IntegrateHeight(tool, slopes.p.data(), slopes.q.data(), &slot));
  EXPECT_EQ(slot, height.data());
  return height;
}

double LargestValue(const Geometry& g, const GuardedPlane<float>& plane) {
  double largest = 0.0;
  for (int64_t i = 0; i < g.rows; ++i) {
    for (int64_t j = 0; j < g.cols; ++j) {
      largest = std::fmax(largest, std::fabs(static_cast<double>(plane(i, j))));
    }
  }
  return largest;
}

void ExpectNear(const Geometry& g, const GuardedPlane<float>& actual,
                const GuardedPlane<float>& expected, double tolerance) {
  EXPECT_TRUE(actual.SameOutsideFrame(expected));
  for (int64_t i = 0; i < g.rows; ++i) {
    for (int64_t j = 0; j < g.cols; ++j) {
      ASSERT_NEAR(actual(i, j), expected(i, j), tolerance) << "row " << i << ", column " << j;
    }
  }
}

TEST(Height, FollowsEigensIteration) {
  const Geometry geometries[] = {{1, 1, 1},    {1, 9, 9},    {9, 1, 1},
                                 {2, 2, 5},    {7, 5, 8},    {31, 24, 24},
                                 {40, 40, 40}, {48, 64, 70}, {133, 151, 151}};
  for (const Geometry& geometry : geometries) {
    for (const float mean : {0.0F, 1.0F}) {
      for (const int32_t cap : {0, 1, 2, 5, 50, -1}) {
        SCOPED_TRACE(testing::Message() << geometry << ", cap " << cap << ", mean slope " << mean);
        const ToolPtr tool = UnallocatedTool(geometry);
        tool->iteration_cap = cap;
        const Slopes slopes(*tool, mean, 1.0F);
        GuardedPlane<float> expected(*tool), solved(*tool);
        const int64_t iterations = reference::IntegrateHeight(
            FrameOf(*tool), slopes.p.data(), slopes.q.data(), cap, expected.data());
        EXPECT_EQ(SolveHeight({tool->rows, tool->cols, tool->row_step, slopes.p.data(),
                               slopes.q.data(), cap},
                              solved.data()),
                  iterations);
        const GuardedPlane<float> height = Integrate(*tool, slopes);
        EXPECT_TRUE(height.SameAs(solved));

        // Eigen's inner products of n terms are off by sqrt(n) roundings, and so are the step
        // lengths of every iteration.
        const auto n = static_cast<double>(geometry.rows * geometry.cols);
        const double kRoundoff = static_cast<double>(iterations + 1) * std::sqrt(n) * kEpsilon;
        ExpectNear(geometry, height, expected, kRoundoff * LargestValue(geometry, expected));
      }
    }
  }
}

// Slopes of a surface that falls to 0 beyond the right and the bottom edge determine it.
TEST(Height, SurfaceComesBack) {
  const Geometry g{31, 24, 27};
  const ToolPtr tool = UnallocatedTool(g);
  tool->iteration_cap = 1000;
  const double quarter_row = kPi / 2 / static_cast<double>(g.rows);
  const double quarter_col = kPi / 2 / static_cast<double>(g.cols);
  const auto surface = [&](int64_t i, int64_t j) {
    if (i >= g.rows || j >= g.cols) return 0.0;
    const double y = quarter_row * static_cast<double>(i);
    const double x = quarter_col * static_cast<double>(j);
    return 10 * std::cos(y) * std::cos(x) + 2 * std::cos(3 * y) * std::cos(5 * x);
  };
  Slopes slopes(*tool, 0, 1);
  slopes.p.Fill([&](int64_t i, int64_t j) { return surface(i, j + 1) - surface(i, j); });
  slopes.q.Fill([&](int64_t i, int64_t j) { return surface(i, j) - surface(i + 1, j); });
  const GuardedPlane<float> height = Integrate(*tool, slopes);

  // The solver stops at a residual of a thousandth of the right-hand side A'b = A'A z.
  double error = 0.0, size = 0.0, right_hand_side = 0.0;
  for (int64_t i = 0; i < g.rows; ++i) {
    for (int64_t j = 0; j < g.cols; ++j) {
      const double z = surface(i, j);
      double stencil = 2 * z - surface(i, j + 1) - surface(i + 1, j);
      if (i > 0) stencil += z - surface(i - 1, j);
      if (j > 0) stencil += z - surface(i, j - 1);
      error += std::pow(height(i, j) - z, 2);
      size += z * z;
      right_hand_side += stencil * stencil;
    }
  }
  const auto smallest = [](int64_t n) {
    return std::pow(2 * std::sin(kPi / static_cast<double>(4 * n + 2)), 2);
  };
  const double smallest_eigenvalue = smallest(g.rows) + smallest(g.cols);
  const double bound = 0.001 * std::sqrt(right_hand_side) / smallest_eigenvalue;
  EXPECT_LT(std::sqrt(error), bound);
  EXPECT_LT(bound, 0.02 * std::sqrt(size)) << "the bound says nothing";
}

TEST(Height, WithoutSlopesOrIterationsIsFlat) {
  struct Case {
    const char* name;
    float mean, spread;
    int32_t cap;
  };
  for (const Case& c : {Case{"no slopes", 0, 0, 50}, Case{"no iterations", 1, 1, 0},
                        Case{"slopes whose squares vanish", 0, 1e-25F, 50}}) {
    SCOPED_TRACE(c.name);
    const Geometry g{6, 11, 12};
    const ToolPtr tool = UnallocatedTool(g);
    tool->iteration_cap = c.cap;
    GuardedPlane<float> flat(*tool);
    flat.Fill([](int64_t, int64_t) { return 0; });
    EXPECT_TRUE(Integrate(*tool, Slopes(*tool, c.mean, c.spread)).SameAs(flat));
  }
}

TEST(Height, OneBadSlopeSpoilsAllAndEnds) {
  const Geometry g{9, 14, 15};
  for (const float bad : {kNaN, -kNaN, kInf}) {
    for (const bool in_q : {false, true}) {
      for (const int64_t row : {0, 4, 8}) {
        SCOPED_TRACE(testing::Message() << bad << (in_q ? " in q, row " : " in p, row ") << row);
        const ToolPtr tool = UnallocatedTool(g);
        Slopes slopes(*tool, 0, 1);
        (in_q ? slopes.q : slopes.p)(row, 13) = bad;
        for (const int32_t cap : {0, 1, 50, std::numeric_limits<int32_t>::max()}) {
          tool->iteration_cap = cap;
          GuardedPlane<float> expected(*tool);
          expected.Fill([&](int64_t, int64_t) { return cap == 0 ? 0.0F : kNaN; });
          EXPECT_TRUE(Integrate(*tool, slopes).SameAs(expected)) << "cap " << cap;
          GuardedPlane<float> plain(*tool);
          reference::IntegrateHeight(FrameOf(*tool), slopes.p.data(), slopes.q.data(),
                                     std::min(cap, 50), plain.data());
          EXPECT_TRUE(plain.SameAs(expected)) << "Eigen, cap " << cap;
        }
      }
    }
  }
}

TEST(Height, EmptyFramesWriteNothing) {
  for (const Geometry& g : {Geometry{0, 5, 5}, Geometry{5, 0, 5}, Geometry{-1, 5, 5}}) {
    const ToolPtr tool = UnallocatedTool({5, 5, 5});
    const Slopes slopes(*tool, 0, 1);
    GuardedPlane<float> height(*tool);
    const GuardedPlane<float> untouched(*tool);
    tool->rows = g.rows;
    tool->cols = g.cols;
    float* slot = height.data();
    EXPECT_TRUE(IntegrateHeight(*tool, slopes.p.data(), slopes.q.data(), &slot)) << g;
    EXPECT_TRUE(height.SameAs(untouched)) << g;
  }
}

TEST(Height, DoesNotDependOnThreads) {
  const int threads_before = omp_get_max_threads();
  for (const Geometry& geometry :
       {Geometry{130, 170, 170}, Geometry{301, 703, 710}, Geometry{1030, 1020, 1020}}) {
    const ToolPtr tool = UnallocatedTool(geometry);
    const Slopes slopes(*tool, 0.5F, 1);
    omp_set_num_threads(1);
    const GuardedPlane<float> alone = Integrate(*tool, slopes);
    for (const int threads : {2, 3, 8}) {
      omp_set_num_threads(threads);
      EXPECT_TRUE(Integrate(*tool, slopes).SameAs(alone)) << geometry << ", threads: " << threads;
    }
  }
  omp_set_num_threads(threads_before);
}

}  // namespace
}  // namespace velostrix
