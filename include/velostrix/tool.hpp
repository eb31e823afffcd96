/// @file
/// The C++ interface: a tool that cannot leak or be called in the wrong order. Header-only, C++17.
/// @code{.cpp}
///   velostrix::Tool tool;
///   velostrix::Parameters parameters;          // everything on, readable defaults
///   parameters.region = cv::Rect(100, 50, 800, 600);
///   for (;;) {
///     const std::vector<cv::Mat> images = ...;  // 3 to 8, 8-bit, one channel, one size
///     const velostrix::Results results = tool.Reconstruct(images, parameters);
///     Inspect(results[velostrix::Output::kCurvature]);
///   }
/// @endcode
/// Images can also be set one by one, as the lamps fire:
/// @code{.cpp}
///   tool.Prepare(4, cv::Size(1280, 1024), parameters);
///   for (;;) {
///     for (int lamp = 0; lamp < 4; ++lamp) tool.SetImage(Grab(lamp));
///     for (const auto& [output, image] : tool.Run()) Show(velostrix::Name(output), image);
///   }
/// @endcode
/// A Tool keeps its working buffers (about 52 + 5 N bytes a pixel) from part to part and allocates
/// new ones only when the number of images, their size, the region or the scale changes. Use a Tool
/// from one thread at a time; separate Tools are independent.
///
/// A refused call throws velostrix::Error, whose text says what was refused and what is expected;
/// the Tool is unchanged. After velostrix::OutOfMemory, std::bad_alloc or cv::Exception, prepare it
/// again. The first Prepare of a Tool throws when library and headers differ in version.
///
/// Link Velostrix::Velostrix, which brings OpenCV's core along.
#pragma once

#include <array>
#include <bitset>
#include <cmath>
#include <cstdint>
#include <initializer_list>
#include <memory>
#include <opencv2/core.hpp>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "velostrix/uncalibration.h"
#include "velostrix/upright.hpp"
#include "velostrix/velostrix_host.h"
#include "velostrix/version.h"

namespace velostrix {

/// Says what was refused and what is expected.
class Error : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// Another call has to come first, such as Prepare.
class WrongState : public Error {
 public:
  using Error::Error;
};

/// The working buffers do not fit into memory.
class OutOfMemory : public Error {
 public:
  using Error::Error;
};

/// The result images of a run; uncalibration.h says what each shows.
enum class Output {
  kFactor = VELOSTRIX_OUTPUT_FACTOR,        ///< CV_8UC1
  kCurvature = VELOSTRIX_OUTPUT_CURVATURE,  ///< CV_8UC1
  kMagnitude = VELOSTRIX_OUTPUT_MAGNITUDE,  ///< CV_8UC1
  kHeight = VELOSTRIX_OUTPUT_HEIGHT,        ///< CV_16UC1
  kChannel0 = VELOSTRIX_OUTPUT_CHANNEL0,    ///< CV_8UC1
  kChannel1 = VELOSTRIX_OUTPUT_CHANNEL1,    ///< CV_8UC1
  kChannel2 = VELOSTRIX_OUTPUT_CHANNEL2,    ///< CV_8UC1
  kNormal = VELOSTRIX_OUTPUT_NORMAL         ///< CV_8UC3; also makes channels 0, 1 and 2
};

/// All outputs, in display order.
inline constexpr std::array<Output, VELOSTRIX_OUTPUT_COUNT> kAllOutputs = {
    Output::kFactor,   Output::kCurvature, Output::kMagnitude, Output::kChannel0,
    Output::kChannel1, Output::kChannel2,  Output::kNormal,    Output::kHeight};

/// What the normal image is merged from.
inline constexpr std::array<Output, 3> kChannels = {Output::kChannel0, Output::kChannel1,
                                                    Output::kChannel2};

/// "factor", "curvature", ...
constexpr const char* Name(Output output) {
  constexpr const char* kNames[] = {"factor",   "curvature", "magnitude", "height",
                                    "channel0", "channel1",  "channel2",  "normal"};
  return kNames[static_cast<int>(output)];
}

/// Which images a run makes.
class OutputSet {
 public:
  /// No output.
  OutputSet() = default;

  /// These outputs.
  OutputSet(std::initializer_list<Output> outputs) {
    for (const Output output : outputs) Add(output);
  }

  /// Every output.
  static OutputSet All() {
    OutputSet all;
    all.on_.set();
    return all;
  }

  void Add(Output output) { on_.set(static_cast<size_t>(output)); }       ///< adds an output
  void Remove(Output output) { on_.reset(static_cast<size_t>(output)); }  ///< removes an output
  /// Whether the output is in the set.
  bool Contains(Output output) const { return on_.test(static_cast<size_t>(output)); }
  bool IsEmpty() const { return on_.none(); }  ///< whether the set has no output

