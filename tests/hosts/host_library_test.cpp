// The host library: one table of refusals for every language, recipes, and what two threads, little
// memory and 16-bit images meet.
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <functional>
#include <limits>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "scene/sample_scene.h"
#include "velostrix/auto_gain.hpp"
#include "velostrix/recipe.hpp"
#include "velostrix/tool.hpp"
#include "velostrix/velostrix_host.h"

namespace velostrix {
namespace {

constexpr int kCount = 4;
const cv::Size kSize(64, 48);

std::vector<cv::Mat> Frames(uint64_t seed = 1) {
  scene::SceneOptions options;
  options.width = kSize.width;
  options.height = kSize.height;
  options.images = kCount;
  options.seed = seed;
  return scene::Render(options).images;
}

VelostrixSettings Defaults() {
  VelostrixSettings settings = {};
  settings.struct_size = sizeof settings;
  EXPECT_EQ(VelostrixSettingsDefaults(&settings), VELOSTRIX_OK);
  return settings;
}

std::vector<VelostrixImage> ImagesOf(const std::vector<cv::Mat>& frames) {
  std::vector<VelostrixImage> images;
  for (const cv::Mat& frame : frames) {
    images.push_back({frame.data, static_cast<int64_t>(frame.step[0]), frame.cols, frame.rows,
                      static_cast<int32_t>(frame.elemSize1()), 0});
  }
  return images;
}

class Host {
 public:
  Host() { EXPECT_EQ(VelostrixReconstructorCreate(&r_), VELOSTRIX_OK); }
  ~Host() { EXPECT_EQ(VelostrixReconstructorDestroy(r_), VELOSTRIX_OK); }
  Host(const Host&) = delete;
  Host& operator=(const Host&) = delete;

  operator VelostrixReconstructor*() const { return r_; }

  std::string Message() const {
    VelostrixMessage message;
    EXPECT_EQ(VelostrixReconstructorMessage(r_, &message), VELOSTRIX_OK);
    return message.text;
  }

  cv::Mat Result(Output output) const {
    VelostrixPlane p = {};
    EXPECT_EQ(VelostrixReconstructorResult(r_, static_cast<int32_t>(output), &p), VELOSTRIX_OK);
    return cv::Mat(p.height, p.width, CV_MAKETYPE(p.sample_bytes == 2 ? CV_16U : CV_8U, p.channels),
                   const_cast<void*>(p.data), static_cast<size_t>(p.row_stride));
  }

