// From singular vectors to working maps: both sides of the threshold of the division.
#include "orientation/slope_maps.h"

#include <cmath>

#include "orientation/light_stage_checks.h"

namespace velostrix {
namespace {

TEST(SlopeMaps, DivideAboveTheGateOnly) {
  const float limit = 1e-6F;
  const float entries[] = {
      0.0F,  -0.0F, limit, -limit, std::nextafter(limit, 1.0F), -std::nextafter(limit, 1.0F),
      0.25F, -0.25F};
  for (const bool zeroes_gated : {false, true}) {
    for (int64_t cols = 1; cols <= 20; ++cols) {  // rotated, so that every entry meets every lane
      const ToolPtr tool = UnallocatedTool({1, cols, cols});
      LightMaps maps(*tool);
      Eigen::MatrixXf vectors(cols, 3);
      for (int64_t j = 0; j < cols; ++j) {
        vectors.row(j) << entries[(j + cols) % 8], 0.5F, -2.0F;
      }
      WriteMaps(
          LeadingVectors(PieceOfFrame(*tool, 0, 1, 0, cols), vectors), {limit, zeroes_gated},
          tool->row_step,
          {maps.factor.data(), maps.slope_p.data(), maps.slope_q.data(), maps.gated_factor.data()});
      for (int64_t j = 0; j < cols; ++j) {
        const float x0 = vectors(j, 0);
        const bool divisible = std::fabs(x0) > limit;
        EXPECT_EQ(maps.factor(0, j), x0);
        EXPECT_EQ(maps.slope_p(0, j), divisible ? 0.5F / x0 : 0.0F) << x0;
        EXPECT_EQ(maps.slope_q(0, j), divisible ? 2.0F / x0 : 0.0F) << x0;
        EXPECT_EQ(std::signbit(maps.slope_q(0, j)), divisible && x0 < 0.0F) << x0;
        EXPECT_EQ(maps.gated_factor(0, j), divisible || !zeroes_gated ? x0 : 0.0F) << x0;
      }
    }
  }
}

}  // namespace
}  // namespace velostrix