 private:
  std::bitset<VELOSTRIX_OUTPUT_COUNT> on_;
};

/// The outputs that a run makes for these: normal also makes channels 0, 1 and 2.
inline OutputSet WithChannels(OutputSet outputs) {
  if (outputs.Contains(Output::kNormal)) {
    for (const Output channel : kChannels) outputs.Add(channel);
  }
  return outputs;
}

/// How surface orientation is recovered.
enum class Run {
  kUncalibrated,  ///< lamps unknown, the whole frame at once
  kCalibrated,    ///< lamps in the fixed ring that follows from their number
  kPartRows,      ///< lamps unknown, band by band of rows
  kPartCols       ///< lamps unknown, strip by strip of columns
};

/// How the full-frame runs differentiate slopes: central is calmer, forward resolves finer lines.
enum class Difference { kCentral, kForward };

/// How results of uncalibrated runs are oriented, whose slopes may be mirrored, turned or negated.
/// As-is: unchanged. Upright: the orientation is measured on every part (upright.hpp) and corrected
/// by runs on flipped or transposed images. Height, channels and normal are then oriented as the
/// scene, as far as curl and Parameters::lamp determine it. The curvature comes from the mirrored
/// slopes where it shows more; curvatures in all directions then add up. Partial runs and runs with
/// `equalise` are not transposed. The calibrated run determines all signs and is left unchanged.
enum class Orientation { kAsIs, kUpright };

/// The names in recipes and on the command line.
///@{
inline constexpr std::array<const char*, 2> kOrientationNames = {"as-is", "upright"};
inline constexpr std::array<const char*, 4> kRunNames = {"uncali", "cali", "partrows", "partcols"};
inline constexpr std::array<const char*, 2> kDifferenceNames = {"central", "forward"};
///@}

/// What a run does. Number and size of the images come from the images themselves.
struct Parameters {
  Run run = Run::kUncalibrated;  ///< which of the four runs
  int band = 64;  ///< kPartRows, kPartCols: rows or columns of a piece; below 10 counts as 10
  OutputSet outputs = OutputSet::All();  ///< which images to make
  std::optional<cv::Rect> region;  ///< inside the images, at least 3 x 2 pixels; none = whole image
  double scale = 1.0;  ///< above 0, at most 1. Below 0.99 the tool works on images scaled by it,
                       ///< unless that would leave 10 pixels or fewer; results come in full size.
  bool equalise = false;  ///< even out the column brightness of every image first
  Difference difference = Difference::kCentral;  ///< ignored by the partial runs
  int blur_radius = 0;     ///< pixels, 0 to 32767: smoothing of curvature and magnitude
  int iteration_cap = 50;  ///< of the height; 0 = flat, negative = until it converges
  Orientation orientation = Orientation::kAsIs;  ///< results as they are, or upright
  std::optional<LampHint> lamp;  ///< kUpright: determines the sign of the height; may be absent

  /// Gains in grey levels per unit of the map. ChooseGains (auto_gain.hpp) finds them. No default
  /// suits channel 2 of the uncalibrated runs: its values are about 1 / sqrt(pixels).
  ///@{
  double factor_gain = 1.0;
  OutputScaling curvature = {128, 256.0};
  OutputScaling magnitude = {0, 256.0};
  std::array<OutputScaling, 3> channel = {{{128, 128.0}, {128, 128.0}, {128, 127.0}}};
  ///@}
};

/// Gain and offset of an output; null for factor (which has factor_gain), normal and height.
inline const OutputScaling* Scaling(const Parameters& parameters, Output output) {
  switch (output) {
    case Output::kCurvature:
      return &parameters.curvature;
    case Output::kMagnitude:
      return &parameters.magnitude;
    case Output::kChannel0:
      return &parameters.channel[0];
    case Output::kChannel1:
      return &parameters.channel[1];
    case Output::kChannel2:
      return &parameters.channel[2];
    default:
      return nullptr;
  }
}

/// The same, writable.
inline OutputScaling* Scaling(Parameters& parameters, Output output) {
  return const_cast<OutputScaling*>(Scaling(std::as_const(parameters), output));
}

/// Gain of an output; null for normal and height.
inline const double* Gain(const Parameters& parameters, Output output) {
  if (output == Output::kFactor) return &parameters.factor_gain;
  const OutputScaling* const scaling = Scaling(parameters, output);
  return scaling == nullptr ? nullptr : &scaling->gain;
}

/// The same, writable.
inline double* Gain(Parameters& parameters, Output output) {
  return const_cast<double*>(Gain(std::as_const(parameters), output));
}

/// The size of the planes for images of this size: the region's, scaled where the tool scales.
[[nodiscard]] inline cv::Size WorkingSize(cv::Size images, const Parameters& parameters) {
  const cv::Size size = parameters.region ? parameters.region->size() : images;
  const double width = size.width * parameters.scale;
  const double height = size.height * parameters.scale;
  const bool is_scaled = parameters.scale < VELOSTRIX_SCALED_BELOW &&
                         width > VELOSTRIX_LARGEST_SMALL_SIDE &&
                         height > VELOSTRIX_LARGEST_SMALL_SIDE;
  return is_scaled ? cv::Size(static_cast<int>(width), static_cast<int>(height)) : size;
}

namespace tool_detail {

/// Visits the images that are not empty, in the order of kAllOutputs.
class ResultIterator {
 public:
  ResultIterator(const cv::Mat* images, size_t place) : images_(images), place_(place) { Skip(); }

