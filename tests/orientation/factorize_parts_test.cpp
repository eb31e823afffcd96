// The factorisation by bands of rows and strips of columns: Eigen's decompositions of the pieces,
// signs and their alignment included.
#include "orientation/factorize_parts.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <vector>

#include "orientation/light_stage_checks.h"
#include "support/scenes.h"

namespace velostrix {
namespace {

constexpr int32_t kIntMax = std::numeric_limits<int32_t>::max();

struct Variant {
  const char* name;
  int32_t (*factorize)(UnCalibrationTool&, float*, float*, float*, float*, int32_t);
  void (*plain)(const reference::Frame&, const reference::WorkingMaps&, int64_t);
};
constexpr Variant kRows = {"rows", FactorizeIntensitiesPartRows,
                           reference::FactorizeIntensitiesPartRows};
constexpr Variant kCols = {"columns", FactorizeIntensitiesPartCols,
                           reference::FactorizeIntensitiesPartCols};

LightStage StageOf(const Variant& variant, int32_t band) {
  return [=](UnCalibrationTool& tool, LightMaps& maps) {
    return variant.factorize(tool, maps.factor.data(), maps.slope_p.data(), maps.slope_q.data(),
                             maps.gated_factor.data(), band);
  };
}

// A strip repeats the last column of the one before and is the one that keeps it.
FramePiece PieceOf(const Variant& variant, int64_t band, const UnCalibrationTool& tool, int64_t row,
                   int64_t col) {
  if (&variant == &kRows) {
    const int64_t start = row / band * band;
    return {start, std::min(start + band, tool.rows), 0, tool.cols};
  }
  const int64_t strips = (tool.cols - 1) / band + 1;
  const int64_t start = std::min((col + 1) / band, strips - 1) * band;
  return {0, tool.rows, std::max<int64_t>(start - 1, 0), std::min(start + band, tool.cols)};
}

// Expects the factor map to be the mirror of the first entries. The gated factor map holds those;
// where they are too small for it, they are known up to its threshold only.
void ExpectMirroredFactor(const UnCalibrationTool& tool, const LightMaps& maps) {
  bool all_known = true;
  for (int64_t r = 0; r < tool.rows; ++r) {
    for (int64_t c = 0; c < tool.cols; ++c) {
      all_known = all_known && maps.gated_factor(r, c) != 0.0F;
    }
  }
  const double tolerance = all_known ? 0.0 : 2e-7;
  GuardedPlane<float> mirrored = maps.gated_factor;
  mirrored.data()[0] = mirrored.data()[1];
  reference::MirrorAboutMidRange(FrameOf(tool), mirrored.data());
  for (int64_t r = 0; r < tool.rows; ++r) {
    for (int64_t c = 0; c < tool.cols; ++c) {
      ASSERT_NEAR(maps.factor(r, c), mirrored(r, c), tolerance) << "row " << r << ", column " << c;
    }
  }
}

// Runs the variant on the tool's images and expects what the plain decompositions give.
void ExpectPlainDecomposition(const Variant& variant, int32_t band, UnCalibrationTool& tool) {
  tool.time_fill_ms = tool.time_svd_ms = tool.time_maps_ms = tool.time_flip_ms = -1.0;
  LightMaps actual(tool), expected(tool);
  ASSERT_EQ(StageOf(variant, band)(tool, actual), 1);
  variant.plain(FrameOf(tool), expected.pointers(), band);

  ExpectSameVectors(tool, actual, expected, [&](int64_t row, int64_t col) {
    return PieceOf(variant, band, tool, row, col);
  });
  EXPECT_TRUE(actual.SameOutsideFrame(expected));
  if (tool.rows > 2 && tool.cols > 2) ExpectBorderCopied(tool, actual);
  ExpectMirroredFactor(tool, actual);

  EXPECT_EQ(tool.intensity_matrix.size(), 0);
  EXPECT_EQ(tool.time_fill_ms, -1.0);
  EXPECT_EQ(tool.time_svd_ms, -1.0);
  EXPECT_GE(tool.time_maps_ms, 0.0);
  EXPECT_GE(tool.time_flip_ms, 0.0);
}

struct Case {
  Geometry geometry;
  int32_t band;
};

void ExpectPlainDecompositions(const Variant& variant, const std::vector<Case>& cases) {
  for (Case c : cases) {
    for (int64_t n = 3; n <= 8; ++n) {
      c.geometry.image_count = n;
      const auto seed = static_cast<uint32_t>(n);
      SCOPED_TRACE(testing::Message() << variant.name << ", " << c.geometry << ", band " << c.band
                                      << ", seed " << seed);
      const ToolPtr tool = AllocatedTool(c.geometry);
      RenderRandomScene(*tool, seed);
      ExpectPlainDecomposition(variant, c.band, *tool);
      if (tool->plane_size < 1000) continue;  // the smallest pieces need all their pixels
      BlackenSomePixels(*tool, seed);
      ExpectPlainDecomposition(variant, c.band, *tool);
    }
  }
}

TEST(FactorizePartRows, EqualsThePlainDecompositions) {
  ExpectPlainDecompositions(kRows, {{{30, 40, 40}, 10},      // three small bands
                                    {{31, 40, 44}, 10},      // the last band is one row
                                    {{47, 70, 70}, 16},      // above the small-piece limit
                                    {{150, 200, 207}, 64},   //
                                    {{150, 200, 200}, 150},  // one band
                                    {{40, 90, 90}, kIntMax},
                                    {{6, 300, 300}, 1},
                                    {{41, 3, 3}, 10},  // the last band has three pixels
                                    {{2, 800, 800}, 10}});
}

TEST(FactorizePartCols, EqualsThePlainDecompositions) {
  ExpectPlainDecompositions(kCols, {{{30, 40, 40}, 10},
                                    {{30, 41, 44}, 10},  // the last strip is the overlap and one
                                    {{90, 48, 48}, 16},
                                    {{150, 200, 207}, 64},
                                    {{150, 200, 200}, 200},  // one strip
                                    {{90, 40, 40}, kIntMax},
                                    {{90, 11, 11}, 10},
                                    {{700, 4, 4}, 1},
                                    {{2, 1500, 1500}, 700}});
}

// Alignment looks at one pixel a seam; where that is black, the strip keeps its own signs and hands
// none on.
TEST(FactorizePartCols, BlackSeamsDoNotFlip) {
  for (const int64_t seam : {9, 19, 29}) {
    const ToolPtr tool = AllocatedTool({60, 40, 40, 4});
    RenderRandomScene(*tool, 7);
    BlackenPixel(*tool, 1, seam);
    ExpectPlainDecomposition(kCols, 10, *tool);
  }
  const ToolPtr tool = AllocatedTool({60, 90, 90, 5});
  RenderRandomScene(*tool, 8);
  for (int64_t c = 0; c < 90; ++c) BlackenPixel(*tool, 1, c);
  ExpectPlainDecomposition(kCols, 30, *tool);
}

// A tenth of the full frame's threshold, and the gated factor ends there too.
TEST(FactorizeParts, SlopesAndGatedFactorEndAtTheThreshold) {
  for (const Variant* variant : {&kRows, &kCols}) {
    const ToolPtr tool = AllocatedTool({48, 64, 64, 4});
    RenderThresholdScene(*tool, 5);
    LightMaps maps(*tool);
    ASSERT_EQ(StageOf(*variant, 64)(*tool, maps), 1);
    int refused = 0, little_above = 0;
    for (int64_t level = 0; level < 256; ++level) {
      const auto [r, c] = PositionOfLevel(level);
      const double x0 = std::fabs(static_cast<double>(maps.gated_factor(r, c)));
      EXPECT_TRUE(x0 == 0.0 || x0 > 1e-7) << x0;
      EXPECT_EQ(maps.slope_p(r, c) != 0.0F, x0 > 0.0) << x0;
      EXPECT_EQ(maps.slope_q(r, c) != 0.0F, x0 > 0.0) << x0;
      refused += x0 == 0.0 ? 1 : 0;
      little_above += x0 > 0.0 && x0 < 2e-7 ? 1 : 0;
    }
    EXPECT_GT(refused, 10) << variant->name;
    EXPECT_GT(little_above, 10) << variant->name;
  }
}

// One level everywhere: the factor map is constant up to the rounding of its entries, and its
// mirror about the middle is 0.
TEST(FactorizeParts, ConstantFactorMapsBecomeZero) {
  for (const Variant* variant : {&kRows, &kCols}) {
    const ToolPtr tool = AllocatedTool({40, 60, 60, 4});
    for (int64_t o = 0; o < 4 * tool->plane_size; ++o) tool->image_stack[o] = 90;
    LightMaps maps(*tool);
    ASSERT_EQ(StageOf(*variant, 60)(*tool, maps), 1);
    for (int64_t r = 1; r < 40; ++r) {
      for (int64_t c = 0; c < 60; ++c) ASSERT_NEAR(maps.factor(r, c), 0.0, 1e-5) << r << ", " << c;
    }
  }
}

TEST(FactorizeParts, AreHarmlessOnDegenerateScenes) {
  for (const Variant* variant : {&kRows, &kCols}) {
    for (const int32_t band : {10, 32, 500}) {
      SCOPED_TRACE(testing::Message() << variant->name << ", band " << band);
      ExpectHarmlessOnDegenerateScenes(StageOf(*variant, band));
    }
  }
}

TEST(FactorizeParts, RefusalsChangeNothing) {
  struct TooSmall {
    const Variant& variant;
    Geometry geometry;
    int32_t band;
  };
  const TooSmall cases[] = {
      {kRows, {20, 20, 20}, 0}, {kRows, {20, 20, 20}, -5}, {kRows, {1, 2, 2}, 10},
      {kRows, {11, 2, 2}, 10},  {kRows, {2, 1, 3}, 10},    {kRows, {30, 2, 2}, 1},
      {kCols, {20, 20, 20}, 0}, {kCols, {20, 20, 20}, -5}, {kCols, {1, 600, 600}, 10},
      {kCols, {2, 1, 3}, 10},   {kCols, {2, 20, 20}, 1},
  };
  for (const TooSmall& c : cases) {
    SCOPED_TRACE(testing::Message() << c.variant.name << ", " << c.geometry << ", band " << c.band);
    ExpectRefusal(StageOf(c.variant, c.band), c.geometry, [](UnCalibrationTool&) {});
  }
  for (const Variant* variant : {&kRows, &kCols}) {
    SCOPED_TRACE(variant->name);
    ExpectCommonRefusals(StageOf(*variant, 10));
  }
}

}  // namespace
}  // namespace velostrix
