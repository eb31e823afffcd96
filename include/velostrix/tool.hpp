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
// A Tool keeps its working buffers (about 52 + 5 N bytes a pixel) from part to part and allocates
// anew only when the number of images, their size, the region or the scale changes. One Tool is
// used by one thread at a time; separate Tools are independent.
//
// What cannot be done is thrown as velostrix::Error, whose text says what was refused and what is
// expected; the Tool can be used again afterwards. std::bad_alloc and cv::Exception pass through.
//
// Link Velostrix::Uncalibration and OpenCV's core.
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

namespace velostrix {

// Says what was refused and what is expected.
class Error : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// The result images of a run; what each shows is told in uncalibration.h.
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

// The size at which the tool works on images of a size: that of the region, scaled if it is to be.
inline cv::Size WorkingSize(cv::Size images, const Parameters& parameters) {
  const cv::Size size = parameters.region ? parameters.region->size() : images;
  const double width = size.width * parameters.scale;
  const double height = size.height * parameters.scale;
  const bool is_scaled = parameters.scale < 0.99 && width > 10.0 && height > 10.0;
  return is_scaled ? cv::Size(static_cast<int>(width), static_cast<int>(height)) : size;
}

// The images that a run made; those that were not asked for are empty.
class Results {
 public:
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

// Throws Error when a reconstruction of these images with these parameters would be refused.
inline void Check(const std::vector<cv::Mat>& images, const Parameters& parameters);

// A tool of the module, its buffers kept from part to part; see the top of this header.
class Tool {
 public:
  // Runs on the images, in their order, and returns images that own their memory.
  Results Reconstruct(const std::vector<cv::Mat>& images, const Parameters& parameters) {
    Results results = ReconstructViews(images, parameters);
    for (const Output output : kAllOutputs) {
      const bool is_view = results[output].u == nullptr;
      if (is_view) results[output] = results[output].clone();
    }
    return results;
  }

  // The same without the copy: the results may be headers over the tool's memory, valid until the
  // next reconstruction by this tool and no longer than the tool itself (moving the tool keeps
  // them).
  Results ReconstructViews(const std::vector<cv::Mat>& images, const Parameters& parameters) {
    Check(images, parameters);
    Prepare(images, parameters);
    SetImages(images);
    return RunNow(parameters);
  }

  // Of the latest reconstruction.
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
    size_t image_count;
    cv::Size size;
    cv::Rect region;
    bool has_region;
    double scale;

    bool operator==(const Geometry& other) const {
      return image_count == other.image_count && size == other.size && region == other.region &&
             has_region == other.has_region && scale == other.scale;
    }
  };

  static double MillisecondsSince(int64_t start) {
    return static_cast<double>(cv::getTickCount() - start) / cv::getTickFrequency() * 1000.0;
  }

