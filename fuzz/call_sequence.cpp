// A sequence of exported calls that bytes choose, each checked against a model of the tool and the
// plain implementation.
#include "call_sequence.h"

#include <malloc.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <memory>
#include <opencv2/core.hpp>
#include <vector>

#include "byte_source.h"
#include "support/plain_run.h"
#include "support/tool_under_test.h"
#include "tool_model.h"

namespace velostrix::fuzz {
namespace {

constexpr int kMostCalls = 20;
constexpr size_t kTools = 3;

// What one input may cost. Sizes from kNoMemoryHolds on are let through: they fail at once.
constexpr int64_t kMostPixels = 4200;  // of a working plane
constexpr int64_t kMostResultPixels = 1 << 14;
constexpr int64_t kNoMemoryHolds = int64_t{1} << 48;
constexpr int64_t kMostBlurredPixels = 100000;  // times the radius
constexpr int64_t kMostSolvedPixels = 1 << 19;  // times the iterations

// Below, the library decomposes the whole matrix, as the plain implementation does.
constexpr int64_t kSmallestReducedPiece = 1024;

bool IsAffordable(int64_t count, int64_t most, int& huge_calls) {
  if (count <= most) return true;
  return count >= kNoMemoryHolds && huge_calls-- > 0;
}

// An image in memory of exactly its size, so that the sanitizer sees every byte read beyond it.
struct HostImage {
  std::vector<uint8_t> bytes;
  int rows = 0, cols = 0, type = CV_8UC1;
  size_t step = 0;

  HostImage(ByteSource& source, const ToolModel& model) {
    const bool fits = source.Below(8) != 0;
    const int64_t wanted_rows = model.roi_set != 0 ? model.roi.y + model.roi.height : model.rows;
    const int64_t wanted_cols = model.roi_set != 0 ? model.roi.x + model.roi.width : model.cols;
    const auto side = [&](int64_t wanted) {
      const bool is_small = wanted > 0 && wanted <= kMostPixels;
      return fits && is_small ? static_cast<int>(wanted) : source.Below(64);
    };
    rows = side(wanted_rows);
    cols = side(wanted_cols);
    const uint8_t kind = source.Byte();
    if (kind >= 192) type = CV_MAKETYPE(kind % 8, 1 + kind / 8 % 5);
    const int padding = source.Below(4) == 0 ? source.Below(9) : 0;
    step =
        static_cast<size_t>(cols) * Element() + static_cast<size_t>(padding) * CV_ELEM_SIZE1(type);
    if (rows > 0 && cols > 0) {
      bytes.resize(step * static_cast<size_t>(rows - 1) + static_cast<size_t>(cols) * Element());
    }
    Fill(source);
  }

  size_t Element() const { return CV_ELEM_SIZE(type); }

  void Fill(ByteSource& source) {
    const uint8_t kind = source.Byte();
    uint32_t noise = kind * 2654435761U + 1;
    for (uint8_t& byte : bytes) {
      noise = noise * 1664525U + 1013904223U;
      byte = kind < 32 ? static_cast<uint8_t>(kind * 8) : static_cast<uint8_t>(noise >> 24);
    }
    const size_t own = std::min<size_t>(bytes.size(), kind % 16);
    std::generate_n(bytes.begin(), own, [&] { return source.Byte(); });
  }

  cv::Mat Header() {
    return bytes.empty() ? cv::Mat() : cv::Mat(rows, cols, type, bytes.data(), step);
  }
};

// One tool, its model, and the buffers that a second InitialImage has left to the caller.
class Session {
 public:
  explicit Session(int& huge_calls) : huge_calls_(huge_calls) { model_.SetParam({}); }
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;
  ~Session() {
    for (void* buffer : forgotten_) std::free(buffer);
  }

  void SetParam(ByteSource& source);
  void SetRegion(ByteSource& source);
  void ClearRegion(ByteSource& source);
  void Initial(ByteSource& source);
  void SetImage(ByteSource& source);
  void SetAllImages(ByteSource& source);
  void ClearImage(ByteSource& source);
  void Release(ByteSource& source);
  template <RunKind kind>
  void Run(ByteSource& source);

  bool by_record = false;  // how images are handed over

