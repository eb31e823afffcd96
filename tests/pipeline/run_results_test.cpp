// What a run of the loaded module delivers and leaves alone: switches, types, sizes, memory of the
// results, refusals, the count of set images.
#include <gtest/gtest.h>

#include <functional>
#include <limits>

#include "interface/host_tool.h"
#include "scene/sample_scene.h"

namespace velostrix {
namespace {

constexpr int32_t kIntMin = std::numeric_limits<int32_t>::min();
constexpr int32_t kIntMax = std::numeric_limits<int32_t>::max();
const cv::Size kFrame(52, 38);

std::vector<cv::Mat> SceneImages(cv::Size size, int count = 4, uint64_t seed = 1) {
  scene::SceneOptions options;
  options.width = size.width;
  options.height = size.height;
  options.images = count;
  options.lamps = scene::Lamps::kRandom;
  options.seed = seed;
  return scene::Render(options).images;
}

int TypeOf(size_t result) {
  return result == kNormal ? CV_8UC3 : result == kHeight ? CV_16UC1 : CV_8UC1;
}

// Results that were there before a run and that no run makes.
struct Sentinels {
  Sentinels() {
    for (size_t i = 0; i < kResultCount; ++i) {
      images[i] = cv::Mat(2, 3, CV_64FC1, cv::Scalar(static_cast<double>(i)));
      data[i] = images[i].data;
    }
  }
  bool IsUntouched(size_t i) const {
    return images[i].data == data[i] && images[i].type() == CV_64FC1 &&
           cv::countNonZero(images[i] != static_cast<double>(i)) == 0;
  }
  void ExpectUntouched() const {
    for (size_t i = 0; i < kResultCount; ++i) EXPECT_TRUE(IsUntouched(i)) << kResultNames[i];
  }