  static UnCalibrationParam Record(size_t image_count, cv::Size size, const Parameters& p) {
    UnCalibrationParam record = {};
    record.image_count = static_cast<int32_t>(image_count);
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

  // Brings the tool to the parameters. Another geometry gets another tool, as scaling, once on, is
  // not switched off by later parameters.
  void Prepare(const std::vector<cv::Mat>& images, const Parameters& parameters) {
    const cv::Size size = images.front().size();
    // Scaling goes by way of a region, which fixes the working size without new buffers.
    const bool has_region = parameters.region.has_value() || parameters.scale < 1.0;
    const cv::Rect region = parameters.region.value_or(cv::Rect({0, 0}, size));
    const Geometry geometry = {images.size(), size, region, has_region, parameters.scale};
    const bool is_new = handle_ == nullptr || !(geometry == geometry_);

    int64_t start = cv::getTickCount();
    if (is_new) {
      handle_.reset();
      handle_.reset(CreateVelostrixUnCalibrationToolPtr_CPU(nullptr));
      geometry_ = geometry;
      times_.buffers = MillisecondsSince(start);
      start = cv::getTickCount();
    }
    const UnCalibrationParam record = Record(images.size(), size, parameters);
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
  }

  void SetImages(const std::vector<cv::Mat>& images) {
    ClearVelostrixUnCalibrationToolImage_CPU(handle_.get());
    times_.images.clear();
    for (const cv::Mat& image : images) {
      const int64_t start = cv::getTickCount();
      if (!SetVelostrixUnCalibrationToolImage_CPU(handle_.get(), &image)) {
        handle_.reset();
        throw Error("the working buffers for " + std::to_string(images.size()) + " images of " +
                    std::to_string(image.cols) + " x " + std::to_string(image.rows) +
                    " pixels could not be allocated; use a region or a smaller scale");
      }
      times_.images.push_back(MillisecondsSince(start));
    }
  }

  Results RunNow(const Parameters& parameters) {
    Results r;
    const auto run = [&](auto function, auto... band) {
      return function(handle_.get(), &r[Output::kFactor], &r[Output::kCurvature],
                      &r[Output::kMagnitude], &r[Output::kChannel0], &r[Output::kChannel1],
                      &r[Output::kChannel2], &r[Output::kNormal], &r[Output::kHeight], band...);
    };
    const int64_t start = cv::getTickCount();
    int32_t done = 0;
    switch (parameters.run) {
      case Run::kUncalibrated:
        done = run(RunVelostrixUnCalibration_CPU_uncali);
        break;
      case Run::kCalibrated:
        done = run(RunVelostrixUnCalibration_CPU_cali);
        break;
      case Run::kPartRows:
        done = run(RunVelostrixUnCalibration_CPU_partrows_uncali, parameters.band);
        break;
      case Run::kPartCols:
        done = run(RunVelostrixUnCalibration_CPU_partcols_uncali, parameters.band);
        break;
    }
    times_.run = MillisecondsSince(start);
    if (done != 1) throw Error("the run was refused by the module");
    return r;
  }

  std::unique_ptr<UnCalibrationTool, Deleter> handle_;  // null until the first reconstruction
  Geometry geometry_ = {};
  CallTimes times_;
};

inline void Check(const std::vector<cv::Mat>& images, const Parameters& parameters) {
  const auto text = [](cv::Size size) {
    return std::to_string(size.width) + " x " + std::to_string(size.height) + " pixels";
  };
  if (images.size() < 3 || images.size() > 8) {
    throw Error(std::to_string(images.size()) + " images given; expected 3 to 8");
  }
  const cv::Size size = images.front().size();
  for (size_t k = 0; k < images.size(); ++k) {
    const std::string name = "image " + std::to_string(k + 1);
    if (images[k].empty() || images[k].dims != 2) throw Error(name + " is empty");
    if (images[k].type() != CV_8UC1) {
      throw Error(name + " is " + cv::typeToString(images[k].type()) + "; expected CV_8UC1");
    }
    if (images[k].size() != size) {
      throw Error(name + " has " + text(images[k].size()) + ", image 1 has " + text(size) +
                  "; expected one size");
    }
  }

  const cv::Rect region = parameters.region.value_or(cv::Rect({0, 0}, size));
  if (region.x < 0 || region.y < 0 || region.width < 0 || region.height < 0 ||
      region.width > size.width - region.x || region.height > size.height - region.y) {
    throw Error("the region of " + text(region.size()) + " at (" + std::to_string(region.x) + ", " +
                std::to_string(region.y) + ") is not inside the images of " + text(size));
  }
  if (region.width < 3 || region.height < 2) {
    throw Error(text(region.size()) + " to work on; expected at least 3 x 2");
  }
  if (!(parameters.scale > 0.0 && parameters.scale <= 1.0)) {
    throw Error("scale " + std::to_string(parameters.scale) + "; expected above 0, at most 1");
  }
  if (parameters.blur_radius < 0 || parameters.blur_radius > 32767) {
    throw Error("blur radius " + std::to_string(parameters.blur_radius) + "; expected 0 to 32767");
  }
  double gains = parameters.factor_gain + parameters.curvature.gain + parameters.magnitude.gain;
  for (const OutputScaling& channel : parameters.channel) gains += channel.gain;
  if (!std::isfinite(gains)) throw Error("a gain is not finite; expected a number");
}

}  // namespace velostrix
