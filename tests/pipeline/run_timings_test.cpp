// The timing fields that a run writes, and those that it leaves to others. No test looks at how
// long anything took.
#include <gtest/gtest.h>

#include <opencv2/core.hpp>

#include "pipeline/full_frame_run.h"
#include "pipeline/partial_run.h"
#include "tool/tool_under_test.h"

namespace velostrix {
namespace {

// Marks every timing field as unwritten and tells which ones a run wrote.
class Timings {
 public:
  explicit Timings(UnCalibrationTool& tool) : tool_(tool) {
    for (double* field : Fields()) *field = kUnwritten;
  }
  std::vector<const char*> Written() {
    std::vector<const char*> names;
    const std::array<double*, 8> fields = Fields();
    for (size_t i = 0; i < fields.size(); ++i) {
      if (*fields[i] != kUnwritten) {
        EXPECT_GE(*fields[i], 0.0);
        names.push_back(kNames[i]);
      }
    }
    return names;
  }

 private:
  static constexpr double kUnwritten = -1.0;
  static constexpr const char* kNames[] = {"fill",      "svd",         "maps",       "flip",
                                           "tick_mark", "light_stage", "map_images", "derivatives"};

  std::array<double*, 8> Fields() const {
    return {&tool_.time_fill_ms,       &tool_.time_svd_ms,
            &tool_.time_maps_ms,       &tool_.time_flip_ms,
            &tool_.tick_mark,          &tool_.time_light_stage_ms,
            &tool_.time_map_images_ms, &tool_.time_derivative_images_ms};
  }

  UnCalibrationTool& tool_;
};

using Names = std::vector<std::string>;

Names WrittenBy(UnCalibrationTool& tool, int32_t expected,
                int32_t (*run)(UnCalibrationTool&, const ResultImages&)) {
  Timings timings(tool);
  EXPECT_EQ(run(tool, {}), expected);
  const auto written = timings.Written();
  return {written.begin(), written.end()};
}

TEST(RunTimings, EachRunWritesItsOwn) {
  const ToolPtr tool = NewTool(FrameParam(16, 12));
  InitialImage(*tool);
  EXPECT_EQ(
      WrittenBy(*tool, 1, RunUncalibrated),
      (Names{"fill", "svd", "maps", "tick_mark", "light_stage", "map_images", "derivatives"}));
  EXPECT_EQ(tool->intensity_matrix.rows(), 16 * 12);
  EXPECT_EQ(tool->intensity_matrix.cols(), 3);
  const float* const matrix = tool->intensity_matrix.data();

  EXPECT_EQ(WrittenBy(*tool, 1, RunCalibrated),
            (Names{"tick_mark", "light_stage", "map_images", "derivatives"}));
  const auto rows = [](UnCalibrationTool& t, const ResultImages& r) {
    return RunPartRows(t, r, 10);
  };
  const auto cols = [](UnCalibrationTool& t, const ResultImages& r) {
    return RunPartCols(t, r, 10);
  };
  EXPECT_EQ(WrittenBy(*tool, 1, rows), (Names{"maps", "flip"}));
  EXPECT_EQ(WrittenBy(*tool, 1, cols), (Names{"maps", "flip"}));
  EXPECT_EQ(tool->intensity_matrix.data(), matrix);
  EXPECT_EQ(tool->intensity_matrix.rows(), 16 * 12);

  // A light stage that refuses is timed all the same, in the full-frame runs.
  for (const int32_t image_count : {2, 9}) {
    SetParam(*tool, FrameParam(16, 12, image_count));
    EXPECT_EQ(WrittenBy(*tool, 0, RunUncalibrated), (Names{"tick_mark", "light_stage"}));
    EXPECT_EQ(WrittenBy(*tool, 0, RunCalibrated), (Names{"tick_mark", "light_stage"}));
    EXPECT_EQ(WrittenBy(*tool, 0, rows), Names{});
    EXPECT_EQ(WrittenBy(*tool, 0, cols), Names{});
  }
}

}  // namespace
}  // namespace velostrix
