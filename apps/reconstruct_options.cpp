// The arguments of `velostrix reconstruct` and what they mean.
#include "apps/reconstruct_options.h"

#include <algorithm>
#include <limits>
#include <optional>
#include <utility>

#include "apps/commands.h"
#include "apps/input_images.h"

namespace velostrix::cli {
namespace {

const std::map<std::string, Run> kRuns = {{"uncali", Run::kUncalibrated},
                                          {"cali", Run::kCalibrated},
                                          {"partrows", Run::kPartRows},
                                          {"partcols", Run::kPartCols}};

const std::map<std::string, Difference> kDifferences = {{"central", Difference::kCentral},
                                                        {"forward", Difference::kForward}};

std::optional<Output> OutputNamed(const std::string& name) {
  for (const Output output : kAllOutputs) {
    if (name == Name(output)) return output;
  }
  return std::nullopt;
}

void RequireFileCount(const ReconstructOptions& options) {
  const size_t count = options.files.size();
  if (options.split_channels ? count == 1 : (count >= 3 && count <= 8)) return;
  std::string reason;
  for (const std::string& file : options.files) {
    if (reason.empty()) reason = WhyUnreadable(file);
  }
  throw UsageError(
      "IMAGE: " + std::to_string(count) + (count == 1 ? " file given" : " files given") +
      (reason.empty() ? "" : " (" + reason + ")") + "; expected " +
      (options.split_channels ? "1 colour file with --split-channels" : "3 to 8 of one scene"));
}

OutputSet ParseOutputs(const std::string& text) {
  if (text == "all") return OutputSet::All();
  OutputSet outputs;
  for (const std::string& name : CLI::detail::split(text, ',')) {
    const std::optional<Output> output = OutputNamed(name);
    if (!output) {
      throw UsageError("--outputs " + text +
                       ": expected all, or some of factor,curvature,magnitude,channel0,channel1,"
                       "channel2,normal,height");
    }
    outputs.Add(*output);
  }
  return outputs;
}

cv::Rect ParseRegion(const std::string& text) {
  constexpr int kFarthest = 1 << 24;  // beyond any image; sums stay in range
  std::vector<int> corners;
  for (const std::string& part : CLI::detail::split(text, ',')) {
    if (!ParseNumber(part, corners.emplace_back())) corners.back() = -1;
  }
  const bool are_pixels = std::all_of(corners.begin(), corners.end(),
                                      [](int corner) { return corner >= 0 && corner < kFarthest; });
  if (!are_pixels || corners.size() != 4 || corners[2] < corners[0] || corners[3] < corners[1]) {
    throw UsageError("--roi " + text +
                     ": expected X1,Y1,X2,Y2, first and last pixel of the region, counted from 0");
  }
  return {corners[0], corners[1], corners[2] - corners[0] + 1, corners[3] - corners[1] + 1};
}

// NAME=VALUE; the name joins those given.
template <typename T>
std::pair<Output, T> ParseScaling(const std::string& option, const std::string& text,
                                  const OutputSet& accepted, const OutputSet& made,
                                  OutputSet& given) {
  const size_t equals = text.find('=');
  const std::optional<Output> output = OutputNamed(text.substr(0, equals));
  T value = {};
  if (!output || !accepted.Contains(*output) || equals == std::string::npos ||
      !ParseNumber(text.substr(equals + 1), value)) {
    std::string names;
    for (const Output name : kAllOutputs) {
      if (accepted.Contains(name)) names += std::string(names.empty() ? "" : ", ") + Name(name);
    }
    throw UsageError(option + ' ' + text + ": expected NAME=NUMBER with NAME one of " + names);
  }
  if (!made.Contains(*output)) {
    throw UsageError(option + ' ' + text + ": this image is not made; see --outputs");
  }
  if (given.Contains(*output)) throw UsageError(option + ' ' + text + ": given twice");
  given.Add(*output);
  return {*output, value};
}

}  // namespace

void DeclareReconstructOptions(CLI::App& command, ReconstructOptions& options) {
  constexpr int kMost = std::numeric_limits<int>::max();
  Parameters& p = options.parameters;
  command.add_option(
      "IMAGE", options.files,
      "3 to 8 image files (PNG, BMP, TIFF, JPEG) of one part, each under another lamp; "
      "colour and 16-bit files are converted to 8-bit grey");
  AddOut(command, options.out, "Folder to write to; made when it is not there")->type_name("DIR");
  command.add_flag("--split-channels", options.split_channels,
                   "IMAGE is one colour file: its red, green and blue channel are three lamps");
  command
      .add_option(
          "--run", options.run,
          "uncali: lamps unknown, whole frame (start here); cali: lamps in the fixed ring; "
          "partrows, partcols: lamps unknown, bands of rows or strips of columns, for light "
          "that changes over the frame")
      ->check(CLI::IsMember(kRuns))
      ->capture_default_str()
      ->type_name("RUN");
  command.add_option("--band", p.band, "Rows or columns of a piece for partrows, partcols")
      ->check(CLI::Range(10, kMost).description(""))
      ->capture_default_str()
      ->type_name("B");
  command
      .add_option("--outputs", options.outputs,
                  "Images to make: all, or a list of factor,curvature,magnitude,channel0,channel1,"
                  "channel2,normal,height")
      ->capture_default_str()
      ->type_name("LIST");
  command
      .add_option("--roi", options.region,
                  "Work on this region only: its first and its last pixel, counted from 0")
      ->type_name("X1,Y1,X2,Y2");
  command
      .add_option("--scale", p.scale,
                  "Work on images scaled by this (below 0.99): faster and calmer, less detail")
      ->check(CLI::Range(0.001, 1.0))
      ->check(IsNumber())
      ->capture_default_str()
      ->type_name("S");
  command
      .add_option("--bits", options.bits,
                  "Bits in use of the samples of 16-bit files, 8 to 16; when not given, 10, 12, 14 "
                  "or 16, as the largest sample of all files needs")
      ->check(CLI::Range(8, 16))
      ->type_name("B");
  command.add_flag("--equalise", p.equalise,
                   "Even out the brightness of the columns of every image first");
  command
      .add_option("--difference", options.difference,
                  "How slopes are differentiated: central is calmer, forward resolves finer lines")
      ->check(CLI::IsMember(kDifferences))
      ->capture_default_str()
      ->type_name("HOW");
  command.add_option("--blur", p.blur_radius, "Smooth curvature and magnitude over this radius")
      ->check(CLI::Range(0, 32767))
      ->capture_default_str()
      ->type_name("PIXELS");
  command
      .add_option("--iterations", p.iteration_cap,
                  "Steps of the height at most: 50 shows local relief, more also slow changes; "
                  "negative: as many as it takes")
      ->check(CLI::Range(-kMost, kMost).description(""))
      ->capture_default_str()
      ->type_name("N");
  command
      .add_option(
          "--gain", options.gains,
          "Grey levels per unit for factor, curvature, magnitude, channel0, channel1 or "
          "channel2; repeat for several. Gains that are not given are chosen by trial runs, so "
          "that all but 1 % of the pixels at either end fill levels 16 to 240; see run.json "
          "for what was chosen, and give it again to compare parts")
      ->allow_extra_args(false)
      ->type_name("NAME=G");
  command
      .add_option(
          "--offset", options.offsets,
          "Grey level of value 0, for the same names but factor; 128, or 0 for magnitude and "
          "one-sided channel2, when not given")
      ->allow_extra_args(false)
      ->type_name("NAME=O");
  command.add_flag("--quiet", options.quiet, "Say nothing but errors");
}

Request ParseRequest(const ReconstructOptions& options) {
  RequireFileCount(options);
  Request request = {options.parameters, {}, {}};
  Parameters& parameters = request.parameters;
  parameters.run = kRuns.at(options.run);
  parameters.difference = kDifferences.at(options.difference);
  parameters.outputs = ParseOutputs(options.outputs);
  if (!options.region.empty()) parameters.region = ParseRegion(options.region);

  OutputSet scaled = {Output::kCurvature, Output::kMagnitude, Output::kChannel0, Output::kChannel1,
                      Output::kChannel2};
  OutputSet made = parameters.outputs;
  if (made.Contains(Output::kNormal)) {
    for (const Output channel : kChannels) made.Add(channel);
  }
  OutputSet given_offsets;
  for (const std::string& text : options.offsets) {
    const auto [output, offset] = ParseScaling<int>("--offset", text, scaled, made, given_offsets);
    request.given_offsets[output] = Scaling(parameters, output)->offset = offset;
  }
  scaled.Add(Output::kFactor);
  for (const std::string& text : options.gains) {
    const auto [output, gain] =
        ParseScaling<double>("--gain", text, scaled, made, request.given_gains);
    OutputScaling* const scaling = Scaling(parameters, output);
    (scaling != nullptr ? scaling->gain : parameters.factor_gain) = gain;
  }
  return request;
}

}  // namespace velostrix::cli
