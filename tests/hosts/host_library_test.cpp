// The library velostrix_host: one table of refusals for every language, recipes, two threads,
// little memory and 16-bit images.
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <fstream>
#include <functional>
#include <iterator>
#include <limits>
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

std::vector<cv::Mat> Frames(uint64_t seed = 1, cv::Size size = kSize) {
  scene::SceneOptions options;
  options.width = size.width;
  options.height = size.height;
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
  explicit Call(cv::Size size = kSize, uint64_t seed = 1)
      : frames(Frames(seed, size)), images(ImagesOf(frames)) {}

  std::vector<cv::Mat> frames;
  std::vector<VelostrixImage> images;
  VelostrixSettings settings = Defaults();
};

VelostrixStatus Reconstruct(const Host& host, const Call& call) {
  return VelostrixReconstructorReconstruct(host, call.images.data(), kCount, &call.settings);
}

std::string ReadFile(const char* path) {
  std::ifstream file(path);
  return {std::istreambuf_iterator<char>(file), {}};
}

TEST(HostLibrary, RefusalsSayWhatIsExpectedAndLeaveAllAsItWas) {
  constexpr double kNan = std::numeric_limits<double>::quiet_NaN();
  const auto region = [](int x, int y, int width, int height) {
    return [=](Call& c) {
      c.settings.has_region = 1;
      c.settings.region = {x, y, width, height};
    };
  };
  const auto wide = [](int offset, int bits) {  // 16-bit samples in use of 8-bit ones
    return [=](Call& c) {
      c.images[0] = {static_cast<const uint8_t*>(c.images[0].data) + offset, 64, 31, 48, 2, 0};
      c.settings.bits = bits;
    };
  };
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
      {"image 1 has 16-bit samples; expected their white level (white)", wide(0, 0)},
      {"samples aligned", wide(1, 12)},
      {"more than 8 bits can hold", wide(0, 8)},
      {"bits 7; expected 8 to 16", [](Call& c) { c.settings.bits = 7; }},
      {"settings of 12 bytes; expected 1152", [](Call& c) { c.settings.struct_size = 12; }},
      {"run 4; expected 0 to 3, that is uncali cali", [](Call& c) { c.settings.run = 4; }},
      {"difference -1; expected 0 to 1", [](Call& c) { c.settings.difference = -1; }},
      {"outputs has bits that are no output", [](Call& c) { c.settings.outputs = 256; }},
      {"kept_gains has bits", [](Call& c) { c.settings.kept_gains = 512; }},
      {"5 x 5 pixels at (60, 0) is not inside", region(60, 0, 5, 5)},
      {"(-1, 0)", region(-1, 0, 5, 5)},
      {"is not inside", region(1, 1, INT_MAX, 5)},
      {"the region has 2 x 9 pixels; expected at least 3 x 2", region(5, 5, 2, 9)},
      {"the region has 0 x 0 pixels", region(0, 0, 0, 0)},
      {"scale 0", [](Call& c) { c.settings.scale = 0.0; }},
      {"scale 2", [](Call& c) { c.settings.scale = 2.0; }},
      {"scale", [](Call& c) { c.settings.scale = kNan; }},
      {"blur_radius 32768; expected 0 to 32767", [](Call& c) { c.settings.blur_radius = 32768; }},
      {"orientation 2; expected 0 to 1, that is as-is upright",
       [](Call& c) { c.settings.orientation = 2; }},
      {"lamp -2; expected 0 to 7", [](Call& c) { c.settings.lamp = -2; }},
      {"lamp 4; expected one of the 4 images", [](Call& c) { c.settings.lamp = 4; }},
      {"lamp 0 is not at a number",
       [](Call& c) { c.settings.lamp = 0, c.settings.lamp_degrees = kNan; }},
      {"the gain of channel1 is not finite",
       [](Call& c) { c.settings.gain[VELOSTRIX_OUTPUT_CHANNEL1] = kNan; }}};

  const Host host;
  const Results before = Tool().Reconstruct(Frames(), {});
  const Results after = Tool().Reconstruct(Frames(2), {});
  const Call good;
  ASSERT_EQ(Reconstruct(host, good), VELOSTRIX_OK);
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
  constexpr auto kInvalid = VELOSTRIX_INVALID_ARGUMENT;
  constexpr auto kState = VELOSTRIX_WRONG_STATE;
  const auto expect = [&](VelostrixStatus expected, const char* message, VelostrixStatus status) {
    EXPECT_EQ(status, expected) << message;
    EXPECT_NE(host.Message().find(message), std::string::npos) << host.Message();
  };
  const auto set = [&](const VelostrixImage* image) {
    return VelostrixReconstructorSetImage(host, image);
  };
  const auto prepare = [&](const VelostrixSettings& settings) {
    return VelostrixReconstructorPrepare(host, kCount, 64, 48, &settings);
  };
  std::vector<uint8_t> memory(size_t{64} * 48);
  const auto copy = [&](int64_t stride, int64_t capacity) {
    return VelostrixReconstructorCopyResult(host, 0, memory.data(), stride, capacity);
  };
  VelostrixSettings wrong = Defaults();
  wrong.blur_radius = -1;
  const Call next(kSize, 2);
  VelostrixImage small = next.images[1];
  small.width = 63;
  VelostrixPlane plane;
  expect(kState, "not prepared", set(next.images.data()));
  ASSERT_EQ(prepare(next.settings), VELOSTRIX_OK);
  expect(kState, "no results yet", VelostrixReconstructorResult(host, 0, &plane));
  for (const VelostrixImage& image : next.images) {
    expect(kState, " of 4 images are set", VelostrixReconstructorRun(host));
    expect(kInvalid, "image is null", set(nullptr));
    expect(kInvalid, " has 63 x 48 pixels, prepared for 64 x 48", set(&small));
    expect(kInvalid, "blur_radius -1", prepare(wrong));
    EXPECT_EQ(set(&image), VELOSTRIX_OK);
  }
  expect(kState, "all 4 images are set", set(next.images.data()));
  EXPECT_EQ(VelostrixReconstructorRun(host), VELOSTRIX_OK);
  ExpectResults(host, after);
  expect(kInvalid, "output 8", VelostrixReconstructorResult(host, 8, &plane));
  expect(kInvalid, "48 rows of 64 bytes", copy(0, 64 * 48 - 1));
  expect(kInvalid, "row_stride", copy(INT64_MAX, INT64_MAX));
  EXPECT_EQ(VelostrixReconstructorRun(nullptr), kInvalid);
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
  ASSERT_EQ(Reconstruct(host, call), VELOSTRIX_OK);
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

  VelostrixDiagnostics diagnostics = {};
  diagnostics.struct_size = sizeof diagnostics;
  call.images[2] = call.images[1];
  ASSERT_EQ(VelostrixReconstructorDiagnose(host, call.images.data(), kCount, &call.settings,
                                           nullptr, &diagnostics),
            VELOSTRIX_OK);
  VelostrixMessage warning;
  EXPECT_EQ(VelostrixReconstructorWarning(host, 0, &warning), VELOSTRIX_OK);
  EXPECT_EQ(std::string(warning.text).rfind("image 3: equal to image 2", 0), 0) << warning.text;
  EXPECT_EQ(VelostrixReconstructorWarning(host, diagnostics.warning_count, &warning),
            VELOSTRIX_INVALID_ARGUMENT);
  ExpectResults(host, expected);
}