  Results images;
  std::array<const uint8_t*, kResultCount> data;
};

TEST(RunResults, ExactlyThoseThatAreSwitchedOn) {
  struct Case {
    std::string name;
    std::vector<int> switches;
  };
  std::vector<Case> cases = {{"none", {}},
                             {"all", {0, 1, 2, 3, 4, 5, 6, 7}},
                             {"curvature and height", {1, 3}},
                             {"factor and channel 1", {0, 5}}};
  for (int i = 0; i < VELOSTRIX_OUTPUT_COUNT; ++i) {
    cases.push_back({"switch " + std::to_string(i) + " alone", {i}});
  }
  const std::vector<cv::Mat> images = SceneImages(kFrame);
  for (const RunKind kind : kAllRuns) {
    UnCalibrationParam param = EverythingOn(kFrame, images.size());
    const Results everything = HostTool::Ready(param).Reconstruct(kind, images);
    for (const Case& c : cases) {
      SCOPED_TRACE(testing::Message() << kind << ", " << c.name);
      std::array<bool, kResultCount> wanted = {};
      std::fill_n(param.output_enable, VELOSTRIX_OUTPUT_COUNT, 0);
      for (const int i : c.switches) {
        param.output_enable[i] = i % 2 == 0 ? 1 : -5;  // anything but zero is on
        wanted[kResultOfSwitch[static_cast<size_t>(i)]] = true;
      }
      // The normal image brings its channels.
      for (const size_t i : {kChannel0, kChannel1, kChannel2}) wanted[i] |= wanted[kNormal];

      HostTool tool = HostTool::Ready(param);
      tool.SetImages(images);
      Sentinels results;
      std::array<cv::Mat*, kResultCount> places = {};  // what is off needs no place
      for (size_t i = 0; i < kResultCount; ++i)
        places[i] = wanted[i] ? &results.images[i] : nullptr;
      ASSERT_EQ(tool.Run(kind, places, 10), 1);
      for (size_t i = 0; i < kResultCount; ++i) {
        if (!wanted[i]) continue;
        EXPECT_TRUE(AgreeWithin(0, results.images[i], everything[i])) << kResultNames[i];
        EXPECT_EQ(results.images[i].type(), TypeOf(i)) << kResultNames[i];
      }

      tool.SetImages(images);
      Sentinels all_given;
      ASSERT_EQ(tool.Run(kind, all_given.images), 1);
      for (size_t i = 0; i < kResultCount; ++i) {
        EXPECT_NE(all_given.IsUntouched(i), wanted[i]) << kResultNames[i];
      }
    }
  }
}

TEST(RunResults, HeadersOverTheToolUnlessResized) {
  for (const RunKind kind : kAllRuns) {
    for (const double scale : {1.0, 0.5}) {
      SCOPED_TRACE(testing::Message() << kind << ", scale " << scale);
      const bool resized = scale < 0.99;
      const cv::Size frame(240, 130);
      UnCalibrationParam param = EverythingOn(frame, 4);
      param.scale = scale;
      param.blur_radius = 1;
      HostTool tool(param);
      ASSERT_TRUE(tool.SetRegion(cv::Rect(20, 10, 200, 100)));
      tool.InitialImage();
      const std::vector<cv::Mat> images = SceneImages(frame);
      Results first;
      Results second;
      tool.SetImages(images);
      ASSERT_EQ(tool.Run(kind, first, 40), 1);
      tool.SetImages(images);
      ASSERT_EQ(tool.Run(kind, second, 40), 1);
      for (size_t i = 0; i < kResultCount; ++i) {
        SCOPED_TRACE(kResultNames[i]);
        EXPECT_EQ(first[i].size(), cv::Size(200, 100));
        EXPECT_EQ(first[i].type(), TypeOf(i));
        const bool owns = resized || i == kNormal;
        EXPECT_EQ(first[i].u != nullptr, owns);
        EXPECT_EQ(first[i].data != second[i].data, owns);
      }
    }
  }
}

TEST(RunResults, RowsOfTheToolThatStandApartGiveThePackedResult) {
  const std::vector<cv::Mat> images = SceneImages(kFrame);
  for (const RunKind kind : kAllRuns) {
    for (const int gap : {1, 7, 64}) {
      SCOPED_TRACE(testing::Message() << kind << ", gap " << gap);
      UnCalibrationParam param = EverythingOn(kFrame, images.size());
      param.blur_radius = 2;
      const Results packed = HostTool::Ready(param).Reconstruct(kind, images, 16);
      param.row_step = kFrame.width + gap;
      HostTool tool = HostTool::Ready(param);
      tool.SetImages(images);
      Results apart;
      ASSERT_EQ(tool.Run(kind, apart, 16), 1);
      ExpectSame(apart, packed);
      EXPECT_EQ(apart[kFactor].step[0], static_cast<size_t>(param.row_step));
      EXPECT_EQ(apart[kHeight].step[0], static_cast<size_t>(2 * param.row_step));
    }
  }
}

TEST(RunResults, BandsBelowTenCountAsTenAndBeyondTheFrameAsTheFrame) {
  const std::vector<cv::Mat> images = SceneImages(kFrame);
  for (const RunKind kind : {RunKind::kPartRows, RunKind::kPartCols}) {
    HostTool tool = HostTool::Ready(EverythingOn(kFrame, images.size()));
    const Results ten = tool.Reconstruct(kind, images, 10);
    for (const int32_t band : {kIntMin, -5, 0, 1, 9}) {
      SCOPED_TRACE(testing::Message() << kind << ", band " << band);
      ExpectSame(tool.Reconstruct(kind, images, band), ten);
    }
    const int whole_frame = kind == RunKind::kPartRows ? kFrame.height : kFrame.width;
    const Results whole = tool.Reconstruct(kind, images, whole_frame);
    for (const int32_t band : {whole_frame + 1, 10000, kIntMax}) {
      SCOPED_TRACE(testing::Message() << kind << ", band " << band);
      ExpectSame(tool.Reconstruct(kind, images, band), whole);
    }
    EXPECT_FALSE(AgreeWithin(0, ten[kFactor], whole[kFactor])) << kind;
  }
}

TEST(RunResults, AToolRunsAgainAndAgain) {
  const std::vector<cv::Mat> images = SceneImages(kFrame, 4, 1);
  const std::vector<cv::Mat> others = SceneImages(kFrame, 4, 2);
  HostTool tool = HostTool::Ready(EverythingOn(kFrame, images.size()));
  std::vector<Results> first;
  for (const RunKind kind : kAllRuns) first.push_back(tool.Reconstruct(kind, images));
  for (const RunKind kind : kAllRuns) tool.Reconstruct(kind, others);
  for (const RunKind kind : kAllRuns) {
    SCOPED_TRACE(kind);
    ExpectSame(tool.Reconstruct(kind, images), first[static_cast<size_t>(kind)]);
  }
  // Another geometry in between, on the same handle.
  tool.ReleaseImage();
  tool.SetParam(EverythingOn(cv::Size(30, 20), 3));
  tool.InitialImage();
  tool.Reconstruct(RunKind::kUncalibrated, SceneImages(cv::Size(30, 20), 3));
  tool.ReleaseImage();
  tool.SetParam(EverythingOn(kFrame, images.size()));
  tool.InitialImage();
  ExpectSame(tool.Reconstruct(RunKind::kUncalibrated, images), first[0]);
}

TEST(RunResults, UniformImagesHaveOneNormalAndNoDerivatives) {
  UnCalibrationParam param = EverythingOn(kFrame, 5);
  param.curvature = {77, 1000.0};
  param.magnitude = {33, 1000.0};
  const std::vector<cv::Mat> images(5, cv::Mat(kFrame, CV_8UC1, cv::Scalar(140)));
  const Results results = HostTool::Ready(param).Reconstruct(RunKind::kCalibrated, images);
  for (const size_t i : {kChannel0, kChannel1, kChannel2}) {
    // One value in a row's blocks, and one, at most a level lower, in its last pixels.
    double low = 0;
    double high = 0;
    cv::minMaxLoc(results[i], &low, &high);
    EXPECT_LE(high - low, 1) << kResultNames[i];
  }
  EXPECT_TRUE(AgreeWithin(0, results[kCurvature], cv::Mat(kFrame, CV_8UC1, cv::Scalar(77))));
  EXPECT_TRUE(AgreeWithin(0, results[kMagnitude], cv::Mat(kFrame, CV_8UC1, cv::Scalar(33))));
  EXPECT_TRUE(AgreeWithin(0, results[kFactor], cv::Mat(kFrame, CV_8UC1, cv::Scalar(128))));
}

// A run that cannot be made: nothing is touched, the images stay set, and once the cause is mended
// the run goes on with them.
struct Refusal {
  const char* name;
  std::function<void(UnCalibrationParam&)> spoil;
};

const Refusal kRefusals[] = {
    {"two images", [](auto& p) { p.image_count = 2; }},
    {"nine images", [](auto& p) { p.image_count = 9; }},
    {"no images", [](auto& p) { p.image_count = 0; }},
    {"lowest image count", [](auto& p) { p.image_count = kIntMin; }},
    {"more images than the buffers hold", [](auto& p) { p.image_count = 5; }},
    {"one row more", [](auto& p) { ++p.height; }},
    {"one column more", [](auto& p) { p.row_step = ++p.width; }},
    {"longer rows", [](auto& p) { ++p.row_step; }},
    {"largest frame", [](auto& p) { p.width = p.height = p.row_step = kIntMax; }},
    {"no rows", [](auto& p) { p.height = 0; }},
    {"no columns", [](auto& p) { p.width = p.row_step = 0; }},
    {"negative frame", [](auto& p) { p.width = p.height = p.row_step = -20; }},
    {"overlapping rows", [](auto& p) { --p.row_step; }},
    {"blur beyond its limit", [](auto& p) { p.blur_radius = 32768; }},
    {"largest blur", [](auto& p) { p.blur_radius = kIntMax; }},
};

TEST(RunRefusals, LeaveToolAndResultsAsTheyWere) {
  const std::vector<cv::Mat> images = SceneImages(kFrame);
  const UnCalibrationParam param = EverythingOn(kFrame, images.size());
  for (const RunKind kind : kAllRuns) {
    const Results expected = HostTool::Ready(param).Reconstruct(kind, images);
    for (const Refusal& refusal : kRefusals) {
      SCOPED_TRACE(testing::Message() << kind << ", " << refusal.name);
      HostTool tool = HostTool::Ready(param);
      tool.SetImages(images);
      UnCalibrationParam spoilt = param;
      refusal.spoil(spoilt);
      tool.SetParam(spoilt);
      Sentinels results;
      EXPECT_EQ(tool.Run(kind, results.images), 0);
      results.ExpectUntouched();

      tool.SetParam(param);
      EXPECT_FALSE(tool.SetImage(images[0]));  // all are still set
      Results actual;
      EXPECT_EQ(tool.Run(kind, actual), 1);
      ExpectSame(actual, expected);
      EXPECT_TRUE(tool.SetImage(images[0]));  // and counted anew after a run
    }
  }
}

TEST(RunRefusals, AResultThatIsAskedForNeedsAPlace) {
  const std::vector<cv::Mat> images = SceneImages(kFrame);
  for (const RunKind kind : kAllRuns) {
    for (size_t missing = 0; missing < kResultCount; ++missing) {
      SCOPED_TRACE(testing::Message() << kind << " without " << kResultNames[missing]);
      HostTool tool = HostTool::Ready(EverythingOn(kFrame, images.size()));
      tool.SetImages(images);
      Sentinels results;
      std::array<cv::Mat*, kResultCount> places = {};
      for (size_t i = 0; i < kResultCount; ++i) places[i] = &results.images[i];
      places[missing] = nullptr;
      EXPECT_EQ(tool.Run(kind, places, 10), 0);
      results.ExpectUntouched();
      EXPECT_FALSE(tool.SetImage(images[0]));
    }
  }
}

TEST(RunRefusals, WithoutBuffers) {
  const std::vector<cv::Mat> images = SceneImages(kFrame);
  for (const RunKind kind : kAllRuns) {
    SCOPED_TRACE(kind);
    HostTool tool(EverythingOn(kFrame, images.size()));
    Sentinels results;
    EXPECT_EQ(tool.Run(kind, results.images), 0);
    tool.InitialImage();
    tool.SetImages(images);
    tool.ReleaseImage();
    EXPECT_EQ(tool.Run(kind, results.images), 0);
    results.ExpectUntouched();
    HostTool fresh(UnCalibrationParam{});
    EXPECT_EQ(fresh.Run(kind, results.images), 0);
    results.ExpectUntouched();
  }
}

TEST(RunResults, ARunDoesNotAskWhetherImagesWereSet) {
  for (const RunKind kind : kAllRuns) {
    SCOPED_TRACE(kind);
    HostTool tool = HostTool::Ready(EverythingOn(kFrame, 4));
    Results black;
    EXPECT_EQ(tool.Run(kind, black), 1);
    EXPECT_EQ(black[kFactor].size(), kFrame);
  }
}

// Frames below the sizes that stages want: a run answers with 1 or 0 as the header says, and says
// the same, with the same bytes, the second time.
TEST(RunResults, TheSmallestFrames) {
  for (const RunKind kind : kAllRuns) {
    for (const cv::Size size : {cv::Size(1, 1), cv::Size(2, 1), cv::Size(1, 2), cv::Size(3, 1),
                                cv::Size(1, 3), cv::Size(2, 2), cv::Size(20, 1), cv::Size(1, 20),
                                cv::Size(2, 20), cv::Size(20, 2), cv::Size(3, 3)}) {
      SCOPED_TRACE(testing::Message() << kind << ", " << size);
      const std::vector<cv::Mat> images = SceneImages(size);
      UnCalibrationParam param = EverythingOn(size, images.size());
      param.blur_radius = 1;
      const bool too_small = kind != RunKind::kCalibrated && size.area() < 3;
      const bool no_second_row = kind == RunKind::kPartCols && size.height < 2;
      HostTool tool = HostTool::Ready(param);
      tool.SetImages(images);
      Sentinels results;
      const bool done = tool.Run(kind, results.images) == 1;
      EXPECT_EQ(done, !too_small && !no_second_row);
      if (done) {
        for (const cv::Mat& image : results.images) EXPECT_EQ(image.size(), size);
        for (cv::Mat& image : results.images) image = image.clone();
        ExpectSame(HostTool::Ready(param).Reconstruct(kind, images), results.images);
      } else {
        results.ExpectUntouched();
      }
    }
  }
}

TEST(RunResults, ABlurWiderThanTheFrame) {
  const cv::Size size(8, 6);
  const std::vector<cv::Mat> images = SceneImages(size);
  UnCalibrationParam param = EverythingOn(size, images.size());
  param.blur_radius = 200;
  for (const RunKind kind : kAllRuns) {
    SCOPED_TRACE(kind);
    const Results results = HostTool::Ready(param).Reconstruct(kind, images);
    EXPECT_EQ(results[kCurvature].size(), size);
  }
}

}  // namespace
}  // namespace velostrix
