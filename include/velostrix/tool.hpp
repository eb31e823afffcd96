// C++ hosts: the tool as an object that cannot leak or be used in the wrong order. Header-only,
// C++17.
//
//   velostrix::Tool tool;
//   velostrix::Parameters parameters;          // everything on, readable defaults
//   parameters.region = cv::Rect(100, 50, 800, 600);
//   for (;;) {
//     const std::vector<cv::Mat> images = ...;  // 3 to 8, 8-bit, one channel, one size
//     const velostrix::Results results = tool.Reconstruct(images, parameters);
//     Inspect(results[velostrix::Output::kCurvature]);
//   }
//
// As lamps fire one after the other, images can be set one by one:
//
//   tool.Prepare(4, cv::Size(1280, 1024), parameters);
//   for (;;) {
//     for (int lamp = 0; lamp < 4; ++lamp) tool.SetImage(Grab(lamp));
//     for (const auto& [output, image] : tool.Run()) Show(velostrix::Name(output), image);
//   }
//
// A Tool keeps its working buffers (about 52 + 5 N bytes a pixel) from part to part and allocates
// anew only when the number of images, their size, the region or the scale changes. One Tool is
// used by one thread at a time; separate Tools are independent.
//
// What cannot be done is thrown as velostrix::Error, whose text says what was refused and what is
// expected; the Tool is then as it was. After velostrix::OutOfMemory, std::bad_alloc and
// cv::Exception it has to be prepared again. A library of another version than these headers is
// refused when the first Tool is prepared.
//
// Link Velostrix::Velostrix, which brings OpenCV's core along.
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
#include "velostrix/velostrix_host.h"
#include "velostrix/version.h"

namespace velostrix {

// Says what was refused and what is expected.
class Error : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// The call has to wait for another one, such as Prepare.
class WrongState : public Error {
 public:
  using Error::Error;
};

// The working buffers do not fit into memory.
class OutOfMemory : public Error {
 public:
  using Error::Error;
};

// The result images of a run; uncalibration.h says what each shows.
enum class Output {
  kFactor = VELOSTRIX_OUTPUT_FACTOR,        // CV_8UC1
  kCurvature = VELOSTRIX_OUTPUT_CURVATURE,  // CV_8UC1
  kMagnitude = VELOSTRIX_OUTPUT_MAGNITUDE,  // CV_8UC1
  kHeight = VELOSTRIX_OUTPUT_HEIGHT,        // CV_16UC1
  kChannel0 = VELOSTRIX_OUTPUT_CHANNEL0,    // CV_8UC1
  kChannel1 = VELOSTRIX_OUTPUT_CHANNEL1,    // CV_8UC1
  kChannel2 = VELOSTRIX_OUTPUT_CHANNEL2,    // CV_8UC1
  kNormal = VELOSTRIX_OUTPUT_NORMAL         // CV_8UC3; brings channels 0, 1 and 2 with it
};

// In the order in which they are shown.
inline constexpr std::array<Output, VELOSTRIX_OUTPUT_COUNT> kAllOutputs = {
    Output::kFactor,   Output::kCurvature, Output::kMagnitude, Output::kChannel0,
    Output::kChannel1, Output::kChannel2,  Output::kNormal,    Output::kHeight};

// What the normal image is merged from.
inline constexpr std::array<Output, 3> kChannels = {Output::kChannel0, Output::kChannel1,
                                                    Output::kChannel2};

// "factor", "curvature", ...
constexpr const char* Name(Output output) {
  constexpr const char* kNames[] = {"factor",   "curvature", "magnitude", "height",
                                    "channel0", "channel1",  "channel2",  "normal"};
  return kNames[static_cast<int>(output)];
}

// Which images a run makes.
class OutputSet {
 public:
  // No output.
  OutputSet() = default;

  // The outputs that are named.
  OutputSet(std::initializer_list<Output> outputs) {
    for (const Output output : outputs) Add(output);
  }

  // Every output.
  static OutputSet All() {
    OutputSet all;
    all.on_.set();
    return all;
  }

  // Puts an output in, takes it out, tells whether it is in, and whether none is.
  void Add(Output output) { on_.set(static_cast<size_t>(output)); }
  void Remove(Output output) { on_.reset(static_cast<size_t>(output)); }
  bool Contains(Output output) const { return on_.test(static_cast<size_t>(output)); }
  bool IsEmpty() const { return on_.none(); }