 private:
  VelostrixReconstructor* r_ = nullptr;
};

void ExpectResults(const Host& host, const Results& expected) {
  for (const auto& [output, image] : expected) {
    const cv::Mat actual = host.Result(output);
    ASSERT_EQ(actual.size(), image.size()) << Name(output);
    ASSERT_EQ(actual.type(), image.type()) << Name(output);
    EXPECT_EQ(cv::norm(actual, image, cv::NORM_INF), 0.0) << Name(output);
  }
}

struct Call {
  std::vector<cv::Mat> frames = Frames();
  std::vector<VelostrixImage> images = ImagesOf(frames);
  VelostrixSettings settings = Defaults();
};

TEST(HostLibrary, RefusalsSayWhatIsExpectedAndLeaveAllAsItWas) {
  constexpr double kNan = std::numeric_limits<double>::quiet_NaN();
  const struct {
    const char* message;
    std::function<void(Call&)> spoil;
  } cases[] = {
      {"2 images given; expected 3 to 8", [](Call& c) { c.images.resize(2); }},
      {"9 images given", [](Call& c) { c.images.resize(9, c.images[0]); }},
      {"image 3 is empty", [](Call& c) { c.images[2].data = nullptr; }},
      {"image 3 is empty", [](Call& c) { c.images[2].height = -1; }},
      {"image 4 has 64 x 47 pixels, image 1 has 64 x 48 pixels; expected one size",
       [](Call& c) { c.images[3].height = 47; }},
      {"image 1 has samples of 4 bytes", [](Call& c) { c.images[0].sample_bytes = 4; }},
      {"image 2 has rows of 64 bytes every 63", [](Call& c) { c.images[1].row_stride = 63; }},
      {"every -64", [](Call& c) { c.images[1].row_stride = -64; }},
      {"image 1 has 16-bit samples; expected settings that say",
       [](Call& c) { c.images[0] = {c.images[0].data, 64, 32, 48, 2, 0}; }},
      {"samples aligned",
       [](Call& c) {
         c.images[0] = {static_cast<const uint8_t*>(c.images[0].data) + 1, 64, 31, 48, 2, 0};
       }},
      {"more than 8 bits can hold",
       [](Call& c) {
         c.settings.bits = 8;
         c.images[2] = {c.images[0].data, 64, 32, 48, 2, 0};
       }},
      {"bits 7; expected 8 to 16", [](Call& c) { c.settings.bits = 7; }},
      {"settings of 12 bytes; expected 168", [](Call& c) { c.settings.struct_size = 12; }},
      {"run 4; expected 0 to 3, that is uncali cali", [](Call& c) { c.settings.run = 4; }},
      {"difference -1; expected 0 to 1", [](Call& c) { c.settings.difference = -1; }},
      {"outputs has bits that are no output", [](Call& c) { c.settings.outputs = 256; }},
      {"kept_gains has bits", [](Call& c) { c.settings.kept_gains = 512; }},
      {"5 x 5 pixels at (60, 0) is not inside",
       [](Call& c) {
         c.settings.has_region = 1, c.settings.region = {60, 0, 5, 5};
       }},
      {"(-1, 0)",
       [](Call& c) {
         c.settings.has_region = 1, c.settings.region = {-1, 0, 5, 5};
       }},
      {"is not inside",
       [](Call& c) {
         c.settings.has_region = 1, c.settings.region = {1, 1, INT_MAX, 5};
       }},
      {"the region has 2 x 9 pixels; expected at least 3 x 2",
       [](Call& c) {
         c.settings.has_region = 1, c.settings.region = {5, 5, 2, 9};
       }},
      {"the region has 0 x 0 pixels", [](Call& c) { c.settings.has_region = 1; }},
      {"scale 0", [](Call& c) { c.settings.scale = 0.0; }},
      {"scale 2", [](Call& c) { c.settings.scale = 2.0; }},
      {"scale", [](Call& c) { c.settings.scale = kNan; }},
      {"blur_radius 32768; expected 0 to 32767", [](Call& c) { c.settings.blur_radius = 32768; }},
      {"the gain of channel1 is not finite",
       [](Call& c) { c.settings.gain[VELOSTRIX_OUTPUT_CHANNEL1] = kNan; }}};

  const Host host;
  const Results before = Tool().Reconstruct(Frames(), {});
  const Results after = Tool().Reconstruct(Frames(2), {});
  const Call good;
  ASSERT_EQ(VelostrixReconstructorReconstruct(host, good.images.data(), kCount, &good.settings),
            VELOSTRIX_OK);
  for (const auto& c : cases) {
    SCOPED_TRACE(c.message);
    Call call;
    c.spoil(call);
    const auto count = static_cast<int32_t>(call.images.size());
    VelostrixDiagnostics diagnostics = {};
    diagnostics.struct_size = sizeof diagnostics;
    const VelostrixStatus statuses[] = {
        VelostrixReconstructorReconstruct(host, call.images.data(), count, &call.settings),
        VelostrixReconstructorChooseGains(host, call.images.data(), count, &call.settings),
        VelostrixReconstructorDiagnose(host, call.images.data(), count, &call.settings, nullptr,
                                       &diagnostics)};
    for (const VelostrixStatus status : statuses) EXPECT_EQ(status, VELOSTRIX_INVALID_ARGUMENT);
    EXPECT_NE(host.Message().find(c.message), std::string::npos) << host.Message();
    ExpectResults(host, before);
  }

  // One by one, with all refusals of a part in between.
  const auto expect = [&](VelostrixStatus status, VelostrixStatus expected, const char* message) {
    EXPECT_EQ(status, expected) << message;
    EXPECT_NE(host.Message().find(message), std::string::npos) << host.Message();
  };
  VelostrixSettings wrong = Defaults();
  wrong.blur_radius = -1;
  Call next;
  next.frames = Frames(2);
  next.images = ImagesOf(next.frames);
  VelostrixImage small = next.images[1];
  small.width = 63;
  VelostrixPlane plane;
  expect(VelostrixReconstructorSetImage(host, next.images.data()), VELOSTRIX_WRONG_STATE,
         "not prepared");
  ASSERT_EQ(VelostrixReconstructorPrepare(host, kCount, 64, 48, &next.settings), VELOSTRIX_OK);
  expect(VelostrixReconstructorResult(host, 0, &plane), VELOSTRIX_WRONG_STATE, "no results yet");
  for (int k = 0; k < kCount; ++k) {
    expect(VelostrixReconstructorRun(host), VELOSTRIX_WRONG_STATE, " of 4 images are set");
    expect(VelostrixReconstructorSetImage(host, nullptr), VELOSTRIX_INVALID_ARGUMENT,
           "image is null");
    expect(VelostrixReconstructorSetImage(host, &small), VELOSTRIX_INVALID_ARGUMENT,
           " has 63 x 48 pixels, prepared for 64 x 48");
    expect(VelostrixReconstructorPrepare(host, kCount, 64, 48, &wrong), VELOSTRIX_INVALID_ARGUMENT,
           "blur_radius -1");
    EXPECT_EQ(VelostrixReconstructorSetImage(host, &next.images[static_cast<size_t>(k)]),
              VELOSTRIX_OK);
  }
  expect(VelostrixReconstructorSetImage(host, next.images.data()), VELOSTRIX_WRONG_STATE,
         "all 4 images are set");
  EXPECT_EQ(VelostrixReconstructorRun(host), VELOSTRIX_OK);
  ExpectResults(host, after);
  expect(VelostrixReconstructorResult(host, 8, &plane), VELOSTRIX_INVALID_ARGUMENT, "output 8");
  std::vector<uint8_t> copy(size_t{63} * 50);
  expect(VelostrixReconstructorCopyResult(host, 0, copy.data(), 0, 64 * 48 - 1),
         VELOSTRIX_INVALID_ARGUMENT, "48 rows of 64 bytes");
  expect(VelostrixReconstructorCopyResult(host, 0, copy.data(), INT64_MAX, INT64_MAX),
         VELOSTRIX_INVALID_ARGUMENT, "row_stride");
  EXPECT_EQ(VelostrixReconstructorRun(nullptr), VELOSTRIX_INVALID_ARGUMENT);
  VelostrixMessage message;
  EXPECT_EQ(VelostrixCheckVersion(99, 0, &message), VELOSTRIX_FAILED);
  EXPECT_NE(std::string(message.text).find("made for version 99.0"), std::string::npos);
}

TEST(HostLibrary, CopiesTimesGainsAndDiagnostics) {
  const OutputSet kScaled = {Output::kCurvature, Output::kMagnitude, Output::kChannel0,
                             Output::kChannel1, Output::kChannel2};
  const Host host;
  Call call;
  Tool tool;
  Parameters parameters;
  parameters.run = velostrix::Run::kCalibrated;
  parameters.scale = 0.5;
  call.settings.run = VELOSTRIX_RUN_CALI;
  call.settings.scale = 0.5;
  call.settings.kept_offsets = VELOSTRIX_OUTPUT_BIT(VELOSTRIX_OUTPUT_CHANNEL0);
  call.settings.offset[VELOSTRIX_OUTPUT_CHANNEL0] = 99;
  int32_t width = 0;
  int32_t height = 0;
  EXPECT_EQ(VelostrixWorkingSize(&call.settings, 64, 48, &width, &height), VELOSTRIX_OK);
  EXPECT_EQ(cv::Size(width, height), cv::Size(32, 24));
  parameters = ChooseGains(tool, call.frames, parameters);
  parameters.channel[0].offset = 99;
  ASSERT_EQ(VelostrixReconstructorChooseGains(host, call.images.data(), kCount, &call.settings),
            VELOSTRIX_OK);
  EXPECT_EQ(call.settings.kept_gains, recipe_detail::ToBits(kScaled));
  EXPECT_EQ(call.settings.kept_offsets, recipe_detail::ToBits(kScaled));
  EXPECT_EQ(VelostrixReconstructorRun(host), VELOSTRIX_WRONG_STATE);
  ASSERT_EQ(VelostrixReconstructorReconstruct(host, call.images.data(), kCount, &call.settings),
            VELOSTRIX_OK);
  const Results expected = tool.Reconstruct(call.frames, parameters);
  ExpectResults(host, expected);

  std::vector<uint8_t> copy(200 * 48, 7);
  ASSERT_EQ(VelostrixReconstructorCopyResult(host, VELOSTRIX_OUTPUT_NORMAL, copy.data(), 200,
                                             static_cast<int64_t>(copy.size())),
            VELOSTRIX_OK);
  const cv::Mat rows(48, 200, CV_8UC1, copy.data());
  EXPECT_EQ(cv::norm(rows.colRange(0, 192), expected[Output::kNormal].reshape(1), cv::NORM_INF), 0);
  EXPECT_EQ(cv::countNonZero(rows.colRange(192, 200) != 7), 0);
  VelostrixTimes times = {};
  EXPECT_EQ(VelostrixReconstructorTimes(host, &times), VELOSTRIX_OK);
  EXPECT_GT(std::min({times.run, times.images[3], times.parameters}), 0.0);

  const char* names[] = {"left", "right", "up", "down"};
  VelostrixDiagnostics d = {};
  d.struct_size = sizeof d;
  const auto diagnose = [&] {
    return VelostrixReconstructorDiagnose(host, call.images.data(), kCount, &call.settings, names,
                                          &d);
  };
  ASSERT_EQ(diagnose(), VELOSTRIX_OK);
  EXPECT_EQ(d.warning_count, 0);
  EXPECT_LT(d.unexplained_by_ring, 0.05);
  EXPECT_EQ(d.singular_values[0], 1.0);
  ExpectResults(host, expected);
  call.images[2] = call.images[1];
  std::swap(call.images[0], call.images[3]);
  const cv::Mat1b black(kSize, 0);
  call.images[0].data = black.data;
  ASSERT_EQ(diagnose(), VELOSTRIX_OK);
  EXPECT_EQ(d.exposures[0].is_dead, 1);
  EXPECT_EQ(d.exposures[2].equal_to, 1);
  std::string said;
  VelostrixMessage warning;
  for (int k = 0; k < d.warning_count; ++k) {
    EXPECT_EQ(VelostrixReconstructorWarning(host, k, &warning), VELOSTRIX_OK);
    said += warning.text;
  }
  for (const char* words : {"left: dark all over", "up: equal to right", "too alike"}) {
    EXPECT_NE(said.find(words), std::string::npos) << said;
  }
  EXPECT_EQ(VelostrixReconstructorWarning(host, d.warning_count, &warning),
            VELOSTRIX_INVALID_ARGUMENT);
}

TEST(HostLibrary, SixteenBitImagesAreScaledByTheirBits) {
  const Results expected = Tool().Reconstruct(Frames(), {});
  const Host host;
  for (const int bits : {10, 12, 14, 16}) {
    Call call;
    call.settings.bits = bits;
    for (cv::Mat& frame : call.frames) {
      frame.convertTo(frame, CV_16U, ((1 << bits) - 1) / 255.0);
      cv::copyMakeBorder(frame, frame, 0, 0, 0, 3, cv::BORDER_CONSTANT, cv::Scalar(65535));
      frame = frame.colRange(0, kSize.width);
    }
    call.images = ImagesOf(call.frames);
    ASSERT_EQ(VelostrixReconstructorReconstruct(host, call.images.data(), kCount, &call.settings),
              VELOSTRIX_OK)
        << host.Message();
    ExpectResults(host, expected);
  }
}

TEST(HostLibrary, RecipesComeBackAndWhatTheyCannotHoldIsNamed) {
  Recipe recipe;
  Parameters& p = recipe.parameters;
  p.run = velostrix::Run::kPartCols;
  p.outputs = {Output::kFactor, Output::kNormal};
  p.region = cv::Rect(1, 2, 30, 40);
  p.scale = 1.0 / 3.0;
  p.difference = Difference::kForward;
  p.blur_radius = 2;
  p.iteration_cap = -1;
  p.factor_gain = 0.1;
  p.channel[1] = {-7, -1e-300};
  recipe.bits = 12;
  const std::string text = WriteRecipe(recipe);
  const Recipe read = ParseRecipe("{\"recipe\": " + text + ", \"times_ms\": {}}");
  EXPECT_EQ(WriteRecipe(read), text);
  EXPECT_TRUE(read.kept_gains.Contains(Output::kFactor));
  EXPECT_TRUE(read.kept_offsets.Contains(Output::kChannel1));
  EXPECT_FALSE(read.kept_offsets.Contains(Output::kHeight));
  EXPECT_EQ(WriteRecipe(ParseRecipe("{\"recipe_version\":1,\"region\":null}")),
            WriteRecipe(Recipe()));

  // What is the default is fixed only when it was given; what is not is never lost.
  Recipe given = recipe;
  given.kept_gains = {Output::kMagnitude};
  given.kept_offsets = {Output::kChannel0};
  const VelostrixSettings fixed = ToRecord(ParseRecipe(WriteRecipe(given)));
  using recipe_detail::ToBits;
  EXPECT_EQ(fixed.kept_gains, ToBits({Output::kMagnitude, Output::kFactor, Output::kChannel1}));
  EXPECT_EQ(fixed.kept_offsets, ToBits({Output::kChannel0, Output::kChannel1}));
  EXPECT_EQ(ToRecord(ParseRecipe(WriteRecipe({}))).kept_gains, 0U);

  for (const auto& [members, message] : std::initializer_list<std::pair<const char*, const char*>>{
           {"\"blur\":1",
            "recipe: blur is no field of it; expected some of band, bits, blur_radius"},
           {"\"gains\":{\"height\":1}", "gains.height is no field"},
           {"\"offsets\":{\"factor\":1}", "offsets.factor is no field"},
           {"\"region\":{\"x\":1}", "region is {\"x\":1}; expected x, y, width and height"},
           {"\"region\":{\"x1\":1}", "region.x1 is no field"},
           {"\"region\":[1,2,3,4]", "region is [1,2,3,4]; expected an object"},
           {"\"run\":\"best\"", "run is \"best\"; expected one of uncali, cali"},
           {"\"outputs\":[\"depth\"]", "outputs is \"depth\"; expected one of factor"},
           {"\"outputs\":\"all\"", "outputs is \"all\"; expected an array of names"},
           {"\"band\":1.5", "band is 1.5; expected an integer"},
           {"\"band\":4294967296", "band is 4294967296; expected an integer"},
           {"\"equalise\":1", "equalise is 1; expected true or false"},
           {"\"gains\":{\"factor\":\"x\"}", "gains.factor is \"x\"; expected a number"},
           {"\"gains\":{\"factor\":1e999}", "is no JSON"},
           {"\"scale\":2", "recipe: scale 2"},
           {"\"band\":1,\"band\":2", "band is there twice"},
           {"\"recipe_version\":1", "recipe_version is there twice"},
           {"\"band\":", "is no JSON"}}) {
    try {
      static_cast<void>(ParseRecipe(std::string("{\"recipe_version\":1,") + members + "}"));
      ADD_FAILURE() << members;
    } catch (const Error& e) {
      EXPECT_NE(std::string(e.what()).find(message), std::string::npos) << e.what();
    }
  }
  for (const char* other : {"", "[]", "{}", "{\"recipe_version\":2}", "{\"recipe\":7}"}) {
    EXPECT_THROW(static_cast<void>(ParseRecipe(other)), Error) << other;
  }
  const VelostrixSettings settings = ToRecord(recipe);
  char small[8] = "as ever";
  int64_t length = 0;
  EXPECT_EQ(VelostrixSettingsToJson(&settings, small, sizeof small, &length, nullptr),
            VELOSTRIX_INVALID_ARGUMENT);
  EXPECT_EQ(length, static_cast<int64_t>(text.size()));
  EXPECT_STREQ(small, "as ever");
}

TEST(HostLibrary, OneThreadAtATimeAndTheOthersAreToldSo) {
  const Host host;
  const Results expected = Tool().Reconstruct(Frames(), {});
  const Call call;
  std::atomic<int> done = 0;
  const auto work = [&] {
    while (done < 20) {
      const VelostrixStatus status =
          VelostrixReconstructorReconstruct(host, call.images.data(), kCount, &call.settings);
      if (status == VELOSTRIX_OK) ++done;
      if (status != VELOSTRIX_OK && status != VELOSTRIX_BUSY) done = 1000;
    }
  };
  std::vector<std::thread> threads;
  for (int k = 0; k < 4; ++k) threads.emplace_back(work);
  for (std::thread& thread : threads) thread.join();
  EXPECT_LT(done, 100) << host.Message();
  ExpectResults(host, expected);
}

TEST(HostLibrary, LittleMemoryIsAStatusAndTheReconstructorGoesOn) {
#if defined(__SANITIZE_ADDRESS__)
  GTEST_SKIP() << "the sanitizer reserves address space without end";
#endif
  const pid_t child = fork();
  if (child == 0) {
    const Host host;
    const Call small;
    VelostrixSettings settings = Defaults();
    const std::vector<cv::Mat> frames(kCount, cv::Mat(1000, 1000, CV_8UC1, cv::Scalar(50)));
    const std::vector<VelostrixImage> images = ImagesOf(frames);
    const cv::Mat2b used(4000, 1000);  // address space in use
    rlimit limit = {};
    int refused = 0;
    for (rlim_t megabytes = 64; megabytes < 4096; megabytes += 8) {
      limit = {megabytes << 20, RLIM_INFINITY};
      setrlimit(RLIMIT_AS, &limit);
      const VelostrixStatus status =
          VelostrixReconstructorReconstruct(host, images.data(), kCount, &settings);
      if (status == VELOSTRIX_OK) break;
      if (status != VELOSTRIX_OUT_OF_MEMORY || host.Message().empty()) _exit(2);
      ++refused;
    }
    if (refused == 0) _exit(3);
    limit = {RLIM_INFINITY, RLIM_INFINITY};
    setrlimit(RLIMIT_AS, &limit);
    const VelostrixStatus status =
        VelostrixReconstructorReconstruct(host, small.images.data(), kCount, &small.settings);
    if (status != VELOSTRIX_OK) _exit(4);
    _exit(testing::Test::HasFailure() ? 5 : 0);
  }
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 0);
}

}  // namespace
}  // namespace velostrix
