// The kernels that turn float maps into bytes and words: equal to the scalar rules in every byte.
#include "maps/byte_maps.h"

#include <limits>
#include <random>
#include <sstream>
#include <string>

#include "support/frames_and_planes.h"

namespace velostrix {
namespace {

constexpr float kInf = std::numeric_limits<float>::infinity();
constexpr float kNaN = std::numeric_limits<float>::quiet_NaN();
constexpr int32_t kIntMin = std::numeric_limits<int32_t>::min();
constexpr int32_t kIntMax = std::numeric_limits<int32_t>::max();
constexpr int32_t kLargestSumOffset = kIntMax - 2 * 255;

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
    {"slopes", [](std::mt19937& r) { return std::uniform_real_distribution<float>(-2, 2)(r); }},
    {"awkward values", [](std::mt19937& r) { return kAwkward[r() % std::size(kAwkward)]; }},
    {"flat", [](std::mt19937&) { return 0.25F; }},
    {"flat but for NaNs", [](std::mt19937& r) { return r() % 2 == 0 ? -7.0F : kNaN; }},
    {"NaNs", [](std::mt19937&) { return kNaN; }},
    {"infinite", [](std::mt19937&) { return kInf; }},
};
constexpr double kGains[] = {0.0, 1.0, -1.0, 0.1, 127.3, 1e30, -1e300, kInf, kNaN};
constexpr int32_t kOffsets[] = {0, 128, -3, 40000, kIntMax, kIntMin};

// Calls visit(tool, map, description) for every frame and content.
template <typename Visitor>
void ForEachMap(Visitor visit) {
  std::mt19937 random(17);
  for (const Geometry& geometry : NarrowFrames()) {
    const ToolPtr tool = UnallocatedTool(geometry);
    for (const Content& content : kContents) {
      GuardedPlane<float> map(*tool);
      map.Fill([&](int64_t, int64_t) { return content.value(random); });
      std::ostringstream description;
      description << geometry << ", " << content.name << ", seed 17";
      visit(*tool, map, description.str());
    }
  }
}

using LinearKernel = int32_t (*)(const FrameExtent&, const float*, uint8_t*, double, int32_t);
using LinearReference = void (*)(const reference::Frame&, const float*, uint8_t*, double, int32_t);

void ExpectLinearKernel(LinearKernel kernel, LinearReference plain) {
  ForEachMap([&](const UnCalibrationTool& tool, const GuardedPlane<float>& map,
                 const std::string& description) {
    for (const double gain : kGains) {
      for (const int32_t offset : kOffsets) {
        GuardedPlane<uint8_t> actual(tool), expected(tool);
        EXPECT_EQ(kernel(tool, map.data(), actual.data(), gain, offset), 1);
        plain(FrameOf(tool), map.data(), expected.data(), gain, offset);
        EXPECT_TRUE(actual.SameAs(expected))
            << description << ", gain " << gain << ", offset " << offset;
      }
    }
  });
}

TEST(ByteMaps, LinearEqualsTheScalarRule) {
  ExpectLinearKernel(MapToByteLinear, reference::MapToByteLinear);
}

TEST(ByteMaps, AbsLinearEqualsTheScalarRule) {
  ExpectLinearKernel(MapToByteAbsLinear, reference::MapToByteAbsLinear);
}

TEST(ByteMaps, NormalizedEqualsTheScalarRule) {
  ForEachMap([](const UnCalibrationTool& tool, const GuardedPlane<float>& map,
                const std::string& description) {
    for (const double gain : kGains) {
      GuardedPlane<uint8_t> actual(tool), expected(tool);
      EXPECT_EQ(MapToByteNormalized(tool, map.data(), actual.data(), gain), 1);
      reference::MapToByteNormalized(FrameOf(tool), map.data(), expected.data(), gain);
      EXPECT_TRUE(actual.SameAs(expected)) << description << ", gain " << gain;
    }
    GuardedPlane<uint16_t> actual(tool), expected(tool);
    EXPECT_TRUE(MapToWordNormalized(tool, map.data(), actual.data()));
    reference::MapToWordNormalized(FrameOf(tool), map.data(), expected.data());
    EXPECT_TRUE(actual.SameAs(expected)) << description;
  });
}

TEST(ByteMaps, RangeEqualsTheScalarRule) {
  ForEachMap([](const UnCalibrationTool& tool, const GuardedPlane<float>& map,
                const std::string& description) {
    float range[2], expected[2];
    MinMaxOfMap(map.data(), tool.cols, tool.rows, tool.row_step, range[0], range[1]);
    reference::MinMaxOfMap(FrameOf(tool), map.data(), expected[0], expected[1]);
    EXPECT_EQ(range[0], expected[0]) << description;
    EXPECT_EQ(range[1], expected[1]) << description;
  });
}

TEST(ByteMaps, RangeOfNothingIsInsideOut) {
  const float value = 1.0F;
  float min = 0.0F, max = 0.0F;
  MinMaxOfMap(&value, 1, 0, 1, min, max);
  EXPECT_EQ(min, 0x1.fffffap127F);
  EXPECT_EQ(max, -0x1.fffffap127F);
}

TEST(ByteMaps, SumBytesEqualsTheScalarRule) {
  std::mt19937 random(18);
  for (const Geometry& geometry : NarrowFrames()) {
    const ToolPtr tool = UnallocatedTool(geometry);
    for (const int32_t offset :
         {0, -128, 100, -510, 32767, 32768, -32769, 65536, 70000, kLargestSumOffset, kIntMin}) {
      GuardedPlane<uint8_t> a(*tool), b(*tool), out(*tool), expected(*tool);
      a.Fill([&](int64_t, int64_t) { return random() % 256; });
      b.Fill([&](int64_t, int64_t) { return random() % 256; });
      reference::SumBytes(FrameOf(*tool), a.data(), b.data(), expected.data(), offset);
      EXPECT_EQ(SumBytes(*tool, a.data(), b.data(), out.data(), offset), 0);
      EXPECT_TRUE(out.SameAs(expected)) << geometry << ", offset " << offset << ", seed 18";

      SumBytes(*tool, a.data(), b.data(), b.data(), offset);
      EXPECT_TRUE(b.SameAs(expected)) << geometry << ", offset " << offset << ", into b";
      reference::SumBytes(FrameOf(*tool), a.data(), a.data(), expected.data(), offset);
      SumBytes(*tool, a.data(), a.data(), a.data(), offset);
      EXPECT_TRUE(a.SameAs(expected)) << geometry << ", offset " << offset << ", all one plane";
    }
  }
}

// Levels worked out by hand: four pixels of a block and one behind it.
TEST(ByteMaps, LevelsByHand) {
  struct Case {
    float value;
    double gain;
    int32_t offset;
    int in_block, in_tail;
  };
  const Case cases[] = {
      {2.5F, 1, 0, 2, 2},       {3.5F, 1, 0, 4, 3},       {2.7F, 1, 0, 3, 2},
      {0.9F, 1, 0, 1, 0},       {-0.4F, 1, 0, 0, 0},      {-7.0F, 1, 0, 0, 0},
      {254.7F, 1, 0, 255, 254}, {300.0F, 1, 0, 255, 255}, {1.0F, 10, 128, 138, 138},
      {0.7F, 10, 0, 7, 6},  // a little below 7 in double, 7 in single precision
      {1e10F, 1, 0, 0, 0},  // no int32
      {kNaN, 1, 0, 0, 0},
  };
  const ToolPtr tool = UnallocatedTool({1, 5, 5});
  for (const Case& c : cases) {
    GuardedPlane<float> map(*tool);
    GuardedPlane<uint8_t> out(*tool);
    map.Fill([&](int64_t, int64_t) { return c.value; });
    MapToByteLinear(*tool, map.data(), out.data(), c.gain, c.offset);
    EXPECT_EQ(out(0, 3), c.in_block) << c.value;
    EXPECT_EQ(out(0, 4), c.in_tail) << c.value;

    if (c.value < 0.0F) continue;
    map.Fill([&](int64_t, int64_t) { return -c.value; });
    MapToByteAbsLinear(*tool, map.data(), out.data(), c.gain, c.offset);
    EXPECT_EQ(out(0, 3), c.in_block) << "absolute value of " << -c.value;
    EXPECT_EQ(out(0, 4), c.in_tail) << "absolute value of " << -c.value;
  }
}

TEST(ByteMaps, NormalizedLevelsByHand) {
  const ToolPtr tool = UnallocatedTool({1, 7, 7});
  const float values[] = {0, 255, 1.5F, 2.5F, 1.5F, 2.5F, 0.7F};
  GuardedPlane<float> map(*tool);
  map.Fill([&](int64_t, int64_t j) { return values[j]; });

  // Ties go to even in the block. Behind it 1.5 stays just below 2, but 2.5 and just under a half
  // is 3 in single precision.
  GuardedPlane<uint8_t> bytes(*tool);
  MapToByteNormalized(*tool, map.data(), bytes.data(), 1.0);
  const int levels[] = {0, 255, 2, 2, 1, 3, 1};
  for (int j = 0; j < 7; ++j) EXPECT_EQ(bytes(0, j), levels[j]) << "column " << j;

  GuardedPlane<uint16_t> words(*tool);
  MapToWordNormalized(*tool, map.data(), words.data());
  const int word_levels[] = {0, 65535, 386, 643, 386, 643, 180};
  for (int j = 0; j < 7; ++j) EXPECT_EQ(words(0, j), word_levels[j]) << "column " << j;
}

TEST(ByteMaps, FlatMapsFillWholeRows) {
  const ToolPtr tool = UnallocatedTool({2, 5, 9});
  GuardedPlane<float> map(*tool);
  map.Fill([](int64_t, int64_t) { return 3.0F; });
  GuardedPlane<uint8_t> bytes(*tool);
  GuardedPlane<uint16_t> words(*tool);
  EXPECT_EQ(MapToByteNormalized(*tool, map.data(), nullptr, 1.0), 1);
  EXPECT_EQ(MapToByteNormalized(*tool, map.data(), bytes.data(), 1.0), 1);
  EXPECT_TRUE(MapToWordNormalized(*tool, map.data(), words.data()));
  for (int64_t o = 0; o < 18; ++o) {
    EXPECT_EQ(bytes(0, o), 128);
    EXPECT_EQ(words(0, o), 0);
  }
}

TEST(ByteMaps, RefusalsWriteNothing) {
  struct Case {
    const char* name;
    bool null_map;
    int64_t rows, cols;
  };
  const Case cases[] = {{"null map", true, 2, 5},
                        {"no columns", false, 2, 0},
                        {"no rows", false, 0, 5},
                        {"negative width", false, 2, -1},
                        {"negative height", false, -1, 5}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const ToolPtr tool = UnallocatedTool({2, 5, 5});
    GuardedPlane<float> map(*tool);
    map.Fill([](int64_t, int64_t j) { return j; });
    GuardedPlane<uint8_t> bytes(*tool);
    GuardedPlane<uint16_t> words(*tool);
    const GuardedPlane<uint8_t> untouched(*tool);
    const GuardedPlane<uint16_t> untouched_words(*tool);
    tool->rows = c.rows;
    tool->cols = c.cols;
    const float* source = c.null_map ? nullptr : map.data();
    const uint8_t* a = c.null_map ? nullptr : untouched.data();
    EXPECT_EQ(MapToByteLinear(*tool, source, bytes.data(), 1, 0), 0);
    EXPECT_EQ(MapToByteAbsLinear(*tool, source, bytes.data(), 1, 0), 0);
    EXPECT_EQ(MapToByteNormalized(*tool, source, bytes.data(), 1), 0);
    EXPECT_FALSE(MapToWordNormalized(*tool, source, words.data()));
    EXPECT_EQ(SumBytes(*tool, a, untouched.data(), bytes.data(), 1), 0);
    EXPECT_TRUE(bytes.SameAs(untouched));
    EXPECT_TRUE(words.SameAs(untouched_words));
  }
}

}  // namespace
}  // namespace velostrix
