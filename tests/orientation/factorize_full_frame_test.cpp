// The full-frame factorisation: Eigen's decomposition of the whole matrix, signs included.
#include "orientation/factorize_full_frame.h"

#include <array>
#include <cmath>
#include <vector>

#include "orientation/light_stage_checks.h"
#include "support/scenes.h"

namespace velostrix {
namespace {

int32_t Factorize(UnCalibrationTool& tool, LightMaps& maps) {
  return FactorizeIntensities(tool, maps.factor.data(), maps.slope_p.data(), maps.slope_q.data(),
                              maps.gated_factor.data());
}

// Runs the stage on the tool's images and expects what the plain decomposition gives.
void ExpectPlainDecomposition(UnCalibrationTool& tool) {
  tool.time_fill_ms = tool.time_svd_ms = tool.time_maps_ms = tool.time_flip_ms = -1.0;
  LightMaps actual(tool), expected(tool);
  ASSERT_EQ(Factorize(tool, actual), 1);
  Eigen::MatrixXf matrix;
  reference::FactorizeIntensities(FrameOf(tool), expected.pointers(), matrix);

  ExpectSameVectors(tool, actual, expected, [&](int64_t, int64_t) {
    return FramePiece{0, tool.rows, 0, tool.cols};
  });
  EXPECT_TRUE(actual.SameOutsideFrame(expected));
  if (tool.rows > 2 && tool.cols > 2) ExpectBorderCopied(tool, actual);
  EXPECT_EQ(actual.factor(0, 0), actual.factor.data()[1]);
  GuardedPlane<float> factor = actual.gated_factor;
  factor(0, 0) = actual.factor(0, 0);
  EXPECT_TRUE(actual.factor.SameAs(factor));

  EXPECT_EQ(tool.intensity_matrix, matrix);
  EXPECT_GE(tool.time_fill_ms, 0.0);
  EXPECT_GE(tool.time_svd_ms, 0.0);
  EXPECT_GE(tool.time_maps_ms, 0.0);
  EXPECT_EQ(tool.time_flip_ms, -1.0);
}

TEST(FactorizeFullFrame, EqualsThePlainDecomposition) {
  std::vector<Geometry> geometries;
  for (int64_t n = 3; n <= 8; ++n) {
    for (const auto [rows, cols, gap] : {std::array<int64_t, 3>{3, 3, 0},
                                         {9, 7, 2},
                                         {24, 41, 0},
                                         {25, 40, 0},
                                         {37, 27, 3},
                                         {30, 40, 0},
                                         {48, 64, 5},
                                         {150, 200, 0},
                                         {2, 700, 0},
                                         {700, 2, 1},
                                         {1, 1500, 0}}) {
      geometries.push_back({rows, cols, cols + gap, n});
    }
  }
  geometries.push_back({480, 640, 640, 4});
  geometries.push_back({1500, 1, 1, 4});
  geometries.push_back({1, 3, 3, 3});
  for (const Geometry& geometry : geometries) {
    for (const uint32_t seed : {1U, 2U, 3U}) {
      SCOPED_TRACE(testing::Message() << geometry << ", seed " << seed);
      const ToolPtr tool = AllocatedTool(geometry);
      RenderRandomScene(*tool, seed);
      if (seed == 3 && tool->plane_size > 100) BlackenSomePixels(*tool, seed);
      ExpectPlainDecomposition(*tool);
    }
  }
}

TEST(FactorizeFullFrame, SlopesEndAtTheThreshold) {
  const ToolPtr tool = AllocatedTool({48, 64, 64, 4});
  RenderThresholdScene(*tool, 50);
  LightMaps maps(*tool);
  ASSERT_EQ(Factorize(*tool, maps), 1);
  int refused = 0;
  for (int64_t level = 0; level < 256; ++level) {
    const auto [r, c] = PositionOfLevel(level);
    const bool divisible = std::fabs(static_cast<double>(maps.factor(r, c))) > 1e-6;
    refused += divisible ? 0 : 1;
    EXPECT_EQ(maps.gated_factor(r, c), maps.factor(r, c));
    EXPECT_EQ(maps.slope_p(r, c) != 0.0F, divisible) << maps.factor(r, c);
    EXPECT_EQ(maps.slope_q(r, c) != 0.0F, divisible) << maps.factor(r, c);
  }
  EXPECT_GT(refused, 10);
  EXPECT_LT(refused, 246);
}

TEST(FactorizeFullFrame, IsHarmlessOnDegenerateScenes) {
  ExpectHarmlessOnDegenerateScenes(Factorize);
}

TEST(FactorizeFullFrame, RefusalsChangeNothing) {
  ExpectCommonRefusals(Factorize);
  for (const Geometry& geometry : {Geometry{1, 2, 2, 3}, Geometry{2, 1, 4, 3}}) {
    SCOPED_TRACE(testing::Message() << geometry);
    ExpectRefusal(Factorize, geometry, [](UnCalibrationTool&) {});
  }
}

}  // namespace
}  // namespace velostrix
