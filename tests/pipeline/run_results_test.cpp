// What a run of the module delivers and leaves alone: switches, types, sizes, memory of the
// results, timings. That refused runs change nothing is checked with the fuzzer's call sequences.
#include <gtest/gtest.h>

#include "interface/host_tool.h"
#include "scene/sample_scene.h"
#include "tool/uncalibration_tool.h"

namespace velostrix {
namespace {

const cv::Size kFrame(52, 38);

std::vector<cv::Mat> SceneImages(cv::Size size) {
  return scene::Render({size.width, size.height, 4}).images;
}

// Results that were there before a run.
struct Sentinels {
  Sentinels() {
    for (size_t i = 0; i < kResultCount; ++i) {
      images[i] = cv::Mat(2, 3, CV_64FC1);
      data[i] = images[i].data;
      places[i] = &images[i];
    }
  }
  bool AreUntouched() const {
    return std::equal(data.begin(), data.end(), images.begin(),
                      [](const uint8_t* d, const cv::Mat& image) { return d == image.data; });
  }

  Results images;
  std::array<cv::Mat*, kResultCount> places;
  std::array<const uint8_t*, kResultCount> data;
};

TEST(RunResults, ExactlyThoseThatAreSwitchedOnAndEachNeedsAPlace) {
  const std::vector<cv::Mat> images = SceneImages(kFrame);
  for (const RunKind kind : kAllRuns) {
    UnCalibrationParam param = EverythingOn(kFrame, images.size());
    const Results everything = HostTool::Ready(param).Reconstruct(kind, images);
    for (const unsigned switches : {0U, 1U, 2U, 4U, 8U, 16U, 32U, 64U, 128U, 10U, 33U, 255U}) {
      SCOPED_TRACE(testing::Message() << kind << ", switches " << switches);
      std::array<bool, kResultCount> wanted = {};
      for (size_t i = 0; i < kResultCount; ++i) {
        const bool is_on = (switches >> i & 1U) != 0;
        param.output_enable[i] = is_on ? (i % 2 == 0 ? 1 : -5) : 0;  // anything but zero is on
        wanted[kResultOfSwitch[i]] = is_on;
      }
      // The normal image brings its channels.
      for (const size_t i : {kChannel0, kChannel1, kChannel2}) wanted[i] |= wanted[kNormal];

      HostTool tool = HostTool::Ready(param);
      tool.SetImages(images);
      Sentinels results;
      for (size_t i = 0; i < kResultCount; ++i) {
        if (!wanted[i]) continue;
        results.places[i] = nullptr;
        EXPECT_EQ(tool.Run(kind, results.places, 10), 0) << "no place for " << kResultNames[i];
        results.places[i] = &results.images[i];
      }
      EXPECT_TRUE(results.AreUntouched());
      ASSERT_EQ(tool.Run(kind, results.places, 10), 1);
      for (size_t i = 0; i < kResultCount; ++i) {
        SCOPED_TRACE(kResultNames[i]);
        EXPECT_NE(results.images[i].data == results.data[i], wanted[i]);
        if (wanted[i]) {
          EXPECT_TRUE(AgreeWithin(0, results.images[i], everything[i]));
        } else {
          results.places[i] = nullptr;  // what is off needs no place
        }
      }
      EXPECT_EQ(tool.Run(kind, results.places, 10), 1);
    }
  }
}

TEST(RunResults, HeadersOverTheToolUnlessResized) {
  for (const RunKind kind : kAllRuns) {
    for (const double scale : {1.0, 0.5}) {
      SCOPED_TRACE(testing::Message() << kind << ", scale " << scale);
      UnCalibrationParam param = EverythingOn(kFrame, 4);
      param.scale = scale;
      param.row_step = kFrame.width + 7;
      param.blur_radius = 1;
      HostTool tool = HostTool::Ready(param);
      Results first;
      Results second;
      ASSERT_EQ(tool.Run(kind, first), 1);  // whether images were set is not asked
      tool.SetImages(SceneImages(kFrame));
      ASSERT_EQ(tool.Run(kind, second), 1);
      for (size_t i = 0; i < kResultCount; ++i) {
        SCOPED_TRACE(kResultNames[i]);
        EXPECT_EQ(first[i].size(), kFrame);
        EXPECT_EQ(first[i].type(), i == kNormal ? CV_8UC3 : i == kHeight ? CV_16UC1 : CV_8UC1);
        const bool owns = scale < 1.0 || i == kNormal;
        const int row_step = owns ? kFrame.width : param.row_step;
        EXPECT_EQ(first[i].u != nullptr, owns);
        EXPECT_EQ(first[i].data != second[i].data, owns);
        EXPECT_EQ(first[i].step[0], static_cast<size_t>(row_step) * first[i].elemSize());
      }
    }
  }
}

// Frames below the sizes that stages want have no derivatives, or are refused. The buffers are
// those of a larger frame.
TEST(RunResults, TheSmallestFrames) {
  const cv::Size large(20, 20);
  for (const RunKind kind : kAllRuns) {
    for (const cv::Size size : {cv::Size(1, 1), cv::Size(2, 1), cv::Size(1, 2), cv::Size(3, 1),
                                cv::Size(1, 3), cv::Size(2, 2), cv::Size(20, 1), cv::Size(1, 20),
                                cv::Size(2, 20), cv::Size(20, 2), cv::Size(3, 3)}) {
      for (const int32_t blur_radius : {0, 1}) {
        SCOPED_TRACE(testing::Message() << kind << ", " << size << ", blur " << blur_radius);
        HostTool tool = HostTool::Ready(EverythingOn(large, 4));
        tool.Reconstruct(kind, SceneImages(large));
        UnCalibrationParam param = EverythingOn(size, 4);
        param.blur_radius = blur_radius;
        tool.SetParam(param);
        tool.SetImages(SceneImages(size));
        Sentinels results;
        const bool too_small = kind != RunKind::kCalibrated && size.area() < 3;
        const bool no_second_row = kind == RunKind::kPartCols && size.height < 2;
        const bool refused = too_small || no_second_row;
        EXPECT_EQ(tool.Run(kind, results.images), refused ? 0 : 1);
        EXPECT_EQ(results.AreUntouched(), refused);
        if (refused || (size.height >= 2 && size.width >= 3)) continue;
        EXPECT_EQ(cv::countNonZero(results.images[kCurvature] != param.curvature.offset), 0);
        EXPECT_EQ(cv::countNonZero(results.images[kMagnitude] != param.magnitude.offset), 0);
      }
    }
  }
}

// Which timings a run writes, and that those of a part lie within those of the whole.
TEST(RunResults, EachRunWritesItsTimings) {
  const struct {
    RunKind kind;
    size_t image_count;
    const char* written;
  } runs[] = {
      {RunKind::kUncalibrated, 4, "fill svd maps mark light images derivatives "},
      {RunKind::kCalibrated, 4, "mark light images derivatives "},
      {RunKind::kPartRows, 4, "maps flip "},
      {RunKind::kPartCols, 4, "maps flip "},
      // A light stage that refuses is timed all the same, in the full-frame runs.
      {RunKind::kUncalibrated, 2, "mark light "},
      {RunKind::kCalibrated, 2, "mark light "},
      {RunKind::kPartRows, 2, ""},
      {RunKind::kPartCols, 2, ""},
  };
  HostTool tool = HostTool::Ready(EverythingOn(kFrame, 4));
  UnCalibrationTool& t = *tool.get();
  const std::pair<const char*, double*> fields[] = {{"fill ", &t.time_fill_ms},
                                                    {"svd ", &t.time_svd_ms},
                                                    {"maps ", &t.time_maps_ms},
                                                    {"flip ", &t.time_flip_ms},
                                                    {"mark ", &t.tick_mark},
                                                    {"light ", &t.time_light_stage_ms},
                                                    {"images ", &t.time_map_images_ms},
                                                    {"derivatives ", &t.time_derivative_images_ms}};
  for (const auto& run : runs) {
    SCOPED_TRACE(testing::Message() << run.kind << ", " << run.image_count << " images");
    for (const auto& [name, field] : fields) *field = -1.0;
    tool.SetParam(EverythingOn(kFrame, run.image_count));
    Results results;
    cv::TickMeter whole;
    whole.start();
    EXPECT_EQ(tool.Run(run.kind, results), run.image_count == 4 ? 1 : 0);
    whole.stop();
    std::string written;
    for (const auto& [name, field] : fields) written += *field >= 0.0 ? name : "";
    EXPECT_EQ(written, run.written);
    // The partial runs have no field for theirs.
    const double light_ms = std::max(t.time_light_stage_ms, t.time_maps_ms + t.time_flip_ms);
    EXPECT_LE(t.time_fill_ms + t.time_svd_ms + t.time_maps_ms, light_ms);
    EXPECT_LE(light_ms, whole.getTimeMilli());
  }
}

}  // namespace
}  // namespace velostrix