// A ramp of light from each of the four sides, and stains that the fit has to pass by.
TEST(HostLibrary, FlatFieldsEvenOutTheLightWithoutTheStains) {
  Call call;
  std::vector<cv::Mat> references;
  for (int lamp = 0; lamp < kCount; ++lamp) {
    cv::Mat1w part(kSize);
    cv::Mat1w reference(kSize);
    for (int i = 0; i < kSize.height; ++i) {
      for (int j = 0; j < kSize.width; ++j) {
        const double x = (lamp % 2 == 0 ? j : kSize.width - j) / (1.0 * kSize.width);
        const double y = (lamp < 2 ? i : kSize.height - i) / (1.0 * kSize.height);
        const double light = 0.3 + 0.4 * x * x + 0.2 * y;
        part(i, j) = static_cast<uint16_t>(light * 20000.0 * (i > 20 ? 1.0 : 0.8));
        const bool is_stain = j / 8 == lamp + 1 && i > 10 && i < 30;
        reference(i, j) = static_cast<uint16_t>(light * 60000.0 * (is_stain ? 0.5 : 1.0));
      }
    }
    call.frames[static_cast<size_t>(lamp)] = part;
    references.push_back(reference);
  }
  VelostrixMessage message = {};
  call.settings.white = 65000;
  ASSERT_EQ(VelostrixFitFlat(ImagesOf(references).data(), kCount, &call.settings, &message),
            VELOSTRIX_OK)
      << message.text;
  const Recipe recipe = ParseRecipe(WriteRecipe(FromRecord(call.settings)));
  cv::Mat first;
  for (size_t lamp = 0; lamp < kCount; ++lamp) {
    const cv::Mat levels = ToLevels(call.frames[lamp], recipe, lamp, "part");
    ASSERT_EQ(levels.type(), CV_8UC1);
    // One level for the upper and one for the lower part, the same under all lamps.
    if (first.empty()) first = levels;
    const cv::Mat upper = levels.rowRange(0, 21);
    const cv::Mat lower = levels.rowRange(21, kSize.height);
    EXPECT_NEAR(cv::mean(upper)[0] / cv::mean(lower)[0], 0.8, 0.02);
    EXPECT_LE(cv::norm(levels, first, cv::NORM_INF), 1.0) << lamp;
    EXPECT_LE(cv::norm(lower, cv::Mat(lower.size(), CV_8U, cv::mean(lower)), cv::NORM_INF), 1.5);
  }

  references[1] = cv::Mat1w(kSize, uint16_t{65000});
  EXPECT_EQ(VelostrixFitFlat(ImagesOf(references).data(), kCount, &call.settings, &message),
            VELOSTRIX_INVALID_ARGUMENT);
  EXPECT_STREQ(message.text, "reference 2 of a flat part is saturated; expose it shorter");
}