 private:
  std::bitset<VELOSTRIX_OUTPUT_COUNT> on_;
};

// The outputs that a run makes when it is asked for these: normal brings the channels.
inline OutputSet WithChannels(OutputSet outputs) {
  if (outputs.Contains(Output::kNormal)) {
    for (const Output channel : kChannels) outputs.Add(channel);
  }
  return outputs;
}

// How surface orientation is recovered.
enum class Run {
  kUncalibrated,  // lamps unknown, the whole frame at once
  kCalibrated,    // lamps in the fixed ring that follows from their number
  kPartRows,      // lamps unknown, band by band of rows
  kPartCols       // lamps unknown, strip by strip of columns
};

// How slopes are differentiated in the full-frame runs: central is calmer, forward resolves finer
// lines.
enum class Difference { kCentral, kForward };

// What recipes and the command line call them.
inline constexpr std::array<const char*, 4> kRunNames = {"uncali", "cali", "partrows", "partcols"};
inline constexpr std::array<const char*, 2> kDifferenceNames = {"central", "forward"};

// What a run does. Number and size of the images come from the images themselves.
struct Parameters {
  Run run = Run::kUncalibrated;  // which of the four runs
  int band = 64;  // kPartRows, kPartCols: rows or columns of a piece; below 10 counts as 10
  OutputSet outputs = OutputSet::All();  // which images to make
  std::optional<cv::Rect> region;  // inside the images, at least 3 x 2 pixels; none = whole image
  double scale = 1.0;     // above 0, at most 1. Below 0.99 the tool works on images scaled by it,
                          // unless that would leave 10 pixels or fewer; results come in full size.
  bool equalise = false;  // even out the column brightness of every image first
  Difference difference = Difference::kCentral;  // ignored by the partial runs
  int blur_radius = 0;     // pixels, 0 to 32767: smoothing of curvature and magnitude
  int iteration_cap = 50;  // of the height; 0 = flat, negative = as many as it takes

  // Gains in grey levels per unit of the map. ChooseGains (auto_gain.hpp) finds them; channel 2 of
  // the uncalibrated runs has no default that would suit, as its values are about 1 / sqrt(pixels).
  double factor_gain = 1.0;
  OutputScaling curvature = {128, 256.0};
  OutputScaling magnitude = {0, 256.0};
  std::array<OutputScaling, 3> channel = {{{128, 128.0}, {128, 128.0}, {128, 127.0}}};
};

// Gain and offset of an output; null for the factor image (factor_gain), normal and height.
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

// The same, to be changed.
inline OutputScaling* Scaling(Parameters& parameters, Output output) {
  return const_cast<OutputScaling*>(Scaling(std::as_const(parameters), output));
}

// Gain of an output; null for normal and height.
inline const double* Gain(const Parameters& parameters, Output output) {
  if (output == Output::kFactor) return &parameters.factor_gain;
  const OutputScaling* const scaling = Scaling(parameters, output);
  return scaling == nullptr ? nullptr : &scaling->gain;
}

// The same, to be changed.
inline double* Gain(Parameters& parameters, Output output) {
  return const_cast<double*>(Gain(std::as_const(parameters), output));
}

// The size at which the tool works on images of a size: that of the region, scaled if it is to be.
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

// Over the images that are not empty, by the order of kAllOutputs.
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

// The images that a run made; those that were not asked for are empty.
class Results {
 public:
  // Over those that were made, in the order of kAllOutputs:
  // `for (const auto& [output, image] : results)`.
  tool_detail::ResultIterator begin() const { return {images_.data(), 0}; }
  tool_detail::ResultIterator end() const { return {images_.data(), kAllOutputs.size()}; }

  // The image of an output, empty when it was not asked for.
  cv::Mat& operator[](Output output) { return images_[static_cast<size_t>(output)]; }
  const cv::Mat& operator[](Output output) const { return images_[static_cast<size_t>(output)]; }