  std::pair<Output, const cv::Mat&> operator*() const { return {kAllOutputs[place_], Image()}; }
  ResultIterator& operator++() {
    ++place_;
    Skip();
    return *this;
  }
  bool operator!=(const ResultIterator& other) const { return place_ != other.place_; }

 private:
  const cv::Mat& Image() const { return images_[static_cast<size_t>(kAllOutputs[place_])]; }
  void Skip() {
    while (place_ < kAllOutputs.size() && Image().empty()) ++place_;
  }

  const cv::Mat* images_;
  size_t place_;
};

}  // namespace tool_detail

/// The result images of a run; those that were not requested are empty.
class Results {
 public:
  /// Iterates over the images that were made, in the order of kAllOutputs:
  /// `for (const auto& [output, image] : results)`.
  ///@{
  tool_detail::ResultIterator begin() const { return {images_.data(), 0}; }
  tool_detail::ResultIterator end() const { return {images_.data(), kAllOutputs.size()}; }
  ///@}

  /// The image of an output; empty when it was not requested.
  ///@{
  cv::Mat& operator[](Output output) { return images_[static_cast<size_t>(output)]; }
  const cv::Mat& operator[](Output output) const { return images_[static_cast<size_t>(output)]; }
  ///@}

 private:
  std::array<cv::Mat, VELOSTRIX_OUTPUT_COUNT> images_;
};

/// How long the calls of a reconstruction took, in milliseconds.
struct CallTimes {
  double parameters = 0.0;     ///< parameters and region
  double buffers = 0.0;        ///< allocating the buffers, perhaps in an earlier reconstruction
  std::vector<double> images;  ///< setting each image
  double run = 0.0;            ///< the run itself
};

/// Throws Error when the number of images is not 3 to 8.
inline void CheckCount(int64_t count);

/// Throws Error for parameters that fit no images.
inline void Check(const Parameters& parameters);

/// Throws Error when a reconstruction from `count` images of a size would be refused.
inline void Check(int count, cv::Size size, const Parameters& parameters);

/// Throws Error when a reconstruction from these images would be refused.
inline void Check(const std::vector<cv::Mat>& images, const Parameters& parameters);

/// Converts 16-bit samples to 8 bits: level = sample * 255 / white, rounded, at most 255. white is
/// 1 to 65535.
[[nodiscard]] inline cv::Mat ToEightBits(const cv::Mat& image, int white) {
  cv::Mat levels;
  image.convertTo(levels, CV_8U, 255.0 / white);
  return levels;
}

/// Throws Error when a 16-bit sample needs more than `bits` bits. Its text begins with the name.
inline void RequireBits(const cv::Mat& image, int bits, const std::string& name) {
  const int full = (1 << bits) - 1;
  double most = 0.0;
  cv::minMaxLoc(image.reshape(1), nullptr, &most);
  if (most > full) {
    throw Error(name + " has the value " + std::to_string(static_cast<int>(most)) + ", more than " +
                std::to_string(bits) + " bits can hold");
  }
}

/// Converts 16-bit samples, of which `bits` (8 to 16) are in use, to 8 bits: level = sample * 255 /
/// (2^bits - 1), rounded. Throws Error as RequireBits does.
[[nodiscard]] inline cv::Mat ToEightBits(const cv::Mat& image, int bits, const std::string& name) {
  RequireBits(image, bits, name);
  return ToEightBits(image, (1 << bits) - 1);
}

namespace tool_detail {

/// A tool of the module; every run is prepared again.
class ModuleTool {
 public:
  /// Prepares the tool for `count` images of a size and for the parameters, and forgets images set
  /// before. times: of the latest part.
  void Prepare(int count, cv::Size size, const Parameters& parameters, CallTimes& times);

  /// False: the buffers could not be allocated; the tool is as after construction.
  bool SetImage(const cv::Mat& image);

  void ClearImages() { ClearVelostrixUnCalibrationToolImage_CPU(handle_.get()); }

  /// Returns headers over the tool's memory; with scaling on, images that own their memory.
  Results Run(const Parameters& parameters);

 private:
  struct Deleter {
    void operator()(UnCalibrationTool* tool) const {
      ReleaseVelostrixUnCalibrationToolImage_CPU(tool);
      DestroyVelostrixUnCalibrationToolPtr_CPU(tool);
    }
  };