 private:
  void Check() const { EXPECT_EQ(ComparedFields(tool_), ComparedFields(model_)); }
  void CheckResults(RunKind kind, int32_t band, const Results& results) const;

  HostTool host_{{}};
  const UnCalibrationTool& tool_ = *host_.get();
  ToolModel model_;
  std::vector<void*> forgotten_;
  int& huge_calls_;
};

void Session::SetParam(ByteSource& source) {
  UnCalibrationParam param = {};
  param.image_count = 3 + source.Below(6);
  param.width = 1 + source.Below(24);
  param.height = 1 + source.Below(24);
  if (source.Below(8) == 0) param.width += 64;
  param.row_step = param.width + (source.Below(4) == 0 ? source.Below(20) : 0);
  const uint8_t switches = source.Byte();
  for (int i = 0; i < VELOSTRIX_OUTPUT_COUNT; ++i) param.output_enable[i] = switches >> i & 1;
  const uint8_t modes = source.Byte();
  param.difference_mode = modes & 1;
  param.equalise_on = modes >> 1 & 1;
  param.scale = (modes & 12) == 12 ? source.Double() : 1.0;
  param.blur_radius = (modes >> 4) % 4;
  param.iteration_cap = modes >> 6;
  param.factor_gain = 1.0;
  int32_t kind = 0;
  for (OutputScaling* scaling : {&param.curvature, &param.magnitude, &param.channel[0],
                                 &param.channel[1], &param.channel[2]}) {
    *scaling = {120 + kind, 40.0 + kind};
    kind += 5;
  }
  constexpr size_t kDoubles[] = {48, 72, 88, 104, 120, 136, 152};
  auto* bytes = reinterpret_cast<uint8_t*>(&param);
  for (int hostile = source.Below(8) - 4; hostile > 0; --hostile) {
    const int32_t value = source.Int();
    std::memcpy(bytes + sizeof value * static_cast<size_t>(source.Below(50)), &value, sizeof value);
  }
  for (int hostile = source.Below(8) - 4; hostile > 0; --hostile) {
    const double value = source.Double();
    std::memcpy(bytes + kDoubles[static_cast<size_t>(source.Below(7))], &value, sizeof value);
  }
  EXPECT_FALSE(SetVelostrixUnCalibrationToolParam_CPU(host_.get(), nullptr));
  EXPECT_TRUE(host_.SetParam(param));
  model_.SetParam(param);
  Check();
}

void Session::SetRegion(ByteSource& source) {
  const int32_t corner[] = {source.Int(), source.Int(), source.Int(), source.Int()};
  EXPECT_EQ(
      SetVelostrixUnCalibrationToolROI_CPU(host_.get(), corner[0], corner[1], corner[2], corner[3]),
      model_.SetRegion(corner[0], corner[1], corner[2], corner[3]));
  Check();
}

void Session::ClearRegion(ByteSource& source) {
  const int32_t rows = source.Int();
  const int32_t cols = source.Int();
  const int32_t row_step = source.Below(2) == 0 ? cols : source.Int();
  EXPECT_EQ(ClearVelostrixUnCalibrationToolROI_CPU(host_.get(), rows, cols, row_step),
            model_.ClearRegion(rows, cols, row_step));
  Check();
}

void Session::Initial(ByteSource&) {
  ToolModel next = model_;
  const bool allocates = next.TakeScaledSize();
  const int64_t pixels = allocates ? next.rows * next.row_step : 0;
  if (!IsAffordable(pixels, kMostPixels, huge_calls_)) return;
  if (allocates) {
    for (const Buffer& buffer : BuffersOf(tool_)) forgotten_.push_back(buffer.data);
    next.TakeBuffers(pixels <= kMostPixels);
  }
  host_.InitialImage();
  model_ = next;
  Check();
  if (!allocates || pixels > kMostPixels) return;
  for (const Buffer& buffer : BuffersOf(tool_)) {
    const auto size = static_cast<size_t>(pixels * buffer.pixel_bytes);
    ASSERT_GE(malloc_usable_size(buffer.data), size);
    const auto* const bytes = static_cast<const uint8_t*>(buffer.data);
    EXPECT_TRUE(std::all_of(bytes, bytes + size, [](uint8_t byte) { return byte == 0; }));
  }
}

void Session::SetImage(ByteSource& source) {
  HostImage image(source, model_);
  const std::vector<uint8_t> before = image.bytes;
  cv::Mat header = image.Header();
  ImageRecord record = {header.data, image.cols, image.rows, static_cast<int32_t>(image.step),
                        0,           1};
  bool is_image = true;
  if (by_record) {
    constexpr int kDepths[] = {CV_8U, CV_16U, CV_32F};
    const auto* known = std::find(std::begin(kDepths), std::end(kDepths), CV_MAT_DEPTH(image.type));
    const auto index = static_cast<int>(known - std::begin(kDepths));
    record.type_code = index * 4 + CV_MAT_CN(image.type);
    // The header describes the memory; a hostile record describes less of it, or nothing.
    if (source.Below(4) == 0) record.type_code = source.Int();
    if (source.Below(8) == 0)
      record.row_stride = std::min<int32_t>(source.Int(), record.row_stride);
    if (source.Below(16) == 0) record.height = std::min(source.Int(), record.height);
    if (source.Below(16) == 0) record.width = std::min(source.Int(), record.width);
    if (source.Below(16) == 0) record.data = nullptr;
    const size_t code = static_cast<size_t>(std::clamp(record.type_code, 1, 12) - 1);
    const int type = CV_MAKETYPE(kDepths[code / 4], static_cast<int>(code) % 4 + 1);
    const int64_t row_bytes = int64_t{CV_ELEM_SIZE(type)} * record.width;
    const int64_t stride = record.row_stride == 0 ? row_bytes : record.row_stride;
    is_image = record.type_code >= 1 && record.type_code <= 12 && record.data != nullptr &&
               record.width > 0 && record.height > 0 && stride >= row_bytes &&
               stride % CV_ELEM_SIZE1(type) == 0;
    if (is_image) {
      if (stride * (record.height - 1) + row_bytes > static_cast<int64_t>(image.bytes.size()))
        return;
      header = cv::Mat(record.height, record.width, type, image.bytes.data(),
                       static_cast<size_t>(record.row_stride));
    }
  } else if (source.Below(32) == 0) {
    const int sizes[] = {2, image.rows + 1, image.cols + 1};
    header = cv::Mat(3, sizes, CV_8UC1, cv::Scalar(1));
  } else if (source.Below(32) == 0) {
    header.data = nullptr;
  }
  const Outcome outcome = is_image ? model_.ImageOutcome(header) : Outcome::kRefused;
  const auto stack = [&] {
    return std::vector<uint8_t>(tool_.image_stack, tool_.image_stack + tool_.allocated_stack_bytes);
  };
  std::vector<uint8_t> expected_stack = stack();
  EXPECT_FALSE(SetVelostrixUnCalibrationToolImage_CPU(host_.get(), nullptr));
  bool stored = false;
  bool threw = false;
  try {
    stored = by_record ? SetVelostrixUnCalibrationToolImage_CPU_csharp(host_.get(), &record)
                       : host_.SetImage(header);
  } catch (const cv::Exception&) {
    threw = true;
  }
  const bool may_store = outcome == Outcome::kDone || outcome == Outcome::kDoneOrThrows;
  const bool may_throw = outcome != Outcome::kDone && outcome != Outcome::kRefused;
  EXPECT_TRUE(threw ? may_throw : stored == may_store && outcome != Outcome::kThrows)
      << header.size() << ", type " << header.type() << ", step " << header.step[0] << ": outcome "
      << static_cast<int>(outcome) << ", stored " << stored << ", threw " << threw;
  if (stored) {
    uint8_t* const plane =
        &expected_stack[static_cast<size_t>(tool_.plane_size * model_.images_set)];
    PlainPlane(tool_, header).copyTo(Header(tool_, plane, CV_8UC1));
    ++model_.images_set;
  }
  EXPECT_EQ(stack(), expected_stack);
  EXPECT_EQ(image.bytes, before) << "the caller's image is written";
  Check();
}

void Session::SetAllImages(ByteSource& source) {
  for (int64_t k = model_.images_set; k < std::min<int64_t>(model_.param.image_count, 9); ++k) {
    SetImage(source);
  }
}

void Session::ClearImage(ByteSource&) {
  host_.ClearImage();
  model_.images_set = 0;
  Check();
}

void Session::Release(ByteSource&) {
  host_.ReleaseImage();
  model_.DropBuffers();
  Check();
  for (const Buffer& buffer : BuffersOf(tool_)) EXPECT_EQ(buffer.data, nullptr);
}

// Results of a finished run, by what the tool holds. Larger pieces are decomposed another way, and
// heights are solved in another order of additions.
void Session::CheckResults(RunKind kind, int32_t band, const Results& results) const {
  PlainRun plain(tool_, model_.param, kind, band);
  const bool same_decomposition =
      kind == RunKind::kCalibrated || model_.rows * model_.cols < kSmallestReducedPiece;
  if (model_.IsOn(VELOSTRIX_OUTPUT_HEIGHT)) {
    const cv::Mat map = Header(tool_, tool_.height_map, CV_32FC1);
    const cv::Mat plain_map = Header(tool_, plain.workspace.height_map.data(), CV_32FC1);
    const double most = cv::norm(plain_map, cv::NORM_INF);
    EXPECT_FALSE(same_decomposition && cv::norm(map, plain_map, cv::NORM_INF) > 0.01 * most);
    reference::MapToWordNormalized(FrameOf(tool_), tool_.height_map,
                                   plain.workspace.height_plane.data());
    cv::Mat& words = plain.results[kHeight];
    words = Header(tool_, plain.workspace.height_plane.data(), CV_16UC1);
    ResizeResult(tool_, words);
  }
  const bool is_resized = model_.downscale_on == 1 &&
                          (model_.roi_width != model_.cols || model_.roi_height != model_.rows);
  for (int output = 0; output < VELOSTRIX_OUTPUT_COUNT; ++output) {
    if (!model_.IsOn(output)) continue;
    const size_t i = kResultOfSwitch[static_cast<size_t>(output)];
    const cv::Mat& result = results[i];
    constexpr int kAnyLevels = 65535;
    EXPECT_TRUE(
        AgreeWithin(same_decomposition || i == kHeight ? 0 : kAnyLevels, result, plain.results[i]))
        << kind << ", " << kResultNames[i];
    const bool owns = is_resized || i == kNormal;
    EXPECT_EQ(result.u != nullptr, owns) << kResultNames[i];
    const int64_t row_step = owns ? result.cols : model_.row_step;
    EXPECT_EQ(result.step[0], static_cast<size_t>(row_step) * result.elemSize());
  }
}

template <RunKind kind>
void Session::Run(ByteSource& source) {
  const uint8_t missing = source.Below(16) == 0 ? source.Byte() : uint8_t{0};
  const bool shared = source.Below(32) == 0;
  const int32_t band = source.Int();
  Results results;
  std::array<cv::Mat*, kResultCount> places = {};
  std::array<bool, VELOSTRIX_OUTPUT_COUNT> has_place = {};
  for (size_t output = 0; output < kResultCount; ++output) {
    const size_t i = kResultOfSwitch[output];
    has_place[output] = (missing >> output & 1) == 0;
    results[i] = cv::Mat(1, 1, CV_64FC1);
    places[i] = has_place[output] ? &results[shared ? 0 : i] : nullptr;
  }
  const Outcome outcome = model_.RunOutcome(kind, band, has_place);
  if (outcome != Outcome::kRefused) {
    const int64_t pixels = model_.rows * model_.cols;
    const int64_t iterations =
        model_.param.iteration_cap < 0 ? 2 * pixels : model_.param.iteration_cap;
    if (model_.downscale_on == 1 &&
        !IsAffordable(model_.roi_width * model_.roi_height, kMostResultPixels, huge_calls_)) {
      return;
    }
    if (model_.param.blur_radius * std::max<int64_t>(pixels, 100) > kMostBlurredPixels) return;
    if (model_.IsOn(VELOSTRIX_OUTPUT_HEIGHT) && iterations * pixels > kMostSolvedPixels) return;
  }
  const Results before = results;
  int32_t done = 0;
  bool threw = false;
  try {
    done = host_.Run(kind, places, band);
  } catch (const cv::Exception&) {
    threw = true;
  }
  EXPECT_TRUE(threw ? outcome == Outcome::kDoneOrThrows
                    : (done == 1) == (outcome != Outcome::kRefused));
  if (done == 1) model_.images_set = 0;
  Check();
  if (shared) return;
  for (size_t output = 0; output < kResultCount; ++output) {
    const size_t i = kResultOfSwitch[output];
    const bool may_touch = outcome != Outcome::kRefused && model_.IsOn(static_cast<int>(output));
    EXPECT_TRUE(may_touch || results[i].data == before[i].data) << kResultNames[i];
  }
  if (done == 1) CheckResults(kind, band, results);
}

// What every function does without a tool, a record or images.
void CallWithNulls(ByteSource& source) {
  const auto nothing = [](auto... functions) { (functions(nullptr), ...); };
  nothing(InitialVelostrixUnCalibrationToolImage_CPU, ClearVelostrixUnCalibrationToolImage_CPU,
          ReleaseVelostrixUnCalibrationToolImage_CPU, DestroyImageArrayCPU,
          DestroyVelostrixUnCalibrationToolPtr_CPU);
  cv::Mat image(2, 2, CV_8UC1, cv::Scalar(0));
  const UnCalibrationParam param = {};
  const ImageRecord record = {image.data, 2, 2, 2, 0, 1};
  const auto run = [&](auto function, auto... last) {
    return function(nullptr, &image, &image, &image, &image, &image, &image, &image, &image,
                    last...);
  };
  HostTool tool({});
  EXPECT_FALSE(SetVelostrixUnCalibrationToolParam_CPU(nullptr, &param));
  EXPECT_FALSE(SetVelostrixUnCalibrationToolROI_CPU(nullptr, 0, 0, 1, 1));
  EXPECT_EQ(ClearVelostrixUnCalibrationToolROI_CPU(nullptr, 2, 2, 2), 0);
  EXPECT_FALSE(SetVelostrixUnCalibrationToolImage_CPU(nullptr, &image));
  EXPECT_FALSE(SetVelostrixUnCalibrationToolImage_CPU_csharp(nullptr, &record));
  EXPECT_FALSE(SetVelostrixUnCalibrationToolImage_CPU_csharp(tool.get(), nullptr));
  EXPECT_EQ(run(RunVelostrixUnCalibration_CPU_uncali), 0);
  EXPECT_EQ(run(RunVelostrixUnCalibration_CPU_cali), 0);
  EXPECT_EQ(run(RunVelostrixUnCalibration_CPU_partcols_uncali, 10), 0);
  EXPECT_EQ(run(RunVelostrixUnCalibration_CPU_partrows_uncali, 10), 0);
  DestroyImageArrayCPU(new cv::Mat[static_cast<size_t>(source.Below(5))]);
}

// What a byte chooses, the usual calls twice.
constexpr void (Session::*kCalls[])(ByteSource&) = {
    &Session::SetParam,
    &Session::SetParam,
    &Session::SetRegion,
    &Session::ClearRegion,
    &Session::Initial,
    &Session::Initial,
    &Session::SetImage,
    &Session::SetAllImages,
    &Session::SetAllImages,
    &Session::ClearImage,
    &Session::Release,
    &Session::Run<RunKind::kUncalibrated>,
    &Session::Run<RunKind::kCalibrated>,
    &Session::Run<RunKind::kPartCols>,
    &Session::Run<RunKind::kPartRows>,
};

}  // namespace

void RunCallSequence(const uint8_t* data, size_t size) {
  cv::setNumThreads(1);
  ByteSource source(data, size);
  std::array<std::unique_ptr<Session>, kTools> sessions;
  int huge_calls = 1;
  for (int call = 0; call < kMostCalls && !source.empty(); ++call) {
    const uint8_t choice = source.Byte();
    auto& session = sessions[choice >= 240 ? 1 + choice % 2 : 0];
    if (session == nullptr) session = std::make_unique<Session>(huge_calls);
    session->by_record = source.Below(2) != 0;
    const size_t kind = choice % 16;
    if (kind < std::size(kCalls)) {
      (session.get()->*kCalls[kind])(source);
    } else {
      CallWithNulls(source);
      session.reset();
    }
  }
}

}  // namespace velostrix::fuzz