 private:
  std::array<cv::Mat, VELOSTRIX_OUTPUT_COUNT> images_;
};

// How long the calls of a reconstruction took, in milliseconds.
struct CallTimes {
  double parameters = 0.0;     // parameters and region
  double buffers = 0.0;        // allocating those in use, perhaps by an earlier reconstruction
  std::vector<double> images;  // setting each image
  double run = 0.0;            // the run itself
};

// Throw Error for a number of images that no run takes, and when a reconstruction with these
// parameters would be refused: of any images, of `count` images of a size, of these images.
inline void CheckCount(int64_t count);
inline void Check(const Parameters& parameters);
inline void Check(int count, cv::Size size, const Parameters& parameters);
inline void Check(const std::vector<cv::Mat>& images, const Parameters& parameters);

// 16-bit samples, of which `bits` (8 to 16) are in use, as 8-bit ones: level = sample * 255 /
// (2^bits - 1), rounded. Throws Error, which begins with the name, when a sample needs more bits.
[[nodiscard]] inline cv::Mat ToEightBits(const cv::Mat& image, int bits, const std::string& name) {
  const int full = (1 << bits) - 1;
  double most = 0.0;
  cv::minMaxLoc(image.reshape(1), nullptr, &most);
  if (most > full) {
    throw Error(name + " has the value " + std::to_string(static_cast<int>(most)) + ", more than " +
                std::to_string(bits) + " bits can hold");
  }
  cv::Mat levels;
  image.convertTo(levels, CV_8U, 255.0 / full);
  return levels;
}

// A tool of the module, its buffers kept from part to part; see the top of this header.
class Tool {
 public:
  // Runs on the images, in their order, and returns images that own their memory.
  [[nodiscard]] Results Reconstruct(const std::vector<cv::Mat>& images,
                                    const Parameters& parameters) {
    return Copies(ReconstructViews(images, parameters));
  }

  // The same without the copy: the results may be headers over the tool's memory, valid until the
  // next reconstruction or preparation by this tool and no longer than the tool itself (moving the
  // tool keeps them).
  [[nodiscard]] Results ReconstructViews(const std::vector<cv::Mat>& images,
                                         const Parameters& parameters) & {
    Check(images, parameters);
    Prepare(static_cast<int>(images.size()), images.front().size(), parameters);
    for (const cv::Mat& image : images) SetImage(image);
    Results results = RunViews();
    prepared_.reset();
    return results;
  }

  // Brings the tool to `count` images of a size and to the parameters, and forgets images set
  // before. To be called again after a reconstruction of images all at once.
  void Prepare(int count, cv::Size size, const Parameters& parameters);

  // Copies the next image into the tool: CV_8UC1, of the size that was prepared.
  void SetImage(const cv::Mat& image);

  // Forgets the images set so far.
  void ClearImages() {
    ClearVelostrixUnCalibrationToolImage_CPU(handle_.get());
    images_set_ = 0;
  }

  // Runs on the images that were set, all of those prepared for, and forgets them. Results as those
  // of Reconstruct.
  [[nodiscard]] Results Run() { return Copies(RunViews()); }

  // The same with results as those of ReconstructViews.
  [[nodiscard]] Results RunViews() &;

  // How many images are set and not yet run on.
  int images_set() const { return images_set_; }

  // Of the latest part.
  const CallTimes& times() const { return times_; }

 private:
  struct Deleter {
    void operator()(UnCalibrationTool* tool) const {
      ReleaseVelostrixUnCalibrationToolImage_CPU(tool);
      DestroyVelostrixUnCalibrationToolPtr_CPU(tool);
    }
  };

  // What the buffers of the tool were allocated for.
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

  static Results Copies(Results results) {
    for (const Output output : kAllOutputs) {
      const bool is_view = results[output].u == nullptr;
      if (is_view) results[output] = results[output].clone();
    }
    return results;
  }

  void RequirePrepared() const {
    if (!handle_ || !prepared_) throw WrongState("not prepared for images; prepare first");
  }

  static double MillisecondsSince(int64_t start) {
    return static_cast<double>(cv::getTickCount() - start) / cv::getTickFrequency() * 1000.0;
  }