  /// What the buffers of the tool were allocated for.
  struct Geometry {
    int image_count;
    cv::Size size;
    cv::Rect region;
    bool has_region;
    double scale;

    bool operator==(const Geometry& other) const {
      return image_count == other.image_count && size == other.size && region == other.region &&
             has_region == other.has_region && scale == other.scale;
    }
  };

  std::unique_ptr<UnCalibrationTool, Deleter> handle_;  ///< null until the first part
  Geometry geometry_ = {};
};

inline double MillisecondsSince(int64_t start) {
  return static_cast<double>(cv::getTickCount() - start) / cv::getTickFrequency() * 1000.0;
}

}  // namespace tool_detail

/// Reconstructs part after part and keeps its buffers; see the top of this header.
class Tool {
 public:
  /// Runs on the images, in their order, and returns images that own their memory. known: what
  /// FindOrientation returned for these images and this run; saves measuring it again.
  [[nodiscard]] Results Reconstruct(const std::vector<cv::Mat>& images,
                                    const Parameters& parameters,
                                    const OrientationFound* known = nullptr) {
    return Copies(ReconstructViews(images, parameters, known));
  }

  /// The same without copies: the results may be headers over the tool's memory, valid until its
  /// next reconstruction or Prepare, or until it is destroyed. Moving the tool keeps them valid.
  [[nodiscard]] Results ReconstructViews(const std::vector<cv::Mat>& images,
                                         const Parameters& parameters,
                                         const OrientationFound* known = nullptr) & {
    Check(images, parameters);
    Prepare(static_cast<int>(images.size()), images.front().size(), parameters);
    if (IsMeasured(parameters)) {
      SetFrames(images, known == nullptr);
      images_set_ = count_;
    } else {
      for (const cv::Mat& image : images) SetImage(image);
    }
    Results results = RunOn(known);
    prepared_.reset();
    return results;
  }

  /// Measures the orientation of the slopes of a run on the images, unless the parameters leave it
  /// as it is. Prepare comes next.
  [[nodiscard]] OrientationFound FindOrientation(const std::vector<cv::Mat>& images,
                                                 const Parameters& parameters);

  /// From now on leaves out the pixels where the mask is 0. mask: CV_8UC1, as large as the images;
  /// empty: no pixel is left out. Runs take these pixels as black, so that they do not contribute
  /// to the factorisation; they do not count for gains; in the results they are 128, in the height
  /// 0. Prepare comes next.
  void SetMask(const cv::Mat& mask);

  /// The mask in force, 255 for pixels that count; empty: none.
  const cv::Mat& mask() const { return mask_; }

  /// Prepares the tool for `count` images of a size and for the parameters, and forgets images set
  /// before. Needed again after Reconstruct or ReconstructViews.
  void Prepare(int count, cv::Size size, const Parameters& parameters);

  /// Copies the next image into the tool: CV_8UC1, of the size that was prepared.
  void SetImage(const cv::Mat& image);

  /// Forgets the images set so far.
  void ClearImages() {
    run_.ClearImages();
    frames_.clear();
    images_set_ = 0;
  }

  /// Runs on the images, all of which must be set, and forgets them. Results as from Reconstruct.
  [[nodiscard]] Results Run() { return Copies(RunViews()); }

  /// The same with results as from ReconstructViews.
  [[nodiscard]] Results RunViews() & { return RunOn(nullptr); }

  /// How many images are set for the next run.
  int images_set() const { return images_set_; }

  /// The times of the latest part; sums where it took several runs.
  const CallTimes& times() const { return times_; }

  /// The orientation of the latest part's slopes, and how it was corrected.
  const OrientationFound& orientation() const { return orientation_; }

 private:
  static Results Copies(Results results) {
    for (const Output output : kAllOutputs) {
      const bool is_view = results[output].u == nullptr;
      if (is_view) results[output] = results[output].clone();
    }
    return results;
  }

  void RequirePrepared() const {
    if (!prepared_) throw WrongState("not prepared for images; prepare first");
  }

  /// Whether the orientation matters: it is to be corrected, and some output shows it.
  static bool IsMeasured(const Parameters& p) {
    const OutputSet outputs = WithChannels(p.outputs);
    const bool shows_it =
        outputs.Contains(Output::kHeight) || outputs.Contains(Output::kCurvature) ||
        outputs.Contains(Output::kMagnitude) || outputs.Contains(Output::kChannel0) ||
        outputs.Contains(Output::kChannel1);
    return p.orientation == Orientation::kUpright && p.run != velostrix::Run::kCalibrated &&
           shows_it;
  }

