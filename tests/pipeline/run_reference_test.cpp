// Whole runs of the module on the sample scene against the plain implementation, their timings, and
// the largest blur. The call sequences check other refusals and results.
//
// Where both decompose the same matrices, which is so for pieces below about a thousand pixels and
// in the calibrated run, every 8-bit result is the same to the byte. The height is solved in
// another order of additions: it differs by a few parts in a million of its range, less than one of
// its 16 bits, so that rounding makes one level of it.
#include <gtest/gtest.h>

#include <optional>

#include "scene/sample_scene.h"
#include "support/plain_run.h"

namespace velostrix {
namespace {

// Pieces of these frames have fewer than a thousand pixels, for bands of 10 too.
const cv::Size kFrame(34, 28);

struct RunSetup {
  RunSetup(RunKind run, int count, cv::Size frame = kFrame)
      : kind(run),
        param(EverythingOn(frame, static_cast<size_t>(count))),
        images(scene::Render({frame.width, frame.height, count, scene::Lamps::kRandom}).images) {}

  RunKind kind;
  UnCalibrationParam param;
  std::vector<cv::Mat> images;
  std::optional<cv::Rect> region;  // above 10 pixels each way after scaling
  int32_t band = 10;
};

void ExpectPlainResults(const RunSetup& setup, int byte_levels, int word_levels) {
  HostTool tool(setup.param);
  if (setup.region) tool.SetRegion(*setup.region);
  tool.InitialImage();
  // A run leaves nothing behind that the next one could see.
  tool.Reconstruct(setup.kind, {setup.images.rbegin(), setup.images.rend()}, setup.band);
  tool.SetImages(setup.images);
  for (int64_t k = 0; k < setup.param.image_count; ++k) {
    const UnCalibrationTool& t = *tool.get();
    const cv::Mat plane = Header(t, t.image_stack + k * t.plane_size, CV_8UC1);
    EXPECT_TRUE(AgreeWithin(0, plane, PlainPlane(t, setup.images[static_cast<size_t>(k)])));
  }
  const PlainRun plain(*tool.get(), setup.param, setup.kind, setup.band);
  Results results;
  EXPECT_EQ(tool.Run(setup.kind, results, setup.band), 1);
  for (size_t i = 0; i < kResultCount; ++i) {
    EXPECT_TRUE(AgreeWithin(i == kHeight ? word_levels : byte_levels, results[i], plain.results[i]))
        << kResultNames[i];
  }
}

struct Variation {
  const char* name;
  void (*apply)(RunSetup& setup);
};

const Variation kVariations[] = {
    {"plain", [](RunSetup&) {}},
    {"forward differences", [](RunSetup& s) { s.param.difference_mode = 1; }},
    {"negative blur", [](RunSetup& s) { s.param.blur_radius = -3; }},
    {"blur wider than the frame", [](RunSetup& s) { s.param.blur_radius = 200; }},
    {"one iteration", [](RunSetup& s) { s.param.iteration_cap = 1; }},
    {"all iterations", [](RunSetup& s) { s.param.iteration_cap = -1; }},
    {"scaled region, equalised, blur 2",
     [](RunSetup& s) {
       s.region = cv::Rect(2, 1, 30, 26);
       s.param.scale = 0.7;
       s.param.equalise_on = -1;
       s.param.blur_radius = 2;
     }},
    {"rows apart, blur 1",
     [](RunSetup& s) {
       s.param.row_step = kFrame.width + 5;
       s.param.blur_radius = 1;
     }},
    {"saturating",
     [](RunSetup& s) {
       s.param.factor_gain = 3.0;
       s.param.curvature = {-40, 900.0};
       s.param.magnitude = {250, 2000.0};
       s.param.channel[0] = {-100000, 1e6};
       s.param.channel[2] = {300, -1000.0};
     }},
    {"lowest band", [](RunSetup& s) { s.band = INT32_MIN; }},
    {"band 9", [](RunSetup& s) { s.band = 9; }},
    {"largest band", [](RunSetup& s) { s.band = INT32_MAX; }},
    {"band one short of the frame", [](RunSetup& s) { s.band = kFrame.width - 1; }},
    {"levels of 0 to 2",
     [](RunSetup& s) {
       for (cv::Mat& image : s.images) image /= 100;
     }},
    {"equal images", [](RunSetup& s) { s.images.assign(s.images.size(), s.images[0]); }},
};

TEST(RunReference, EqualInEveryVariation) {
  for (const RunKind kind : kAllRuns) {
    for (const Variation& variation : kVariations) {
      for (const int image_count : {3, 4, 8}) {
        SCOPED_TRACE(testing::Message()
                     << kind << ", " << variation.name << ", " << image_count << " images");
        RunSetup setup(kind, image_count);
        variation.apply(setup);
        ExpectPlainResults(setup, 0, 1);
      }
    }
  }
}

// Large pieces are decomposed another way, heights are shared by threads: both round differently. A
// byte that is the sum of two may differ by two.
TEST(RunReference, LargeFramesAgreeWithinRounding) {
  for (const RunKind kind : kAllRuns) {
    SCOPED_TRACE(kind);
    RunSetup setup(kind, 4, {260, 200});
    setup.band = 50;
    ExpectPlainResults(setup, 2, 8);
  }
}

// Which timings a run writes, that those of a part lie within those of the whole, and that together
// they tell what the run took: less than all of it, and, when nothing came between, most.
TEST(RunTimings, AreThoseOfTheRun) {
  const struct {
    RunKind kind;
    size_t image_count;
    const char* written;
  } runs[] = {
      {RunKind::kUncalibrated, 4, "fill svd maps light images derivatives "},
      {RunKind::kCalibrated, 4, "light images derivatives "},
      {RunKind::kPartRows, 4, "maps flip "},
      {RunKind::kPartCols, 4, "maps flip "},
      // A light stage that refuses is timed all the same, in the full-frame runs.
      {RunKind::kUncalibrated, 2, "light "},
      {RunKind::kCalibrated, 2, "light "},
      {RunKind::kPartRows, 2, ""},
      {RunKind::kPartCols, 2, ""},
  };
  HostTool tool = HostTool::Ready(EverythingOn(kFrame, 4));
  UnCalibrationTool& t = *tool.get();
  const std::pair<const char*, double*> fields[] = {{"fill ", &t.time_fill_ms},
                                                    {"svd ", &t.time_svd_ms},
                                                    {"maps ", &t.time_maps_ms},
                                                    {"flip ", &t.time_flip_ms},
                                                    {"light ", &t.time_light_stage_ms},
                                                    {"images ", &t.time_map_images_ms},
                                                    {"derivatives ", &t.time_derivative_images_ms}};
  for (const auto& run : runs) {
    SCOPED_TRACE(testing::Message() << run.kind << ", " << run.image_count << " images");
    const bool is_done = run.image_count == 4;
    const bool is_partial = run.kind == RunKind::kPartRows || run.kind == RunKind::kPartCols;
    double largest_share = 0;
    UnCalibrationParam param = EverythingOn(kFrame, run.image_count);
    param.output_enable[VELOSTRIX_OUTPUT_HEIGHT] = 0;  // has no timing
    tool.SetParam(param);
    for (int round = 0; round < 20; ++round) {
      for (const auto& [name, field] : fields) *field = 0;
      t.tick_mark = 0;
      t.smoothing = round == 0 ? 0.1F : 60.0F;
      Results results;
      const int64_t start = cv::getTickCount();
      EXPECT_EQ(tool.Run(run.kind, results), is_done ? 1 : 0);
      const int64_t end = cv::getTickCount();
      EXPECT_TRUE(!is_done || t.smoothing == (round == 0 ? 0.2F : 50.0F));  // of the derivatives
      std::string written;
      for (const auto& [name, field] : fields) written += *field > 0 ? name : "";
      EXPECT_EQ(written, run.written);
      EXPECT_TRUE(is_partial ? t.tick_mark == 0
                             : t.tick_mark >= static_cast<double>(start) &&
                                   t.tick_mark <= static_cast<double>(end));
      const double light_ms = is_partial ? t.time_maps_ms + t.time_flip_ms : t.time_light_stage_ms;
      EXPECT_LE(t.time_fill_ms + t.time_svd_ms + t.time_maps_ms, light_ms);
      const double run_ms = static_cast<double>(end - start) / cv::getTickFrequency() * 1000.0;
      const double all_ms = light_ms + t.time_map_images_ms + t.time_derivative_images_ms;
      EXPECT_LE(all_ms, run_ms);
      largest_share = std::max(largest_share, all_ms / run_ms);
    }
    EXPECT_TRUE(!is_done || largest_share > 0.5) << largest_share;
  }
}

TEST(RunReference, TheLargestBlurRadiusRunsAndOneMoreIsRefusedWhereImagesAreBlurred) {
  UnCalibrationParam param = EverythingOn({3, 2}, 3);
  for (const bool blurs : {true, false}) {
    param.output_enable[VELOSTRIX_OUTPUT_CURVATURE] = blurs ? 1 : 0;
    param.output_enable[VELOSTRIX_OUTPUT_MAGNITUDE] = 0;
    for (const int32_t radius : {32767, 32768, INT32_MAX}) {
      param.blur_radius = radius;
      Results results;
      EXPECT_EQ(HostTool::Ready(param).Run(RunKind::kCalibrated, results),
                radius <= 32767 || !blurs ? 1 : 0)
          << radius << (blurs ? "" : ", nothing blurred");
    }
  }
}

}  // namespace
}  // namespace velostrix