  static UnCalibrationParam Record(int image_count, cv::Size size, const Parameters& p) {
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

  std::unique_ptr<UnCalibrationTool, Deleter> handle_;  // null until the first reconstruction
  Geometry geometry_ = {};
  std::optional<Parameters> prepared_;
  int images_set_ = 0;
  CallTimes times_;
};

namespace tool_detail {

// Throws Error when the library that is loaded does not fit the headers that the host was built
// with.
inline void CheckLibrary() {
  VelostrixMessage message = {};
  const VelostrixStatus status =
      VelostrixCheckVersion(VELOSTRIX_VERSION_MAJOR, VELOSTRIX_VERSION_MINOR, &message);
  if (status != VELOSTRIX_OK) throw Error(message.text);
}

inline std::string Text(cv::Size size) {
  return std::to_string(size.width) + " x " + std::to_string(size.height) + " pixels";
}

// `expected`: of all images; `why`: of it.
inline void CheckImage(const cv::Mat& image, int index, cv::Size expected, const char* why) {
  const std::string name = "image " + std::to_string(index + 1);
  if (image.empty() || image.dims != 2) throw Error(name + " is empty");
  if (image.type() != CV_8UC1) {
    throw Error(name + " is " + cv::typeToString(image.type()) + "; expected CV_8UC1");
  }
  if (image.size() != expected) {
    throw Error(name + " has " + Text(image.size()) + ", " + why + ' ' + Text(expected) +
                "; expected one size");
  }
}

}  // namespace tool_detail

inline void Tool::Prepare(int count, cv::Size size, const Parameters& parameters) {
  if (!handle_) tool_detail::CheckLibrary();
  Check(count, size, parameters);
  // Scaling goes by way of a region, which fixes the working size without new buffers.
  const bool has_region = parameters.region.has_value() || parameters.scale < 1.0;
  const cv::Rect region = parameters.region.value_or(cv::Rect({0, 0}, size));
  const Geometry geometry = {count, size, region, has_region, parameters.scale};
  const bool is_new = handle_ == nullptr || !(geometry == geometry_);

  prepared_.reset();
  int64_t start = cv::getTickCount();
  if (is_new) {
    // Another tool, as scaling, once on, is not switched off by later parameters.
    handle_.reset();
    handle_.reset(CreateVelostrixUnCalibrationToolPtr_CPU(nullptr));
    geometry_ = geometry;
    times_.buffers = MillisecondsSince(start);
    start = cv::getTickCount();
  }
  const UnCalibrationParam record = Record(count, size, parameters);
  SetVelostrixUnCalibrationToolParam_CPU(handle_.get(), &record);
  if (has_region) {
    SetVelostrixUnCalibrationToolROI_CPU(handle_.get(), region.x, region.y, region.br().x - 1,
                                         region.br().y - 1);
  }
  times_.parameters = MillisecondsSince(start);
  if (is_new) {
    start = cv::getTickCount();
    InitialVelostrixUnCalibrationToolImage_CPU(handle_.get());
    times_.buffers += MillisecondsSince(start);
  }
  ClearImages();
  prepared_ = parameters;
}

inline void Tool::SetImage(const cv::Mat& image) {
  RequirePrepared();
  if (images_set_ == geometry_.image_count) {
    throw WrongState("all " + std::to_string(images_set_) + " images are set; run comes next");
  }
  tool_detail::CheckImage(image, images_set_, geometry_.size, "prepared for");
  const int64_t start = cv::getTickCount();
  if (!SetVelostrixUnCalibrationToolImage_CPU(handle_.get(), &image)) {
    handle_.reset();
    prepared_.reset();
    throw OutOfMemory("the working buffers for " + std::to_string(geometry_.image_count) +
                      " images of " + tool_detail::Text(image.size()) +
                      " could not be allocated; use a region or a smaller scale");
  }
  if (images_set_ == 0) times_.images.clear();
  times_.images.push_back(MillisecondsSince(start));
  ++images_set_;
}

inline Results Tool::RunViews() & {
  RequirePrepared();
  if (images_set_ != geometry_.image_count) {
    throw WrongState(std::to_string(images_set_) + " of " + std::to_string(geometry_.image_count) +
                     " images are set; set the others");
  }
  Results r;
  const auto run = [&](auto function, auto... band) {
    return function(handle_.get(), &r[Output::kFactor], &r[Output::kCurvature],
                    &r[Output::kMagnitude], &r[Output::kChannel0], &r[Output::kChannel1],
                    &r[Output::kChannel2], &r[Output::kNormal], &r[Output::kHeight], band...);
  };
  const int64_t start = cv::getTickCount();
  int32_t done = 0;
  switch (prepared_->run) {
    case velostrix::Run::kUncalibrated:
      done = run(RunVelostrixUnCalibration_CPU_uncali);
      break;
    case velostrix::Run::kCalibrated:
      done = run(RunVelostrixUnCalibration_CPU_cali);
      break;
    case velostrix::Run::kPartRows:
      done = run(RunVelostrixUnCalibration_CPU_partrows_uncali, prepared_->band);
      break;
    case velostrix::Run::kPartCols:
      done = run(RunVelostrixUnCalibration_CPU_partcols_uncali, prepared_->band);
      break;
  }
  times_.run = MillisecondsSince(start);
  if (done != 1) throw std::logic_error("the run was refused by the module");
  images_set_ = 0;
  return r;
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
