// From float maps to bytes, words, derivatives and height: equal to the scalar rules in every bit,
// between the rows and behind the frame too; the height follows Eigen's solver on the assembled
// system.
#include <algorithm>
#include <array>
#include <cmath>
#include <limits>
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

struct Content {
  const char* name;
  float (*value)(std::mt19937& random);
};
constexpr Content kContents[] = {
    {"levels with ties",
     [](std::mt19937& r) { return static_cast<float>(static_cast<int>(r() % 2400) - 200) / 8; }},
    {"ties after normalisation",
     [](std::mt19937& r) {
       return std::array{0.0F, 255.0F, 0.5F, 1.5F, 2.5F}[r() % 5];
     }},
    {"slopes", [](std::mt19937& r) { return std::uniform_real_distribution<float>(-2, 2)(r); }},
    {"awkward values", [](std::mt19937& r) { return kAwkward[r() % std::size(kAwkward)]; }},
    {"flat", [](std::mt19937&) { return 0.25F; }},
    {"flat but for NaNs", [](std::mt19937& r) { return r() % 2 == 0 ? -7.0F : kNaN; }},
    {"NaNs", [](std::mt19937&) { return kNaN; }},
    {"infinite", [](std::mt19937&) { return kInf; }},
};
constexpr double kGains[] = {0.0, 1.0, -1.0, 0.1, 127.3, 1e30, -1e300, kInf, kNaN};
constexpr int32_t kOffsets[] = {0, 128, -3, 40000, INT32_MAX, INT32_MIN};

// Calls work(row of the map, row of the plane) for every row of the tool's frame.
template <typename T, typename Work>
void ForEachRow(const UnCalibrationTool& tool, const GuardedPlane<float>& map, GuardedPlane<T>& out,
                Work work) {
  for (int64_t i = 0; i < tool.rows; ++i) {
    work(map.data() + i * tool.row_step, out.data() + i * tool.row_step);
  }
}

Range RangeOf(const UnCalibrationTool& tool, const GuardedPlane<float>& map) {
  Range range;
  for (int64_t i = 0; i < tool.rows; ++i) {
    MinMaxOfMap(map.data() + i * tool.row_step, tool.cols, range);
  }
  return range;
}

// In the block of four, ties go to even; behind it, levels are cut off, normalised ones rounded.
TEST(ByteMaps, ByHand) {
  const ToolPtr tool = UnallocatedTool({1, 5, 5});
  GuardedPlane<float> map(*tool);
  GuardedPlane<uint8_t> bytes(*tool);
  GuardedPlane<uint16_t> words(*tool);
  const struct {
    float value;
    double gain;
    int32_t offset;
    int in_block, in_tail;
  } cases[] = {{2.5F, 1, 0, 2, 2},       {3.5F, 1, 0, 4, 3},  {2.7F, 1, 0, 3, 2},
               {254.7F, 1, 0, 255, 254}, {-7.0F, 1, 0, 0, 0}, {300.0F, 1, 0, 255, 255},
               {1e10F, 1, 0, 0, 0},      {0.7F, 10, 0, 7, 6}, {1.0F, 10, 128, 138, 138}};
  for (const auto& c : cases) {
    map.Fill([&](int64_t, int64_t) { return c.value; });
    MapToByteLinear(map.data(), 5, c.gain, c.offset, bytes.data());
    EXPECT_EQ(bytes(0, 3), c.in_block) << c.value;
    EXPECT_EQ(bytes(0, 4), c.in_tail) << c.value;
  }
  const float values[] = {0, 255, 1.5F, 2.5F, 2.5F};
  map.Fill([&](int64_t, int64_t j) { return values[j]; });
  MapToByteNormalized(map.data(), 5, 5, RangeOf(*tool, map), 1.0, bytes.data());
  MapToWordNormalized(map.data(), 5, 5, RangeOf(*tool, map), words.data());
  for (const auto& [j, byte, word] : {std::array{1, 255, 65535}, {2, 2, 386}, {4, 3, 643}}) {
    EXPECT_EQ(bytes(0, j), byte);
    EXPECT_EQ(words(0, j), word);
  }
}