  static Parameters PilotOf(Parameters p);
  cv::Mat Masked(const cv::Mat& image) const;
  void MakeNeutral(Results& results) const;
  void SetOne(tool_detail::ModuleTool& tool, const cv::Mat& image, size_t index);
  void SetFrames(const std::vector<cv::Mat>& images, bool for_pilot);
  Results RunOnce(tool_detail::ModuleTool& tool, const Parameters& parameters);
  Results RunInOrder(PixelOrder order, Parameters parameters);
  OrientationFound Measure(const Results& pilot, PixelOrder order);
  OrientationFound MeasureFrames();
  Results RunUpright(const OrientationFound& found);
  Results RunOn(const OrientationFound* known);

  tool_detail::ModuleTool run_;
  tool_detail::ModuleTool transposed_run_;  ///< on transposed images, whose buffers differ
  std::optional<Parameters> prepared_;
  int count_ = 0;  ///< images, and their size, as prepared
  cv::Size size_;
  int images_set_ = 0;
  cv::Mat mask_;
  std::vector<cv::Mat> frames_;  ///< images set, kept where another run may need them
  CallTimes times_;
  OrientationFound orientation_;
};

namespace tool_detail {

/// Throws Error when the loaded library does not fit the headers of the application.
inline void CheckLibrary() {
  VelostrixMessage message = {};
  const VelostrixStatus status =
      VelostrixCheckVersion(VELOSTRIX_VERSION_MAJOR, VELOSTRIX_VERSION_MINOR, &message);
  if (status != VELOSTRIX_OK) throw Error(message.text);
}

inline std::string Text(cv::Size size) {
  return std::to_string(size.width) + " x " + std::to_string(size.height) + " pixels";
}

inline UnCalibrationParam Record(int image_count, cv::Size size, const Parameters& p) {
  UnCalibrationParam record = {};
  record.image_count = image_count;
  record.width = size.width;
  record.height = size.height;
  record.row_step = size.width;
  for (const Output output : kAllOutputs) {
    record.output_enable[static_cast<int>(output)] = p.outputs.Contains(output) ? 1 : 0;
  }
  record.scale = p.scale;
  record.difference_mode = p.difference == Difference::kForward ? 1 : 0;
  record.blur_radius = p.blur_radius;
  record.iteration_cap = p.iteration_cap;
  record.factor_gain = p.factor_gain;
  record.curvature = p.curvature;
  record.magnitude = p.magnitude;
  for (size_t k = 0; k < p.channel.size(); ++k) record.channel[k] = p.channel[k];
  record.equalise_on = p.equalise ? 1 : 0;
  return record;
}

inline void CheckImage(const cv::Mat& image, const std::string& name) {
  if (image.empty() || image.dims != 2) throw Error(name + " is empty");
  if (image.type() != CV_8UC1) {
    throw Error(name + " is " + cv::typeToString(image.type()) + "; expected CV_8UC1");
  }
}

/// `expected`: of all images; `why`: of it.
inline void CheckImage(const cv::Mat& image, int index, cv::Size expected, const char* why) {
  const std::string name = "image " + std::to_string(index + 1);
  CheckImage(image, name);
  if (image.size() != expected) {
    throw Error(name + " has " + Text(image.size()) + ", " + why + ' ' + Text(expected) +
                "; expected one size");
  }
}

}  // namespace tool_detail

inline void tool_detail::ModuleTool::Prepare(int count, cv::Size size, const Parameters& parameters,
                                             CallTimes& times) {
  // Scaling is set with a region, which fixes the working size without new buffers.
  const bool has_region = parameters.region.has_value() || parameters.scale < 1.0;
  const cv::Rect region = parameters.region.value_or(cv::Rect({0, 0}, size));
  const Geometry geometry = {count, size, region, has_region, parameters.scale};
  const bool is_new = handle_ == nullptr || !(geometry == geometry_);

  int64_t start = cv::getTickCount();
  if (is_new) {
    // A new tool: later parameters do not switch scaling off.
    handle_.reset();
    handle_.reset(CreateVelostrixUnCalibrationToolPtr_CPU(nullptr));
    geometry_ = geometry;
    times.buffers = MillisecondsSince(start);
    start = cv::getTickCount();
  }
  const UnCalibrationParam record = Record(count, size, parameters);
  SetVelostrixUnCalibrationToolParam_CPU(handle_.get(), &record);
  if (has_region) {
    SetVelostrixUnCalibrationToolROI_CPU(handle_.get(), region.x, region.y, region.br().x - 1,
                                         region.br().y - 1);
  }
  times.parameters = MillisecondsSince(start);
  if (is_new) {
    start = cv::getTickCount();
    InitialVelostrixUnCalibrationToolImage_CPU(handle_.get());
    times.buffers += MillisecondsSince(start);
  }
  ClearImages();
}

inline bool tool_detail::ModuleTool::SetImage(const cv::Mat& image) {
  if (SetVelostrixUnCalibrationToolImage_CPU(handle_.get(), &image)) return true;
  handle_.reset();
  return false;
}

inline Results tool_detail::ModuleTool::Run(const Parameters& parameters) {
  Results r;
  const auto run = [&](auto function, auto... band) {
    return function(handle_.get(), &r[Output::kFactor], &r[Output::kCurvature],
                    &r[Output::kMagnitude], &r[Output::kChannel0], &r[Output::kChannel1],
                    &r[Output::kChannel2], &r[Output::kNormal], &r[Output::kHeight], band...);
  };
  int32_t done = 0;
  switch (parameters.run) {
    case velostrix::Run::kUncalibrated:
      done = run(RunVelostrixUnCalibration_CPU_uncali);
      break;
    case velostrix::Run::kCalibrated:
      done = run(RunVelostrixUnCalibration_CPU_cali);
      break;
    case velostrix::Run::kPartRows:
      done = run(RunVelostrixUnCalibration_CPU_partrows_uncali, parameters.band);
      break;
    case velostrix::Run::kPartCols:
      done = run(RunVelostrixUnCalibration_CPU_partcols_uncali, parameters.band);
      break;
  }
  if (done != 1) throw std::logic_error("the run was refused by the module");
  return r;
}

inline void Tool::Prepare(int count, cv::Size size, const Parameters& parameters) {
  if (count_ == 0) tool_detail::CheckLibrary();
  Check(count, size, parameters);
  if (!mask_.empty() && mask_.size() != size) {
    throw Error("the mask has " + tool_detail::Text(mask_.size()) + ", the images have " +
                tool_detail::Text(size) + "; expected one size");
  }
  prepared_.reset();
  frames_.clear();
  images_set_ = 0;
  count_ = count;
  size_ = size;
  run_.Prepare(count, size, IsMeasured(parameters) ? PilotOf(parameters) : parameters, times_);
  prepared_ = parameters;
}

inline void Tool::SetImage(const cv::Mat& image) {
  RequirePrepared();
  if (images_set_ == count_) {
    throw WrongState("all " + std::to_string(images_set_) + " images are set; run comes next");
  }
  tool_detail::CheckImage(image, images_set_, size_, "prepared for");
  if (images_set_ == 0) {
    times_.images.clear();
    if (IsMeasured(*prepared_)) run_.Prepare(count_, size_, PilotOf(*prepared_), times_);
  }
  if (IsMeasured(*prepared_)) frames_.push_back(Masked(image).clone());
  SetOne(run_, Masked(image), static_cast<size_t>(images_set_));
  ++images_set_;
}

/// Sets image `index` of a run.
inline void Tool::SetOne(tool_detail::ModuleTool& tool, const cv::Mat& image, size_t index) {
  const int64_t start = cv::getTickCount();
  if (!tool.SetImage(image)) {
    prepared_.reset();
    frames_.clear();
    images_set_ = 0;
    throw OutOfMemory("the working buffers for " + std::to_string(count_) + " images of " +
                      tool_detail::Text(size_) +
                      " could not be allocated; use a region or a smaller scale");
  }
  times_.images.resize(std::max(times_.images.size(), index + 1));
  times_.images[index] += tool_detail::MillisecondsSince(start);
}

/// The parameters of the first run of a part, from which the orientation is measured.
inline Parameters Tool::PilotOf(Parameters p) {
  p.outputs = {Output::kChannel0, Output::kChannel1};
  p.channel[0] = p.channel[1] = {upright_detail::kPilotOffset, upright_detail::kPilotGain};
  return p;
}

inline void Tool::SetMask(const cv::Mat& mask) {
  if (!mask.empty()) tool_detail::CheckImage(mask, "the mask");
  if (!mask.empty() && cv::countNonZero(mask) == 0) {
    throw Error("the mask leaves no pixel; expected some that are not 0");
  }
  mask_ = mask.empty() ? cv::Mat() : cv::Mat(mask != 0);
  ClearImages();
  prepared_.reset();
}

inline cv::Mat Tool::Masked(const cv::Mat& image) const {
  if (mask_.empty()) return image;
  cv::Mat masked;
  cv::bitwise_and(image, mask_, masked);
  return masked;
}

inline void Tool::MakeNeutral(Results& results) const {
  if (mask_.empty()) return;
  constexpr double kNeutral = 128.0;
  const cv::Mat left_out = (prepared_->region ? mask_(*prepared_->region) : mask_) == 0;
  for (const Output output : kAllOutputs) {
    cv::Mat& image = results[output];
    if (image.empty()) continue;
    image.setTo(output == Output::kHeight ? cv::Scalar(0.0) : cv::Scalar::all(kNeutral), left_out);
  }
}

inline void Tool::SetFrames(const std::vector<cv::Mat>& images, bool for_pilot) {
  times_.images.clear();
  frames_.clear();
  for (const cv::Mat& image : images) frames_.push_back(Masked(image));
  for (size_t k = 0; for_pilot && k < images.size(); ++k) SetOne(run_, frames_[k], k);
}

inline Results Tool::RunOnce(tool_detail::ModuleTool& tool, const Parameters& parameters) {
  const int64_t start = cv::getTickCount();
  Results results = tool.Run(parameters);
  times_.run += tool_detail::MillisecondsSince(start);
  return results;
}

/// Runs on the frames in this order of pixels; the results keep that order.
inline Results Tool::RunInOrder(PixelOrder order, Parameters parameters) {
  if (parameters.region) parameters.region = order.Ordered(*parameters.region, size_);
  tool_detail::ModuleTool& tool = order.is_transposed ? transposed_run_ : run_;
  CallTimes times;
  tool.Prepare(count_, order.Ordered(size_), parameters, times);
  times_.parameters += times.parameters;
  times_.buffers += times.buffers;
  for (size_t k = 0; k < frames_.size(); ++k) SetOne(tool, order.Ordered(frames_[k]), k);
  return RunOnce(tool, parameters);
}

inline OrientationFound Tool::Measure(const Results& pilot, PixelOrder order) {
  std::vector<cv::Mat> seen;
  seen.reserve(frames_.size());
  for (const cv::Mat& frame : frames_) {
    const cv::Mat image = prepared_->region ? frame(*prepared_->region) : frame;
    seen.push_back(order.Ordered(image));
  }
  std::optional<LampHint> lamp = prepared_->lamp;
  if (lamp && order.is_flipped) lamp->degrees = -lamp->degrees;
  const bool may_turn = prepared_->run == velostrix::Run::kUncalibrated && !prepared_->equalise;
  cv::Mat mask;
  if (!mask_.empty()) mask = order.Ordered(prepared_->region ? mask_(*prepared_->region) : mask_);
  return MeasureOrientation(pilot[Output::kChannel0], pilot[Output::kChannel1], seen, lamp,
                            may_turn, mask);
}

/// Measures the orientation from a pilot run, whose images are set.
inline OrientationFound Tool::MeasureFrames() {
  const Parameters pilot = PilotOf(*prepared_);
  const bool is_partial = prepared_->run != velostrix::Run::kUncalibrated;
  OrientationFound found = Measure(RunOnce(run_, pilot), {});
  if (!is_partial) return found;
  found.has_mirrored_curvature = false;
  if (!found.is_mirrored) return found;
  // The signs of pieces depend on the order of their pixels: only the flipped run shows its signs.
  constexpr PixelOrder kFlipped = {false, true};
  const OrientationFound flipped = Measure(RunInOrder(kFlipped, pilot), kFlipped);
  const bool is_better = flipped.curl_as_is >= 0.0 && flipped.curl_as_is < found.curl_as_is;
  found.is_mirrored = is_better;
  if (is_better) {
    found.is_inverted = flipped.is_inverted;
    found.turn = -flipped.turn;
  }
  return found;
}

/// Makes the runs that give upright results.
inline Results Tool::RunUpright(const OrientationFound& found) {
  const Parameters& wanted = *prepared_;
  const OutputSet outputs = WithChannels(wanted.outputs);
  const double sign = found.is_inverted ? -1.0 : 1.0;
  cv::Mat curvature;
  const bool is_mirrored = found.has_mirrored_curvature && outputs.Contains(Output::kCurvature);
  if (is_mirrored) {
    Parameters p = wanted;
    p.outputs = {Output::kCurvature};
    p.curvature.gain *= sign;
    const PixelOrder order = MirroredOrder(found);
    curvature = order.AsSeen(RunInOrder(order, p)[Output::kCurvature]);
    if (order.IsAsIs()) curvature = curvature.clone();  // the next run writes there
  }
  const PixelOrder order = UprightOrder(found);
  Parameters p = wanted;
  p.outputs = outputs;
  p.outputs.Remove(Output::kNormal);
  if (is_mirrored) p.outputs.Remove(Output::kCurvature);
  p.curvature.gain *= found.is_turned ? -sign : sign;
  if (found.is_turned) std::swap(p.channel[0], p.channel[1]);
  if (outputs.Contains(Output::kChannel0) != outputs.Contains(Output::kChannel1)) {
    p.outputs.Add(Output::kChannel0);
    p.outputs.Add(Output::kChannel1);
  }
  // Signs of the run's channels 0 and 1: see PixelOrder.
  p.channel[0].gain *= found.is_turned ? -sign : sign;
  p.channel[1].gain *= order.is_flipped == found.is_turned ? sign : -sign;
  Results run;
  if (!p.outputs.IsEmpty()) run = RunInOrder(order, p);
  if (found.is_turned) std::swap(run[Output::kChannel0], run[Output::kChannel1]);

  Results results;
  for (const Output output : kAllOutputs) {
    if (outputs.Contains(output) && !run[output].empty()) {
      results[output] = order.AsSeen(run[output]);
    }
  }
  if (is_mirrored) results[Output::kCurvature] = curvature;
  if (outputs.Contains(Output::kNormal)) {
    std::vector<cv::Mat> channels;
    channels.reserve(kChannels.size());
    for (const Output channel : kChannels) channels.push_back(results[channel]);
    cv::merge(channels, results[Output::kNormal]);
  }
  cv::Mat& height = results[Output::kHeight];
  const bool is_flat = height.empty() || cv::countNonZero(height) == 0;
  if (found.is_inverted && !is_flat) cv::subtract(cv::Scalar(65535), height, height);
  return results;
}

inline Results Tool::RunOn(const OrientationFound* known) {
  RequirePrepared();
  if (images_set_ != count_) {
    throw WrongState(std::to_string(images_set_) + " of " + std::to_string(count_) +
                     " images are set; set the others");
  }
  times_.run = 0.0;
  orientation_ = {};
  Results results;
  if (IsMeasured(*prepared_)) {
    orientation_ = known != nullptr ? *known : MeasureFrames();
    results = RunUpright(orientation_);
  } else {
    results = RunOnce(run_, *prepared_);
  }
  ClearImages();
  MakeNeutral(results);
  return results;
}

inline OrientationFound Tool::FindOrientation(const std::vector<cv::Mat>& images,
                                              const Parameters& parameters) {
  Check(images, parameters);
  if (!IsMeasured(parameters)) return {};
  Prepare(static_cast<int>(images.size()), images.front().size(), parameters);
  SetFrames(images, true);
  const OrientationFound found = MeasureFrames();
  ClearImages();
  prepared_.reset();
  return found;
}

inline void Check(const Parameters& parameters) {
  if (const auto& region = parameters.region) {
    if (region->width < VELOSTRIX_SMALLEST_WIDTH || region->height < VELOSTRIX_SMALLEST_HEIGHT) {
      throw Error("the region has " + tool_detail::Text(region->size()) +
                  "; expected at least 3 x 2");
    }
  }
  if (!(parameters.scale > 0.0 && parameters.scale <= 1.0)) {
    throw Error("scale " + std::to_string(parameters.scale) + "; expected above 0, at most 1");
  }
  if (const auto& lamp = parameters.lamp) {
    const std::string name = "lamp " + std::to_string(lamp->image);
    if (lamp->image < 0 || lamp->image >= VELOSTRIX_MOST_IMAGES) {
      throw Error(name + "; expected 0 to " + std::to_string(VELOSTRIX_MOST_IMAGES - 1));
    }
    if (!std::isfinite(lamp->degrees)) throw Error(name + " is not at a number of degrees");
  }
  if (parameters.blur_radius < 0 || parameters.blur_radius > VELOSTRIX_LARGEST_BLUR_RADIUS) {
    throw Error("blur_radius " + std::to_string(parameters.blur_radius) + "; expected 0 to " +
                std::to_string(VELOSTRIX_LARGEST_BLUR_RADIUS));
  }
  for (const Output output : kAllOutputs) {
    const double* const gain = Gain(parameters, output);
    if (gain != nullptr && !std::isfinite(*gain)) {
      throw Error(std::string("the gain of ") + Name(output) + " is not finite; expected a number");
    }
  }
}

inline void CheckCount(int64_t count) {
  if (count >= VELOSTRIX_FEWEST_IMAGES && count <= VELOSTRIX_MOST_IMAGES) return;
  throw Error(std::to_string(count) + " images given; expected 3 to 8");
}

inline void Check(int count, cv::Size size, const Parameters& parameters) {
  CheckCount(count);
  if (size.width < VELOSTRIX_SMALLEST_WIDTH || size.height < VELOSTRIX_SMALLEST_HEIGHT) {
    throw Error("the images have " + tool_detail::Text(size) + "; expected at least 3 x 2");
  }
  const cv::Rect region = parameters.region.value_or(cv::Rect({0, 0}, size));
  if (region.x < 0 || region.y < 0 || region.width < 0 || region.height < 0 ||
      region.width > size.width - region.x || region.height > size.height - region.y) {
    throw Error("the region of " + tool_detail::Text(region.size()) + " at (" +
                std::to_string(region.x) + ", " + std::to_string(region.y) +
                ") is not inside the images of " + tool_detail::Text(size));
  }
  if (parameters.lamp && parameters.lamp->image >= count) {
    throw Error("lamp " + std::to_string(parameters.lamp->image) + "; expected one of the " +
                std::to_string(count) + " images, counted from 0");
  }
  Check(parameters);
}

inline void Check(const std::vector<cv::Mat>& images, const Parameters& parameters) {
  CheckCount(static_cast<int64_t>(images.size()));
  const cv::Size size = images.front().size();
  for (size_t k = 0; k < images.size(); ++k) {
    tool_detail::CheckImage(images[k], static_cast<int>(k), size, "image 1 has");
  }
  Check(static_cast<int>(images.size()), size, parameters);
}

}  // namespace velostrix