TEST(HostLibrary, ViewsOfHeightsLeaveOutSurfaceAndBorder) {
  const cv::Size size(120, 100);
  cv::Mat1w height(size);
  for (int i = 0; i < size.height; ++i) {
    for (int j = 0; j < size.width; ++j) {
      const double x = j / 60.0 - 1.0;
      const double y = i / 50.0 - 1.0;
      const double bump = (i / 10 + j / 10) % 2 == 0 ? 500.0 : -500.0;
      height(i, j) =
          static_cast<uint16_t>(i < 10 ? 60000.0 : 20000.0 + 5000.0 * (x + y + x * y) + bump);
    }
  }
  const VelostrixImage image = {height.data, 0, size.width, size.height, 2, 0};
  cv::Mat1b out(size);
  VelostrixHeightView view = {};
  const auto view_height = [&](int removed, int border, const VelostrixImage* mask, int64_t bytes) {
    return VelostrixViewHeight(&image, removed, border, mask, out.data, 0, bytes, &view, nullptr);
  };
  ASSERT_EQ(view_height(VELOSTRIX_SURFACE_QUADRATIC, 50, nullptr, 12000), VELOSTRIX_OK);
  EXPECT_EQ(view.border, 12);  // an eighth of 100
  EXPECT_NEAR(view.white - view.black, 1000.0, 100.0);
  EXPECT_LT(out(15, 45), 30);  // fields of the board: 1 + 4 is odd
  EXPECT_GT(out(15, 35), 225);
  EXPECT_EQ(out(5, 60), 255);
  const cv::Mat inside = out(cv::Rect(12, 12, 96, 76));
  const double middle = cv::countNonZero((inside > 30) & (inside < 225));
  EXPECT_LT(middle, 0.02 * static_cast<double>(inside.total()));
  cv::Mat1b kept(size, uint8_t{1});
  kept.rowRange(0, 10) = 0;
  VelostrixImage mask = {kept.data, 0, size.width, size.height, 1, 0};
  ASSERT_EQ(view_height(VELOSTRIX_SURFACE_QUADRATIC, 0, &mask, 12000), VELOSTRIX_OK);
  EXPECT_NEAR(view.white - view.black, 1000.0, 100.0);
  EXPECT_EQ(out(5, 60), 0);
  EXPECT_GT(out(15, 35), 225);
  kept = 0;
  EXPECT_EQ(view_height(VELOSTRIX_SURFACE_PLANE, 0, &mask, 12000), VELOSTRIX_OK);
  EXPECT_EQ(cv::countNonZero(out), 0);
  mask.height = 99;
  EXPECT_EQ(view_height(0, 50, &mask, 12000), VELOSTRIX_INVALID_ARGUMENT);
  EXPECT_EQ(view_height(2, 50, nullptr, 12000), VELOSTRIX_INVALID_ARGUMENT);
  EXPECT_EQ(view_height(0, 50, nullptr, 11999), VELOSTRIX_INVALID_ARGUMENT);
}

TEST(HostLibrary, NamesAreOrderedByTheirNumbers) {
  const std::vector<const char*> ordered = {"",
                                            "a",
                                            "a/lamp2",
                                            "a1b",
                                            "a1b0",
                                            "a02",
                                            "a2",
                                            "a2b",
                                            "a10",
                                            "a010b",
                                            "a99999999999999999999",
                                            "a100000000000000000000",
                                            "b",
                                            "\xc3\xa4"};
  for (size_t k = 0; k < ordered.size(); ++k) {
    for (size_t l = 0; l < ordered.size(); ++l) {
      const int order = VelostrixCompareNames(ordered[k], ordered[l]);
      EXPECT_EQ((order > 0) - (order < 0), (k > l) - (k < l)) << ordered[k] << ' ' << ordered[l];
    }
  }
}

