// Derivative maps: equal to the scalar rule in every bit, the first-block differences included.
#include "maps/derivative_maps.h"

#include <algorithm>
#include <limits>
#include <random>

#include "support/frames_and_planes.h"

namespace velostrix {
namespace {

constexpr float kInf = std::numeric_limits<float>::infinity();
constexpr float kNaN = std::numeric_limits<float>::quiet_NaN();

TEST(DerivativeMaps, EqualTheScalarRule) {
  std::mt19937 random(19);
  std::uniform_real_distribution<float> slope(-2, 2);
  for (int64_t rows = 1; rows <= 5; ++rows) {
    for (Geometry geometry : NarrowFrames()) {
      geometry.rows = rows;
      const bool has_neighbours = rows >= 2 && geometry.cols >= 3;
      const ToolPtr tool = UnallocatedTool(geometry);
      GuardedPlane<float> p(*tool), q(*tool);
      for (GuardedPlane<float>* map : {&p, &q}) {
        map->Fill([&](int64_t, int64_t) { return random() % 50 == 0 ? kNaN : slope(random); });
      }
      for (const int32_t mode : {0, 1, 2, -1}) {
        GuardedPlane<float> dp(*tool), dq(*tool), expected_dp(*tool), expected_dq(*tool);
        tool->difference_mode = mode;
        EXPECT_EQ(DeriveSlopeMaps(*tool, p.data(), q.data(), dp.data(), dq.data()), 1);
        if (has_neighbours) {
          reference::DeriveSlopeMaps(FrameOf(*tool), p.data(), q.data(), mode == 1,
                                     expected_dp.data(), expected_dq.data());
        }
        EXPECT_TRUE(dp.SameAs(expected_dp)) << geometry << ", mode " << mode << ", seed 19";
        EXPECT_TRUE(dq.SameAs(expected_dq)) << geometry << ", mode " << mode << ", seed 19";

        GuardedPlane<float> sum(*tool), expected_sum(*tool);
        EXPECT_EQ(SlopeDivergence(*tool, p.data(), q.data(), sum.data()), 1);
        if (has_neighbours) {
          reference::SlopeDivergence(FrameOf(*tool), p.data(), q.data(), expected_sum.data());
        }
        EXPECT_TRUE(sum.SameAs(expected_sum)) << geometry << ", mode " << mode << ", seed 19";
      }
    }
  }
}

// Ramps of slope 1: how many columns from the left carry the forward difference 1 and not 2, the
// copies at the right end included.
TEST(DerivativeMaps, RampsByHand) {
  struct Case {
    int64_t cols;
    int64_t forward_columns, forward_columns_of_sum;
  };
  for (const Case& c : {Case{20, 8, 4}, Case{10, 10, 4}, Case{9, 1, 4}, Case{6, 1, 6},
                        Case{5, 1, 1}, Case{3, 3, 3}}) {
    const ToolPtr tool = UnallocatedTool({2, c.cols, c.cols});
    GuardedPlane<float> p(*tool), q(*tool), dp(*tool), dq(*tool), sum(*tool);
    p.Fill([](int64_t, int64_t j) { return j; });
    q.Fill([](int64_t i, int64_t j) { return i * (10 + j); });

    DeriveSlopeMaps(*tool, p.data(), q.data(), dp.data(), dq.data());
    SlopeDivergence(*tool, p.data(), q.data(), sum.data());
    for (int64_t j = 0; j < c.cols; ++j) {
      const int64_t down = 10 + std::min(j, c.cols - 3);
      for (int64_t i = 0; i < 2; ++i) {
        EXPECT_EQ(dp(i, j), j < c.forward_columns ? 1 : 2) << c.cols << " columns, column " << j;
        EXPECT_EQ(dq(i, j), down) << c.cols << " columns, column " << j;
        EXPECT_EQ(sum(i, j), (j < c.forward_columns_of_sum ? 1 : 2) + down)
            << c.cols << " columns, column " << j;
      }
    }

    tool->difference_mode = 1;
    DeriveSlopeMaps(*tool, p.data(), q.data(), dp.data(), dq.data());
    for (int64_t j = 0; j < c.cols; ++j) {
      EXPECT_EQ(dp(0, j), 1) << "forward, column " << j;
      EXPECT_EQ(dp(1, j), 1) << "forward, column " << j;
      EXPECT_EQ(dq(0, j), 10 + std::min(j, c.cols - 3)) << "forward, column " << j;
      EXPECT_EQ(dq(1, j), 0) << "forward, column " << j;
    }
  }
}

TEST(DerivativeMaps, ClampTheSmoothing) {
  struct Case {
    float before, after;
  };
  for (const Case& c : {Case{0.1F, 0.2F}, Case{80, 50}, Case{1, 1}, Case{0.2F, 0.2F}, Case{50, 50},
                        Case{-kInf, 0.2F}, Case{kInf, 50}, Case{kNaN, kNaN}}) {
    for (const int64_t rows : {0, 1, 3}) {
      const ToolPtr tool = UnallocatedTool({3, 4, 4});
      GuardedPlane<float> in(*tool), out(*tool), out2(*tool);
      in.Fill([](int64_t, int64_t) { return 0; });
      tool->rows = rows;
      for (const bool divergence : {false, true}) {
        tool->smoothing = c.before;
        if (divergence) {
          SlopeDivergence(*tool, in.data(), in.data(), out.data());
        } else {
          DeriveSlopeMaps(*tool, in.data(), in.data(), out.data(), out2.data());
        }
        EXPECT_TRUE(tool->smoothing == c.after ||
                    (std::isnan(c.after) && std::isnan(tool->smoothing)))
            << c.before << " became " << tool->smoothing << ", " << rows << " rows";
      }
    }
  }
}

}  // namespace
}  // namespace velostrix
