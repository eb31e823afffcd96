// A sequence of exported calls that bytes choose, each checked against a model of the tool.
#include "call_sequence.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <numeric>
#include <opencv2/core.hpp>
#include <vector>

#include "byte_source.h"
#include "tool_model.h"
#include "velostrix/uncalibration.h"

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

void Expect(bool holds, const char* what) {
  if (holds) return;
  std::fprintf(stderr, "call_sequence: does not hold: %s\n", what);
  std::abort();
}

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

// One tool, its model, and the buffers that a second InitialImage has left to the host.
class Session {
 public:
  explicit Session(int& huge_calls) : huge_calls_(huge_calls) {
    UnCalibrationTool* out = nullptr;
    tool_ = CreateVelostrixUnCalibrationToolPtr_CPU(&out);
    Expect(tool_ == out && tool_ != nullptr, "Create returns what it stores");
    Check();
  }
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;
  ~Session() {
    ForgetBuffers();
    DestroyVelostrixUnCalibrationToolPtr_CPU_csharp(tool_);
    for (void* buffer : forgotten_) std::free(buffer);
  }

  void SetParam(ByteSource& source, bool csharp);
  void SetRegion(ByteSource& source, bool csharp);
  void ClearRegion(ByteSource& source, bool csharp);
  void Initial(ByteSource& source, bool csharp);
  void SetImage(ByteSource& source, bool csharp);
  void SetAllImages(ByteSource& source, bool csharp);
  void ClearImage(ByteSource& source, bool csharp);
  void Release(ByteSource& source, bool csharp);
  template <RunKind run>
  void RunOnce(ByteSource& source, bool csharp);

 private:
  void Check() const {
    Expect(ComparedFields(*tool_) == ComparedFields(model_), "the tool's state is the model's");
  }
  void Store(HostImage& image, ByteSource& source, bool csharp);
  void CheckResults(const std::array<cv::Mat*, 8>& results) const;

  // The tool's buffer pointers stand side by side, from the image stack to the spare stack.
  void ForgetBuffers() {
    forgotten_.push_back(tool_->image_stack);
    for (float** map = &tool_->factor_map; map <= &tool_->spare_map; ++map) {
      forgotten_.push_back(*map);
    }
    for (uint8_t** plane = &tool_->factor_plane; plane <= &tool_->spare_plane[1]; ++plane) {
      forgotten_.push_back(*plane);
    }
    forgotten_.push_back(tool_->height_plane);
    forgotten_.push_back(tool_->spare_stack);
  }

  UnCalibrationTool* tool_ = nullptr;
  ToolModel model_;
  std::vector<void*> forgotten_;
  int& huge_calls_;
};