TEST(HostLibrary, RecipesComeBackAndWhatTheyCannotHoldIsNamed) {
  Recipe recipe;
  Parameters& p = recipe.parameters;
  p.run = velostrix::Run::kPartCols;
  p.band = 20;
  p.outputs.Remove(Output::kChannel0);
  p.region = cv::Rect(8, 6, 80, 60);
  p.scale = 0.75;
  p.equalise = true;
  p.difference = Difference::kForward;
  p.blur_radius = 2;
  p.iteration_cap = 30;
  p.orientation = Orientation::kUpright;
  p.lamp = {1, 90.5};
  p.factor_gain = 0.9;
  p.curvature = {120, 300.5};
  p.magnitude = {3, 200.25};
  p.channel = {{{100, 128.0}, {128, -90.0}, {-5, 4000.0}}};
  recipe.bits = 12;
  recipe.white = 3500;
  recipe.flat.resize(kCount, {1.0, 0.0, -0.125, 0.0, 0.0, 0.25});
  const std::string text = WriteRecipe(recipe);
  EXPECT_EQ(WriteRecipe(ParseRecipe(ReadFile(VELOSTRIX_RECIPE))), text);
  EXPECT_EQ(WriteRecipe(ParseRecipe("{\"recipe\": " + text + ", \"times_ms\": {}}")), text);
  EXPECT_EQ(WriteRecipe(ParseRecipe("{\"recipe_version\":1,\"region\":null}")),
            WriteRecipe(Recipe()));

  // What is the default is fixed only when it was given; what is not is never lost.
  Recipe given;
  given.kept_gains = {Output::kMagnitude};
  given.parameters.channel[1].offset = 7;
  const VelostrixSettings fixed = ToRecord(ParseRecipe(WriteRecipe(given)));
  EXPECT_EQ(fixed.kept_gains, recipe_detail::ToBits({Output::kMagnitude}));
  EXPECT_EQ(fixed.kept_offsets, recipe_detail::ToBits({Output::kChannel1}));

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
           {"\"white\":65536", "recipe: white 65536; expected 1 to 65535"},
           {"\"flat\":[[1],[2],[3]]", "flat is [1]; expected 15 coefficients"},
           {"\"flat\":7", "flat is 7; expected an array"},
           {"\"flat\":[[1,1,1,1,1,1,1,1,1,1,1,1,1,1,1]]", "1 images given; expected 3 to 8"},
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
      const VelostrixStatus status = Reconstruct(host, call);
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

// In a child of this process; its exit code.
int InChild(const std::function<int()>& work) {
  const pid_t child = fork();
  if (child == 0) {
    const int code = work();
    _exit(testing::Test::HasFailure() ? 100 : code);
  }
  int status = -1;
  EXPECT_EQ(waitpid(child, &status, 0), child);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

TEST(HostLibrary, AForkedProcessGoesOnWithTheReconstructor) {
  const Host host;
  const Call call(cv::Size(400, 300));  // a height that threads share, which the child has not
  const Results expected = Tool().Reconstruct(call.frames, {});
  ASSERT_EQ(Reconstruct(host, call), VELOSTRIX_OK);
  for (int k = 0; k < kCount; ++k) {
    if (k == 0) VelostrixReconstructorPrepare(host, kCount, 400, 300, &call.settings);
    ASSERT_EQ(VelostrixReconstructorSetImage(host, &call.images[k]), VELOSTRIX_OK);
  }
  EXPECT_EQ(InChild([&] {
              EXPECT_EQ(VelostrixReconstructorRun(host), VELOSTRIX_OK);
              ExpectResults(host, expected);
              return Reconstruct(host, call);
            }),
            VELOSTRIX_OK);
  EXPECT_EQ(VelostrixReconstructorRun(host), VELOSTRIX_OK);
  ExpectResults(host, expected);
}

TEST(HostLibrary, LittleMemoryIsAStatusAndTheReconstructorGoesOn) {
#if defined(__SANITIZE_ADDRESS__)
  GTEST_SKIP() << "the sanitizer reserves address space without end";
#endif
  const auto work = [] {
    const Host host;
    const Call small;
    const Call large(cv::Size(1000, 1000));
    const cv::Mat2b used(4000, 1000);  // address space in use
    const auto limit = [](rlim_t bytes) {
      const rlimit values = {bytes, RLIM_INFINITY};
      EXPECT_EQ(setrlimit(RLIMIT_AS, &values), 0);
    };
    int refused = 0;
    for (rlim_t megabytes = 64;; megabytes += 8) {
      limit(megabytes << 20);
      const VelostrixStatus status = Reconstruct(host, large);
      const bool is_said = !host.Message().empty();
      limit(RLIM_INFINITY);
      if (status == VELOSTRIX_OK) break;
      EXPECT_TRUE(status == VELOSTRIX_OUT_OF_MEMORY && is_said) << status;
      EXPECT_EQ(Reconstruct(host, small), VELOSTRIX_OK);
      ++refused;
    }
    return refused > 3 ? 0 : 1;
  };
  EXPECT_EQ(InChild(work), 0);
}

}  // namespace
}  // namespace velostrix
