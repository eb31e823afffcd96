// The calibrated light stage: the lamps' table, and the solve equal to the scalar one in every bit.
#include "orientation/calibrated_lights.h"

#include <cmath>
#include <random>
#include <vector>

#include "orientation/light_stage_checks.h"
#include "support/scenes.h"

namespace velostrix {
namespace {

int32_t Solve(UnCalibrationTool& tool, LightMaps& maps) {
  return SolveCalibratedLights(tool, maps.factor.data(), maps.slope_p.data(), maps.slope_q.data(),
                               maps.gated_factor.data());
}

TEST(CalibratedLights, LampsStandWhereTheTableSays) {
  struct Lamp {
    float x, y;
  };
  const std::vector<std::vector<Lamp>> table = {
      {{0.5675F, -0.6340F}, {0.3126F, 0.7914F}, {-0.8476F, -0.0752F}},
      {{0.8509F, 0}, {-0.3813F, -0.7607F}, {-0.5092F, 0.6817F}, {0.8376F, 0.1498F}},
      {{0.8509F, 0},
       {-0.8230F, -0.2160F},
       {0.7413F, 0.4178F},
       {-0.6109F, -0.5923F},
       {0.4406F, 0.7280F}},
      {{0.8509F, 0},
       {-0.8104F, 0.2594F},
       {0.6928F, -0.4940F},
       {-0.5092F, 0.6817F},
       {0.2772F, -0.8045F},
       {-0.0188F, 0.8507F}},
      {{0.8509F, 0},
       {0.6315F, -0.5703F},
       {0.0864F, -0.8465F},
       {-0.5032F, -0.6862F},
       {-0.8333F, -0.1720F},
       {-0.7337F, 0.4309F},
       {-0.2558F, 0.8116F}},
      {{0.8509F, 0},
       {0.4470F, -0.7240F},
       {-0.3813F, -0.7607F},
       {-0.8476F, -0.0752F},
       {-0.5092F, 0.6817F},
       {0.3126F, 0.7914F},
       {0.8376F, 0.1498F},
       {0.5675F, -0.6340F}}};
  constexpr float kPlaces = 0.00005F;
  for (const auto& lamps : table) {
    const auto n = static_cast<int>(lamps.size());
    const LampMatrix ring = LampRing(n);
    const auto plain = reference::LampRing(n);
    for (size_t i = 0; i < ring.size(); ++i) {
      SCOPED_TRACE(testing::Message() << "lamp " << i << " of " << n);
      if (i >= lamps.size()) {
        EXPECT_EQ(ring[i], (std::array<float, 3>{0, 0, 0}));
        continue;
      }
      EXPECT_NEAR(ring[i][0], lamps[i].x, kPlaces);
      EXPECT_NEAR(ring[i][1], lamps[i].y, kPlaces);
      EXPECT_NEAR(ring[i][2], 0.5253F, kPlaces);
      EXPECT_EQ(ring[i], plain[i]);
    }
    if (n > 3) {
      EXPECT_TRUE(ring[0][1] == 0.0F && std::signbit(ring[0][1]));
    }
  }
}

TEST(CalibratedLights, SolveEqualsTheScalarRule) {
  std::mt19937 random(29);
  for (int64_t n = 3; n <= 8; ++n) {
    for (Geometry geometry : NarrowFrames()) {
      geometry.image_count = n;
      const ToolPtr tool = AllocatedTool(geometry);
      // A fifth of the pixels each: black, a single level, saturated; the others anything.
      for (int64_t o = 0; o < tool->plane_size; ++o) {
        const auto kind = random() % 5;
        for (int64_t k = 0; k < n; ++k) {
          const auto anything = static_cast<uint8_t>(random());
          tool->image_stack[k * tool->plane_size + o] = kind == 0   ? 0
                                                        : kind == 1 ? (k == 1)
                                                        : kind == 2 ? 255
                                                                    : anything;
        }
      }
      LightMaps actual(*tool), expected(*tool);
      EXPECT_EQ(Solve(*tool, actual), 1);
      reference::SolveCalibratedLights(FrameOf(*tool), expected.pointers());
      EXPECT_TRUE(actual.SameAs(expected)) << geometry << ", seed 29";
    }
  }
}

// The albedo grows with the level, the normal does not depend on it, and black has none.
TEST(CalibratedLights, UniformPixelsScale) {
  const ToolPtr tool = AllocatedTool({1, 3, 3, 5});
  for (int64_t k = 0; k < 5; ++k) {
    PixelOf(*tool, k, 0, 0) = 0;
    PixelOf(*tool, k, 0, 1) = 64;
    PixelOf(*tool, k, 0, 2) = 128;
  }
  LightMaps maps(*tool);
  EXPECT_EQ(Solve(*tool, maps), 1);
  EXPECT_EQ(maps.factor(0, 2), 2 * maps.factor(0, 1));
  for (const auto* normal : {&maps.slope_p, &maps.slope_q, &maps.gated_factor}) {
    EXPECT_EQ((*normal)(0, 1), (*normal)(0, 2));
    EXPECT_EQ((*normal)(0, 0), 0.0F);
  }
  EXPECT_EQ(maps.factor(0, 0), 0.0F);
}

TEST(CalibratedLights, RefusalsChangeNothing) { ExpectCommonRefusals(Solve); }

}  // namespace
}  // namespace velostrix