TEST(ByteMaps, EqualTheScalarRules) {
  std::mt19937 random(17);
  for (const Geometry& geometry : NarrowFrames()) {
    SCOPED_TRACE(testing::Message() << geometry << ", seed 17");
    const ToolPtr tool = UnallocatedTool(geometry);
    const reference::Frame frame = FrameOf(*tool);
    for (const Content& content : kContents) {
      SCOPED_TRACE(content.name);
      GuardedPlane<float> map(*tool);
      map.Fill([&](int64_t, int64_t) { return content.value(random); });
      const Range range = RangeOf(*tool, map);
      const auto expect_same = [&](auto kernel, auto plain, auto... scaling) {
        GuardedPlane<uint8_t> actual(*tool), expected(*tool);
        ForEachRow(*tool, map, actual,
                   [&](const float* in, uint8_t* out) { kernel(in, scaling..., out); });
        plain(frame, map.data(), expected.data(), scaling...);
        EXPECT_TRUE(actual.SameAs(expected)) << testing::PrintToString(std::tuple(scaling...));
      };
      for (const double gain : kGains) {
        expect_same(
            [&](const float* in, double g, uint8_t* out) {
              MapToByteNormalized(in, tool->cols, tool->row_step, range, g, out);
            },
            reference::MapToByteNormalized, gain);
        for (const int32_t offset : kOffsets) {
          const auto with_cols = [&](auto kernel) {
            return [&, kernel](const float* in, double g, int32_t o, uint8_t* out) {
              kernel(in, tool->cols, g, o, out);
            };
          };
          expect_same(with_cols(MapToByteLinear), reference::MapToByteLinear, gain, offset);
          expect_same(with_cols(MapToByteAbsLinear), reference::MapToByteAbsLinear, gain, offset);
        }
      }
      GuardedPlane<uint16_t> words(*tool), expected_words(*tool);
      ForEachRow(*tool, map, words, [&](const float* in, uint16_t* out) {
        MapToWordNormalized(in, tool->cols, tool->row_step, range, out);
      });
      reference::MapToWordNormalized(frame, map.data(), expected_words.data());
      EXPECT_TRUE(words.SameAs(expected_words)) << "words";
      Range expected_range;
      reference::MinMaxOfMap(frame, map.data(), expected_range.min, expected_range.max);
      EXPECT_EQ(range.min, expected_range.min);
      EXPECT_EQ(range.max, expected_range.max);
    }
    for (const int32_t offset :
         {0, -128, 100, -510, 32767, 32768, -32769, 65536, 70000, INT32_MAX - 2 * 255, INT32_MIN}) {
      SCOPED_TRACE(testing::Message() << "sum, offset " << offset);
      GuardedPlane<uint8_t> a(*tool), b(*tool), expected(*tool);
      a.Fill([&](int64_t, int64_t) { return random() % 256; });
      b.Fill([&](int64_t, int64_t) { return random() % 256; });
      reference::SumBytes(frame, a.data(), b.data(), expected.data(), offset);
      for (int64_t at = 0; at < tool->plane_size; at += tool->row_step) {
        SumBytes(a.data() + at, b.data() + at, tool->cols, offset, b.data() + at);
      }
      EXPECT_TRUE(b.SameAs(expected));
      reference::SumBytes(frame, a.data(), a.data(), expected.data(), offset);
      for (int64_t at = 0; at < tool->plane_size; at += tool->row_step) {
        SumBytes(a.data() + at, a.data() + at, tool->cols, offset, a.data() + at);
      }
      EXPECT_TRUE(a.SameAs(expected)) << "all one plane";
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
                        {{133, 151, 151}},
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

// A ramp down to zero beyond the right edge. Beyond the lower edge there is zero as well.
TEST(Height, RampsByHand) {
  const ToolPtr tool = UnallocatedTool({6, 7, 7});
  tool->iteration_cap = -1;
  Slopes slopes(*tool, -1, 0);
  slopes.q.Fill([](int64_t i, int64_t j) { return i < 5 ? 0 : 7 - j; });
  const GuardedPlane<float> height = Integrate(*tool, slopes);
  for (int j = 0; j < 7; ++j) EXPECT_NEAR(height.data()[j], 7 - j, 0.05) << j;
}

TEST(Height, EmptyFramesWriteNothing) {
  const ToolPtr tool = UnallocatedTool({5, 5, 5});
  float* no_map = nullptr;
  for (const auto& [rows, cols] : {std::pair(0, 5), {5, 0}, {-1, 5}}) {
    tool->rows = rows;
    tool->cols = cols;
    EXPECT_TRUE(IntegrateHeight(*tool, nullptr, nullptr, &no_map));
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