void Session::SetParam(ByteSource& source, bool csharp) {
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
  for (OutputScaling* scaling : {&param.curvature, &param.magnitude, &param.channel[0],
                                 &param.channel[1], &param.channel[2]}) {
    *scaling = {127, 50.0};
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
  const auto set_param = csharp ? SetVelostrixUnCalibrationToolParam_CPU_csharp
                                : SetVelostrixUnCalibrationToolParam_CPU;
  Expect(!set_param(tool_, nullptr), "a null record is refused");
  Expect(set_param(tool_, &param), "SetParam is always true");
  model_.SetParam(param);
  Check();
}

void Session::SetRegion(ByteSource& source, bool csharp) {
  const int32_t corner[] = {source.Int(), source.Int(), source.Int(), source.Int()};
  const auto set_region =
      csharp ? SetVelostrixUnCalibrationToolROI_CPU_csharp : SetVelostrixUnCalibrationToolROI_CPU;
  const bool set = set_region(tool_, corner[0], corner[1], corner[2], corner[3]);
  Expect(set == model_.SetRegion(corner[0], corner[1], corner[2], corner[3]), "SetROI's result");
  Check();
}

void Session::ClearRegion(ByteSource& source, bool csharp) {
  const int32_t rows = source.Int();
  const int32_t cols = source.Int();
  const int32_t row_step = source.Below(2) == 0 ? cols : source.Int();
  const auto clear_region = csharp ? ClearVelostrixUnCalibrationToolROI_CPU_csharp
                                   : ClearVelostrixUnCalibrationToolROI_CPU;
  Expect(clear_region(tool_, rows, cols, row_step) == model_.ClearRegion(rows, cols, row_step),
         "ClearROI's result");
  Check();
}

void Session::Initial(ByteSource&, bool csharp) {
  ToolModel next = model_;
  const bool allocates = next.TakeScaledSize();
  const int64_t pixels = allocates ? next.rows * next.row_step : 0;
  if (!IsAffordable(pixels, kMostPixels, huge_calls_)) return;
  if (allocates) {
    ForgetBuffers();
    next.TakeBuffers(pixels <= kMostPixels);
  }
  (csharp ? InitialVelostrixUnCalibrationToolImage_CPU_csharp
          : InitialVelostrixUnCalibrationToolImage_CPU)(tool_);
  model_ = next;
  Check();
}

void Session::Store(HostImage& image, ByteSource& source, bool csharp) {
  const std::vector<uint8_t> before = image.bytes;
  cv::Mat header = image.Header();
  if (!csharp && source.Below(32) == 0) {
    const int sizes[] = {2, image.rows + 1, image.cols + 1};
    header = cv::Mat(3, sizes, CV_8UC1, cv::Scalar(1));
  }
  ImageRecord record = {header.data, image.cols, image.rows, static_cast<int32_t>(image.step),
                        0,           1};
  const int depth = CV_MAT_DEPTH(image.type);
  bool is_record = true;
  if (csharp) {
    constexpr int kDepths[] = {CV_8U, CV_16U, CV_32F};
    const auto* known = std::find(std::begin(kDepths), std::end(kDepths), depth);
    const auto index = static_cast<int>(known - std::begin(kDepths));
    record.type_code = index * 4 + CV_MAT_CN(image.type);
    // The header describes the memory; a hostile record describes less of it, or nothing.
    if (source.Below(4) == 0) record.type_code = source.Int();
    if (source.Below(8) == 0)
      record.row_stride = std::min<int32_t>(source.Int(), record.row_stride);
    if (source.Below(16) == 0) record.height = std::min(source.Int(), record.height);
    if (source.Below(16) == 0) record.width = std::min(source.Int(), record.width);
    if (source.Below(16) == 0) record.data = nullptr;
    is_record = record.type_code >= 1 && record.type_code <= 12 && record.data != nullptr &&
                record.width > 0 && record.height > 0;
    const size_t code = static_cast<size_t>(std::clamp(record.type_code, 1, 12) - 1);
    const int type = CV_MAKETYPE(kDepths[code / 4], static_cast<int>(code) % 4 + 1);
    const int64_t row_bytes = int64_t{CV_ELEM_SIZE(type)} * record.width;
    const int64_t stride = record.row_stride == 0 ? row_bytes : record.row_stride;
    is_record = is_record && stride >= row_bytes && stride % CV_ELEM_SIZE1(type) == 0;
    if (is_record) {
      if (stride * (record.height - 1) + row_bytes > static_cast<int64_t>(image.bytes.size()))
        return;
      header = cv::Mat(record.height, record.width, type, image.bytes.data(),
                       static_cast<size_t>(record.row_stride));
    }
  }
  const Outcome outcome = is_record ? model_.ImageOutcome(header) : Outcome::kRefused;
  bool stored = false;
  bool threw = false;
  try {
    stored = csharp ? SetVelostrixUnCalibrationToolImage_CPU_csharp(tool_, &record)
                    : SetVelostrixUnCalibrationToolImage_CPU(tool_, &header);
  } catch (const cv::Exception&) {
    threw = true;
  }
  Expect(image.bytes == before, "the host's image is not written");
  const bool may_store = outcome == Outcome::kDone || outcome == Outcome::kDoneOrThrows;
  const bool may_throw = outcome != Outcome::kDone && outcome != Outcome::kRefused;
  const bool as_expected = threw ? may_throw : stored == may_store && outcome != Outcome::kThrows;
  if (!as_expected) {
    std::fprintf(stderr, "image %d x %d, type %d, step %zu: outcome %d, stored %d, threw %d\n",
                 header.rows, header.cols, header.type(), header.step[0], static_cast<int>(outcome),
                 stored, threw);
  }
  Expect(as_expected, "SetImage's result");
  if (stored) ++model_.images_set;
  Check();
}

void Session::SetImage(ByteSource& source, bool csharp) {
  HostImage image(source, model_);
  Store(image, source, csharp);
}

void Session::SetAllImages(ByteSource& source, bool) {
  for (int64_t k = model_.images_set; k < std::min<int64_t>(model_.image_count, 9); ++k) {
    HostImage image(source, model_);
    Store(image, source, source.Below(2) == 0);
  }
}

void Session::ClearImage(ByteSource&, bool csharp) {
  (csharp ? ClearVelostrixUnCalibrationToolImage_CPU_csharp
          : ClearVelostrixUnCalibrationToolImage_CPU)(tool_);
  model_.images_set = 0;
  Check();
}

void Session::Release(ByteSource&, bool csharp) {
  (csharp ? ReleaseVelostrixUnCalibrationToolImage_CPU_csharp
          : ReleaseVelostrixUnCalibrationToolImage_CPU)(tool_);
  model_.DropBuffers();
  Check();
}

// Results of a finished run: of the right size and type, every byte readable.
void Session::CheckResults(const std::array<cv::Mat*, 8>& results) const {
  const bool resized = model_.downscale_on == 1;
  const cv::Size size(static_cast<int>(resized ? model_.roi_width : model_.cols),
                      static_cast<int>(resized ? model_.roi_height : model_.rows));
  for (int output = 0; output < VELOSTRIX_OUTPUT_COUNT; ++output) {
    if (!model_.IsOn(output)) continue;
    const cv::Mat& image = *results[static_cast<size_t>(output)];
    const int type = output == VELOSTRIX_OUTPUT_HEIGHT   ? CV_16UC1
                     : output == VELOSTRIX_OUTPUT_NORMAL ? CV_8UC3
                                                         : CV_8UC1;
    Expect(image.size() == size && image.type() == type, "a result has its size and type");
    unsigned sum = 0;
    for (int i = 0; i < image.rows; ++i) {
      const uint8_t* row = image.ptr(i);
      sum = std::accumulate(row, row + static_cast<size_t>(image.cols) * image.elemSize(), sum);
    }
    const volatile unsigned read = sum;
    static_cast<void>(read);
  }
}

template <RunKind run>
void Session::RunOnce(ByteSource& source, bool csharp) {
  const uint8_t missing = source.Below(16) == 0 ? source.Byte() : uint8_t{0};
  const bool shared = source.Below(32) == 0;
  const int32_t band = source.Int();
  std::array<cv::Mat, 8> images;
  std::array<cv::Mat*, 8> results = {};
  for (size_t i = 0; i < images.size(); ++i) {
    images[i] = cv::Mat(1, 1, CV_64FC1);
    results[i] = (missing >> i & 1) != 0 ? nullptr : &images[shared ? 0 : i];
  }
  const Outcome outcome = model_.RunOutcome(run, band, results);
  if (outcome != Outcome::kRefused) {
    const int64_t pixels = model_.rows * model_.cols;
    const int64_t iterations = model_.iteration_cap < 0 ? 2 * pixels : model_.iteration_cap;
    if (model_.downscale_on == 1 &&
        !IsAffordable(model_.roi_width * model_.roi_height, kMostResultPixels, huge_calls_)) {
      return;
    }
    if (model_.blur_radius * std::max<int64_t>(pixels, 100) > kMostBlurredPixels) return;
    if (model_.IsOn(VELOSTRIX_OUTPUT_HEIGHT) && iterations * pixels > kMostSolvedPixels) return;
  }
  const std::array<cv::Mat, 8> before = images;
  int32_t done = 0;
  bool threw = false;
  const auto call = [&](auto entry, auto... last) {
    const auto& r = results;
    done = entry(tool_, r[0], r[1], r[2], r[4], r[5], r[6], r[7], r[3], last...);
  };
  try {
    if (run == RunKind::kUncalibrated) {
      call(csharp ? RunVelostrixUnCalibration_CPU_csharp_uncali
                  : RunVelostrixUnCalibration_CPU_uncali);
    } else if (run == RunKind::kCalibrated) {
      call(csharp ? RunVelostrixUnCalibration_CPU_csharp_cali : RunVelostrixUnCalibration_CPU_cali);
    } else if (run == RunKind::kPartCols) {
      call(csharp ? RunVelostrixUnCalibration_CPU_partcols_csharp_uncali
                  : RunVelostrixUnCalibration_CPU_partcols_uncali,
           band);
    } else {
      call(csharp ? RunVelostrixUnCalibration_CPU_partrows_csharp_uncali
                  : RunVelostrixUnCalibration_CPU_partrows_uncali,
           band);
    }
  } catch (const cv::Exception&) {
    threw = true;
  }
  Expect(threw ? outcome == Outcome::kDoneOrThrows : (done == 1) == (outcome != Outcome::kRefused),
         "a run's result");
  for (size_t i = 0; i < images.size() && !shared; ++i) {
    const bool untouched = images[i].data == before[i].data;
    Expect(untouched || model_.IsOn(static_cast<int>(i)), "a result that is off is not touched");
    Expect(untouched || outcome != Outcome::kRefused, "a refused run touches no result");
  }
  if (done == 1) model_.images_set = 0;
  Check();
  if (done == 1 && !shared) CheckResults(results);
}

// What every function does without a tool, a record or images.
void CallWithNulls(ByteSource& source) {
  const auto nothing = [](auto... functions) { (functions(nullptr), ...); };
  nothing(
      InitialVelostrixUnCalibrationToolImage_CPU, InitialVelostrixUnCalibrationToolImage_CPU_csharp,
      ClearVelostrixUnCalibrationToolImage_CPU, ClearVelostrixUnCalibrationToolImage_CPU_csharp,
      ReleaseVelostrixUnCalibrationToolImage_CPU, ReleaseVelostrixUnCalibrationToolImage_CPU_csharp,
      DestroyImageArrayCPU, DestroyImageArrayCPU_csharp, DestroyVelostrixUnCalibrationToolPtr_CPU,
      DestroyVelostrixUnCalibrationToolPtr_CPU_csharp);
  cv::Mat image(2, 2, CV_8UC1, cv::Scalar(0));
  const UnCalibrationParam param = {};
  const ImageRecord record = {image.data, 2, 2, 2, 0, 1};
  const auto refused = [&](auto uncali, auto... last) {
    return uncali(nullptr, &image, &image, &image, &image, &image, &image, &image, &image,
                  last...) == 0;
  };
  Expect(!SetVelostrixUnCalibrationToolParam_CPU(nullptr, &param) &&
             !SetVelostrixUnCalibrationToolROI_CPU(nullptr, 0, 0, 1, 1) &&
             ClearVelostrixUnCalibrationToolROI_CPU(nullptr, 2, 2, 2) == 0 &&
             !SetVelostrixUnCalibrationToolImage_CPU(nullptr, &image) &&
             !SetVelostrixUnCalibrationToolImage_CPU_csharp(nullptr, &record) &&
             refused(RunVelostrixUnCalibration_CPU_uncali) &&
             refused(RunVelostrixUnCalibration_CPU_cali) &&
             refused(RunVelostrixUnCalibration_CPU_partcols_uncali, 10) &&
             refused(RunVelostrixUnCalibration_CPU_partrows_uncali, 10),
         "a null tool is refused");
  DestroyImageArrayCPU(new cv::Mat[static_cast<size_t>(source.Below(5))]);
}

// What a byte chooses, the usual calls twice.
constexpr void (Session::*kCalls[])(ByteSource&, bool) = {
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
    &Session::RunOnce<RunKind::kUncalibrated>,
    &Session::RunOnce<RunKind::kCalibrated>,
    &Session::RunOnce<RunKind::kPartCols>,
    &Session::RunOnce<RunKind::kPartRows>,
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
    const bool csharp = source.Below(2) != 0;
    const size_t kind = choice % 16;
    if (kind < std::size(kCalls)) {
      (session.get()->*kCalls[kind])(source, csharp);
    } else {
      CallWithNulls(source);
      session.reset();
    }
  }
}

}  // namespace velostrix::fuzz
