// From float maps to bytes, words, derivatives and height: equal to the scalar rules in every bit,
// also between the rows and behind the frame. The height follows Eigen's sparse solver.
#include <algorithm>
#include <array>
#include <cmath>
#include <functional>
#include <limits>
#include <map>
#include <opencv2/core/utility.hpp>
#include <random>

#include "maps/byte_maps.h"
#include "maps/derivative_maps.h"
#include "maps/height.h"
#include "support/frames_and_planes.h"

namespace velostrix {
namespace {

constexpr float kInf = std::numeric_limits<float>::infinity();
constexpr float kNaN = std::numeric_limits<float>::quiet_NaN();

// Ties, thresholds, and everything that does not fit an integer.
constexpr float kAwkward[] = {kNaN,          -kNaN,  kInf,    -kInf,         0.0F,   -0.0F,
                              0.5F,          -0.5F,  1.5F,    2.5F,          2.7F,   254.5F,
                              254.7F,        255.5F, 1e-42F,  3e38F,         -3e38F, 1e10F,
                              2147483648.0F, -1e10F, 65535.F, 0x1.fffffep-1F};

// What a map may hold, by its name.
const std::map<const char*, std::function<float(std::mt19937&)>> kContents = {
    {"levels with ties",
     [](auto& r) { return static_cast<float>(static_cast<int>(r() % 2400) - 200) / 8; }},
    {"ties after normalisation",
     [](auto& r) {
       return std::array{0.0F, 255.0F, 0.5F, 1.5F, 2.5F}[r() % 5];
     }},
    {"ties of words",
     [](auto& r) {
       return std::array{0.0F, 65535.0F, 0.5F, 1.5F}[r() % 4];
     }},
    {"slopes", [](auto& r) { return std::uniform_real_distribution<float>(-2, 2)(r); }},
    {"awkward values", [](auto& r) { return kAwkward[r() % std::size(kAwkward)]; }},
    {"flat but for NaNs", [](auto& r) { return r() % 2 == 0 ? -7.0F : kNaN; }},
    {"NaNs", [](auto&) { return kNaN; }},
    {"infinite", [](auto&) { return kInf; }},
};
constexpr double kGains[] = {0.0, 1.0, -1.0, 0.1, 127.3, 1e30, -1e300, kInf, kNaN};
constexpr int32_t kOffsets[] = {0, 128, -3, 40000, INT32_MAX, INT32_MIN};

// In the block of four, ties go to even; behind it, levels are cut off.
TEST(ByteMaps, ByHand) {
  const struct {
    float value;
    double gain;
    int32_t offset;
    int in_block, in_tail;
  } cases[] = {{2.5F, 1, 0, 2, 2},       {3.5F, 1, 0, 4, 3},  {2.7F, 1, 0, 3, 2},
               {254.7F, 1, 0, 255, 254}, {-7.0F, 1, 0, 0, 0}, {300.0F, 1, 0, 255, 255},
               {1e10F, 1, 0, 0, 0},      {0.7F, 10, 0, 7, 6}, {1.0F, 10, 128, 138, 138}};
  for (const auto& c : cases) {
    const std::array<float, 5> row = {c.value, c.value, c.value, c.value, c.value};
    std::array<uint8_t, 5> bytes = {};
    MapToByteLinear(row.data(), 5, c.gain, c.offset, bytes.data());
    EXPECT_EQ(bytes[3], c.in_block) << c.value;
    EXPECT_EQ(bytes[4], c.in_tail) << c.value;
  }
}

// A plane that `fill` writes row by row, given where each row begins.
template <typename T, typename Fill>
GuardedPlane<T> ByRows(const UnCalibrationTool& tool, Fill fill) {
  GuardedPlane<T> plane(tool);
  for (int64_t i = 0; i < tool.rows; ++i) fill(i * tool.row_step, &plane(i, 0));
  return plane;
}

// A plane that the plain rule writes at once.
template <typename T, typename Rule, typename... Arguments>
GuardedPlane<T> Plain(const UnCalibrationTool& tool, Rule rule, const float* map,
                      Arguments... scaling) {
  GuardedPlane<T> plane(tool);
  rule(FrameOf(tool), map, plane.data(), scaling...);
  return plane;
}

TEST(ByteMaps, EqualTheScalarRules) {
  std::mt19937 random(17);
  for (const Geometry& geometry : NarrowFrames()) {
    const ToolPtr owner = UnallocatedTool(geometry);
    const UnCalibrationTool& tool = *owner;
    const int64_t cols = tool.cols;
    for (const auto& [name, value] : kContents) {
      SCOPED_TRACE(testing::Message() << geometry << ", seed 17, " << name);
      GuardedPlane<float> values(tool);
      values.Fill([&, &next = value](int64_t, int64_t) { return next(random); });
      const float* const map = values.data();
      Range range, plain_range;
      for (int64_t i = 0; i < tool.rows; ++i) MinMaxOfMap(&values(i, 0), cols, range);
      reference::MinMaxOfMap(FrameOf(tool), map, plain_range.min, plain_range.max);
      EXPECT_EQ(range.min, plain_range.min);
      EXPECT_EQ(range.max, plain_range.max);
      EXPECT_TRUE(ByRows<uint16_t>(tool, [&](int64_t at, uint16_t* out) {
                    MapToWordNormalized(map + at, cols, tool.row_step, range, out);
                  }).SameAs(Plain<uint16_t>(tool, reference::MapToWordNormalized, map)));
      for (const double gain : kGains) {
        EXPECT_TRUE(ByRows<uint8_t>(tool,
                                    [&](int64_t at, uint8_t* out) {
                                      MapToByteNormalized(map + at, cols, tool.row_step, range,
                                                          gain, out);
                                    })
                        .SameAs(Plain<uint8_t>(tool, reference::MapToByteNormalized, map, gain)))
            << gain;
        for (const int32_t offset : kOffsets) {
          EXPECT_TRUE(
              ByRows<uint8_t>(tool,
                              [&](int64_t at, uint8_t* out) {
                                MapToByteLinear(map + at, cols, gain, offset, out);
                              })
                  .SameAs(Plain<uint8_t>(tool, reference::MapToByteLinear, map, gain, offset)))
              << gain << ", " << offset;
          EXPECT_TRUE(
              ByRows<uint8_t>(tool,
                              [&](int64_t at, uint8_t* out) {
                                MapToByteAbsLinear(map + at, cols, gain, offset, out);
                              })
                  .SameAs(Plain<uint8_t>(tool, reference::MapToByteAbsLinear, map, gain, offset)))
              << gain << ", " << offset;
        }
      }
    }
    for (const int32_t offset :
         {0, -128, 100, -510, 32767, 32768, -32769, 65536, 70000, INT32_MAX - 2 * 255, INT32_MIN}) {
      SCOPED_TRACE(testing::Message() << geometry << ", sum, offset " << offset);
      GuardedPlane<uint8_t> a(tool), b(tool), expected(tool);
      a.Fill([&](int64_t, int64_t) { return random() % 256; });
      b.Fill([&](int64_t, int64_t) { return random() % 256; });
      reference::SumBytes(FrameOf(tool), a.data(), b.data(), expected.data(), offset);
      for (int64_t i = 0; i < tool.rows; ++i) SumBytes(&a(i, 0), &b(i, 0), cols, offset, &b(i, 0));
      EXPECT_TRUE(b.SameAs(expected));
    }
  }
}

TEST(DerivativeMaps, EqualTheScalarRule) {
  std::mt19937 random(19);
  std::uniform_real_distribution<float> slope(-2, 2);
  for (int64_t rows = 2; rows <= 5; ++rows) {
    for (Geometry geometry : NarrowFrames()) {
      if (geometry.cols < 3) continue;
      geometry.rows = rows;
      const ToolPtr tool = UnallocatedTool(geometry);
      GuardedPlane<float> p(*tool), q(*tool);
      for (GuardedPlane<float>* map : {&p, &q}) {
        map->Fill([&](int64_t, int64_t) { return random() % 50 == 0 ? kNaN : slope(random); });
      }
      const SlopeRows slopes = {{p.data(), geometry.row_step, rows},
                                {q.data(), geometry.row_step, rows},
                                rows,
                                tool->cols};
      for (const bool forward : {false, true}) {
        SCOPED_TRACE(testing::Message() << geometry << ", forward " << forward << ", seed 19");
        GuardedPlane<float> dp(*tool), dq(*tool), sum(*tool);
        GuardedPlane<float> expected_dp(*tool), expected_dq(*tool), expected_sum(*tool);
        for (int64_t i = 0; i < rows; ++i) {
          DeriveSlopeMaps(slopes, i, forward, &dp(i, 0), &dq(i, 0));
          SlopeDivergence(slopes, i, &sum(i, 0));
        }
        const reference::Frame frame = FrameOf(*tool);
        reference::DeriveSlopeMaps(frame, p.data(), q.data(), forward, expected_dp.data(),
                                   expected_dq.data());
        reference::SlopeDivergence(frame, p.data(), q.data(), expected_sum.data());
        EXPECT_TRUE(dp.SameAs(expected_dp)) << "along the rows";
        EXPECT_TRUE(dq.SameAs(expected_dq)) << "across the rows";
        EXPECT_TRUE(sum.SameAs(expected_sum)) << "sum";
      }
    }
  }
}

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
  return height;
}

TEST(Height, FollowsEigensIteration) {
  struct Case {
    Geometry geometry;
    float mean = 0, spread = 1;
  };
  const Case cases[] = {{{1, 1, 1}},
                        {{1, 9, 9}},
                        {{9, 1, 1}},
                        {{2, 2, 5}},
                        {{31, 24, 24}},
                        {{31, 24, 24}, 1},
                        {{48, 64, 70}},
                        {{48, 64, 70}, 1},
                        {{65, 151, 151}},
                        // Flat, and with slopes whose squares vanish.
                        {{6, 11, 12}, 0, 0},
                        {{6, 11, 12}, 0, 1e-20F},
                        {{6, 11, 12}, 0, 1e-25F}};
  for (const Case& c : cases) {
    for (const int32_t cap : {0, 1, 2, 5, 50, -1}) {
      SCOPED_TRACE(testing::Message() << c.geometry << ", cap " << cap << ", slopes of " << c.mean
                                      << " and " << c.spread << " around");
      const ToolPtr tool = UnallocatedTool(c.geometry);
      const Slopes slopes(*tool, c.mean, c.spread);
      tool->iteration_cap = cap;
      GuardedPlane<float> height(*tool), expected(*tool);
      const int64_t iterations = reference::IntegrateHeight(FrameOf(*tool), slopes.p.data(),
                                                            slopes.q.data(), cap, expected.data());
      EXPECT_EQ(SolveHeight(
                    {tool->rows, tool->cols, tool->row_step, slopes.p.data(), slopes.q.data(), cap},
                    height.data()),
                iterations);

      // Eigen's inner products of n terms are off by sqrt(n) roundings, and so are the step lengths
      // of every iteration.
      const double roundoff = static_cast<double>(iterations + 1) *
                              std::sqrt(static_cast<double>(tool->rows * tool->cols)) *
                              std::numeric_limits<float>::epsilon();
      double most = 0;
      double largest = 0;
      for (int64_t i = 0; i < tool->rows; ++i) {
        for (int64_t j = 0; j < tool->cols; ++j) {
          const double difference = height(i, j) - expected(i, j);
          most = std::max(most, std::fabs(difference));
          largest = std::max(largest, std::fabs(double{expected(i, j)}));
          height(i, j) = expected(i, j);
        }
      }
      EXPECT_LE(most, roundoff * largest);
      EXPECT_TRUE(height.SameAs(expected));  // nothing else is written
    }
  }
}

TEST(Height, OneBadSlopeSpoilsAllAndEnds) {
  for (const float bad : {kNaN, -kNaN, kInf}) {
    for (const int64_t row : {0, 4, 8}) {
      for (const int32_t cap : {0, 1, INT32_MAX}) {
        SCOPED_TRACE(testing::Message() << bad << " in row " << row << ", cap " << cap);
        const ToolPtr tool = UnallocatedTool({9, 14, 15});
        tool->iteration_cap = cap;
        Slopes slopes(*tool, 0, 1);
        (row == 4 ? slopes.q : slopes.p)(row, 13) = bad;
        GuardedPlane<float> expected(*tool);
        expected.Fill([&](int64_t, int64_t) { return cap == 0 ? 0.0F : kNaN; });
        EXPECT_TRUE(Integrate(*tool, slopes).SameAs(expected));
      }
    }
  }
}

// The norm of A^T b - A^T A z in double, from the equations of the header.
double ResidualNorm(const UnCalibrationTool& tool, Slopes& slopes, GuardedPlane<float>& z) {
  const auto at = [&](int64_t i, int64_t j) {
    return i < tool.rows && j < tool.cols ? double{z(i, j)} : 0.0;
  };
  const auto along_row = [&](int64_t i, int64_t j) {
    return j < 0 ? 0.0 : at(i, j) - at(i, j + 1) + double{slopes.p(i, j)};
  };
  const auto across_rows = [&](int64_t i, int64_t j) {
    return i < 0 ? 0.0 : at(i, j) - at(i + 1, j) - double{slopes.q(i, j)};
  };
  double squares = 0;
  for (int64_t i = 0; i < tool.rows; ++i) {
    for (int64_t j = 0; j < tool.cols; ++j) {
      squares += std::pow(
          along_row(i, j) - along_row(i, j - 1) + across_rows(i, j) - across_rows(i - 1, j), 2);
    }
  }
  return std::sqrt(squares);
}

// What the iteration takes for the residual does not drift away from that of the heights.
TEST(Height, LargeFramesReachTheTolerance) {
  for (const Geometry& geometry : {Geometry{150, 140, 140}, {321, 300, 303}}) {
    const ToolPtr tool = UnallocatedTool(geometry);
    tool->iteration_cap = -1;
    Slopes slopes(*tool, 0.5F, 1);
    GuardedPlane<float> flat(*tool);
    flat.Fill([](int64_t, int64_t) { return 0; });
    GuardedPlane<float> height = Integrate(*tool, slopes);
    EXPECT_LT(ResidualNorm(*tool, slopes, height), 0.00101 * ResidualNorm(*tool, slopes, flat));
  }
}

TEST(Height, EmptyFramesWriteNothing) {
  float* no_map = nullptr;
  for (const Geometry& g : {Geometry{0, 5, 5}, {5, 0, 5}, {-1, 5, 5}}) {
    EXPECT_TRUE(IntegrateHeight(*UnallocatedTool(g), nullptr, nullptr, &no_map));
  }
}

TEST(Height, DoesNotDependOnThreads) {
  const int threads_before = cv::getNumThreads();
  for (const Geometry& geometry : {Geometry{190, 170, 170}, Geometry{1501, 703, 710}}) {
    const ToolPtr tool = UnallocatedTool(geometry);
    const Slopes slopes(*tool, 0.5F, 1);
    cv::setNumThreads(1);
    const GuardedPlane<float> alone = Integrate(*tool, slopes);
    for (const int threads : {2, 3, 8}) {
      cv::setNumThreads(threads);
      EXPECT_TRUE(Integrate(*tool, slopes).SameAs(alone)) << geometry << ", threads: " << threads;
    }
  }
  cv::setNumThreads(threads_before);
}

}  // namespace
}  // namespace velostrix
