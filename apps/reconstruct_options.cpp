// The arguments of `velostrix reconstruct`, which other commands share, and what they mean.
#include "apps/reconstruct_options.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <filesystem>
#include <limits>
#include <optional>
#include <utility>

#include "apps/bayer.h"
#include "apps/commands.h"
#include "apps/input_images.h"

namespace velostrix::cli {
namespace {

constexpr int kMost = std::numeric_limits<int>::max();

// The index of the name, which the parser has checked.
template <typename Choice, size_t N>
Choice Chosen(const std::array<const char*, N>& names, const std::string& name) {
  return static_cast<Choice>(std::find(names.begin(), names.end(), name) - names.begin());
}

std::optional<Output> OutputNamed(const std::string& name) {
  for (const Output output : kAllOutputs) {
    if (name == Name(output)) return output;
  }
  return std::nullopt;
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

LampHint ParseLamp(const std::string& text) {
  constexpr std::array<std::pair<const char*, double>, 4> kDirections = {
      {{"right", 0.0}, {"up", 90.0}, {"left", 180.0}, {"down", 270.0}}};
  const size_t equals = text.find('=');
  const std::string from = equals == std::string::npos ? "" : text.substr(equals + 1);
  LampHint lamp;
  bool is_known = ParseNumber(from, lamp.degrees) && std::isfinite(lamp.degrees);
  for (const auto& [name, degrees] : kDirections) {
    if (from != name) continue;
    lamp.degrees = degrees;
    is_known = true;
  }
  if (!is_known || !ParseNumber(text.substr(0, equals), lamp.image) || lamp.image < 0 ||
      lamp.image >= VELOSTRIX_MOST_IMAGES) {
    throw UsageError("--lamp " + text +
                     ": expected K=FROM, K a lamp's image, counted from 0, and FROM one of left, "
                     "right, up, down, or degrees (0 right, 90 up)");
  }
  return lamp;
}

// Parses NAME=VALUE and adds the name to those given.
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

// Turns off what a recipe asks for.
constexpr const char* kNone = "none";

template <size_t N>
CLI::IsMember OneOfOrNone(const std::array<const char*, N>& names) {
  std::vector<std::string> choices(names.begin(), names.end());
  choices.emplace_back(kNone);
  return CLI::IsMember(choices);
}

RunOptions ParseOptions(const ReconstructOptions& options, const Recipe& recipe) {
  RunOptions asked = options.asked;
  for (std::string* text : {&asked.mask, &asked.reading.bayer, &asked.height_view}) {
    if (*text == kNone) text->clear();
  }
  const std::string& mask = options.recorded.mask;
  const bool is_recorded = !mask.empty() && mask != "auto" && asked.mask == mask;
  if (is_recorded && !std::filesystem::exists(mask)) {
    throw Failure(options.recipe_file + ": its mask " + mask +
                  " is not there; give --mask FILE, or --mask none to leave no pixels out");
  }
  const bool is_view_recorded = asked.height_view == options.recorded.height_view;
  if (is_view_recorded && !recipe.parameters.outputs.Contains(Output::kHeight)) {
    asked.height_view.clear();
  }
  return asked;
}

// The surface that a view of the height is to leave out, when one is asked for.
std::optional<Surface> ParseHeightView(const RunOptions& options, const Recipe& recipe) {
  if (options.height_view.empty()) return std::nullopt;
  if (!recipe.parameters.outputs.Contains(Output::kHeight)) {
    throw UsageError("--height-view: the height is not made; see --outputs");
  }
  return Chosen<Surface>(kSurfaceNames, options.height_view);
}

// The files to export, and how.
std::vector<std::string> ParseExports(const ReconstructOptions& options, const Recipe& recipe,
                                      ExportOptions& exports) {
  exports.decimate = options.decimate;
  if (!options.export_normals.empty()) {
    exports.normals = Chosen<NormalConvention>(kNormalConventionNames, options.export_normals);
  }
  if (!options.export_colours.empty()) {
    exports.colours = Chosen<SurfaceColours>(kSurfaceColourNames, options.export_colours);
  }
  std::vector<std::string> names;
  if (options.exports.empty()) return names;
  const OutputSet made = WithChannels(recipe.parameters.outputs);
  for (const std::string& name : CLI::detail::split(options.exports, ',')) {
    if (std::find(kExportNames.begin(), kExportNames.end(), name) == kExportNames.end()) {
      throw UsageError("--export " + options.exports + ": expected some of " +
                       CLI::detail::join(kExportNames, ","));
    }
    const OutputSet needed = NeededFor(name, exports);
    for (const Output output : kAllOutputs) {
      if (!needed.Contains(output) || made.Contains(output)) continue;
      throw UsageError("--export " + name + ": " + Name(output) + " is not made; see --outputs");
    }
    if (std::find(names.begin(), names.end(), name) == names.end()) names.push_back(name);
  }
  return names;
}

// The recipe of the file, and the options beside it. Failure says what is wrong with it.
Recipe ReadRecipe(const std::string& file, RunOptions& options) {
  const std::vector<char> bytes = ReadBytes(file, "; expected a recipe, such as a run.json");
  try {
    Recipe recipe = velostrix::ParseRecipe({bytes.begin(), bytes.end()});
    options = OptionsFromJson({bytes.begin(), bytes.end()});
    return recipe;
  } catch (const Error& e) {
    throw Failure(file + ": " + e.what());
  }
}

}  // namespace

cv::Rect ParseRegion(const std::string& option, const std::string& text) {
  std::vector<int> numbers;
  for (const std::string& part : CLI::detail::split(text, ',')) {
    if (!ParseNumber(part, numbers.emplace_back())) numbers.back() = -1;
  }
  const bool are_pixels =
      std::all_of(numbers.begin(), numbers.end(), [](int number) { return number >= 0; });
  if (!are_pixels || numbers.size() != 4) {
    throw UsageError(option + ' ' + text +
                     ": expected X,Y,WIDTH,HEIGHT, the first pixel of the region, counted from 0, "
                     "and its size");
  }
  return {numbers[0], numbers[1], numbers[2], numbers[3]};
}

void DeclareImages(CLI::App& command, ReconstructOptions& options) {
  command
      .add_option(
          "IMAGE", options.files,
          "3 to 8 image files (PNG, BMP, TIFF, JPEG) of one part, each under a different lamp, or "
          "their folder, read in natural order (2 before 10); colour and 16-bit files are "
          "converted to 8-bit grey")
      ->group(kImagesGroup)
      ->type_name("");
}

void DeclareReading(CLI::App& command, ReconstructOptions& options) {
  Recipe& recipe = options.recipe;
  recipe.parameters.orientation = Orientation::kUpright;
  // Declared before the options that change what it has: the parser calls them in this order.
  command
      .add_option_function<std::string>(
          "--recipe",
          [&](const std::string& file) {
            options.recipe = ReadRecipe(file, options.recorded);
            options.recipe_file = file;
            options.asked = options.recorded;
          },
          "Read what is not given here from a recipe: a run.json, or what --save-recipe wrote")
      ->group("Recipes")
      ->type_name("FILE");
  command
      .add_flag("--split-channels", options.asked.reading.split_channels,
                "IMAGE is one colour file: its red, green and blue channel are three lamps")
      ->group(kImagesGroup);

  command
      .add_option("--choose", options.asked.choose,
                  "Use this many of more files, 3 to 8: those whose lamps differ most")
      ->group(kImagesGroup)
      ->check(CLI::Range(VELOSTRIX_FEWEST_IMAGES + 0, VELOSTRIX_MOST_IMAGES + 0))
      ->type_name("N");
  command
      .add_option("--bayer", options.asked.reading.bayer,
                  "Files are raw frames of a colour sensor, with filters of this pattern")
      ->group(kImagesGroup)
      ->check(OneOfOrNone(kBayerPatterns))
      ->type_name("PATTERN");

  command
      .add_option("--bits", recipe.bits,
                  "Bits in use of 16-bit samples, 8 to 16; when not given: 10, 12, 14 or 16, from "
                  "the largest sample of all files")
      ->group(kImagesGroup)
      ->check(CLI::Range(8, 16))
      ->type_name("B");
  command
      .add_option("--white", recipe.white,
                  "The 16-bit sample that is white, in all files; replaces --bits")
      ->group(kImagesGroup)
      ->check(CLI::Range(1, 65535))
      ->type_name("LEVEL");
  command
      .add_option("--flat", options.flat,
                  "One image of a flat, matt part under each lamp, or their folder: every image is "
                  "divided by a smooth fit of its lamp's, which corrects uneven light")
      ->group(kImagesGroup)
      ->type_name("FILES");
  command
      .add_option("--roi,--region", options.region,
                  "Process only this region: its first pixel, counted from 0, and its size")
      ->group(kImagesGroup)
      ->type_name("X,Y,WIDTH,HEIGHT");
  command
      .add_option(
          "--mask", options.asked.mask,
          "Leave out pixels that are 0 in this image or, with auto, that no lamp lights, such as a "
          "black background; they do not count for gains, and are 128 in results, 0 in the height")
      ->group(kImagesGroup)
      ->type_name("FILE|auto");
}

void DeclareMethod(CLI::App& command, ReconstructOptions& options) {
  Parameters& p = options.recipe.parameters;
  const char* const method = "Method";
  command
      .add_option("--scale", p.scale,
                  "Scale the images first (below 0.99): faster, less noise, less detail")
      ->group(kImagesGroup)
      ->check(CLI::Range(0.001, 1.0))
      ->check(IsNumber())
      ->capture_default_str()
      ->type_name("S");
  command
      .add_flag("--equalise", p.equalise,
                "Even out the brightness of the columns of every image first")
      ->group(kImagesGroup);
  command
      .add_option(
          "--run", options.run,
          "uncali: lamps unknown, whole frame (start here); cali: lamps in the fixed ring; "
          "partrows, partcols: lamps unknown, bands of rows or strips of columns, for light "
          "that changes across the frame")
      ->group(method)
      ->check(OneOf(kRunNames))
      ->default_str(kRunNames[0])
      ->type_name("RUN");
  command.add_option("--band", p.band, "Rows or columns of a piece for partrows, partcols")
      ->group(method)
      ->check(CLI::Range(VELOSTRIX_SMALLEST_BAND + 0, kMost).description(""))
      ->capture_default_str()
      ->type_name("B");
  command
      .add_option("--difference", options.difference,
                  "How slopes are differentiated: central is calmer, forward resolves finer lines")
      ->group(method)
      ->check(OneOf(kDifferenceNames))
      ->default_str(kDifferenceNames[0])
      ->type_name("HOW");
  command
      .add_option(
          "--orientation", options.orientation,
          "Of uncali, partrows, partcols. upright: mirrored or turned slopes are measured and "
          "corrected, by runs on flipped images; as-is: slopes are left unchanged")
      ->group(method)
      ->check(OneOf(kOrientationNames))
      ->default_str("upright")
      ->type_name("HOW");
  command
      .add_option(
          "--lamp", options.lamp,
          "Rough direction of one lamp, which tells bumps from dents: the number of its image, "
          "counted from 0, and left, right, up, down or degrees (0 right, 90 up), as in 0=left")
      ->group(method)
      ->type_name("K=FROM");
  command
      .add_option("--blur-radius", p.blur_radius, "Smooth curvature and magnitude over this radius")
      ->group(method)
      ->check(CLI::Range(0, VELOSTRIX_LARGEST_BLUR_RADIUS + 0))
      ->capture_default_str()
      ->type_name("PIXELS");
  command
      .add_option("--iteration-cap", p.iteration_cap,
                  "Most steps of the height: 50 shows local relief, more also slow changes; "
                  "negative: until it converges")
      ->group(method)
      ->check(CLI::Range(-kMost, kMost).description(""))
      ->capture_default_str()
      ->type_name("N");
}

void DeclareGains(CLI::App& command, ReconstructOptions& options) {
  command
      .add_option(
          "--gain", options.gains,
          "Grey levels per unit for factor, curvature, magnitude, channel0, channel1 or "
          "channel2; repeat for several. Trial runs choose gains that are not given: all but 1 % "
          "of the pixels at either end fill levels 16 to 240. To compare parts, run them with the "
          "recipe of the first")
      ->group(kResultsGroup)
      ->allow_extra_args(false)
      ->type_name("NAME=G");
  command
      .add_option(
          "--offset", options.offsets,
          "Grey level of value 0, for the same names except factor; when not given: 128, or 0 for "
          "magnitude and one-sided channel2")
      ->group(kResultsGroup)
      ->allow_extra_args(false)
      ->type_name("NAME=O");
}

void DeclareResults(CLI::App& command, ReconstructOptions& options) {
  command
      .add_option("--outputs", options.outputs,
                  "Images to make: all, or some of factor, curvature, magnitude, channel0, "
                  "channel1, channel2, normal, height, joined by commas")
      ->group(kResultsGroup)
      ->default_str("all")
      ->type_name("LIST");
  DeclareGains(command, options);
  command
      .add_flag("--height-view{quadratic}", options.asked.height_view,
                "Also make height_view.png, the height for display: 8 bits, tilt and bowl removed, "
                "border ignored; --height-view=plane removes only the tilt")
      ->group(kResultsGroup)
      ->check(OneOfOrNone(kSurfaceNames).description(""));
  command
      .add_option("--compression", options.compression,
                  "Compression of PNG files: 0 is none, 1 fast, 9 small")
      ->group(kResultsGroup)
      ->check(CLI::Range(0, kMostCompression + 0))
      ->capture_default_str()
      ->type_name("LEVEL");
  command
      .add_flag(
          "--report", options.report,
          "Also write report.html: one page with relighting, 3-D view, profiles and diagnosis")
      ->group(kResultsGroup);

  const char* const exports = "Exports";
  CLI::Option* const names =
      command
          .add_option("--export", options.exports,
                      "Also write for other tools, joined by commas: surface.ply, a mesh; "
                      "height.tiff, 32-bit float in slope times pixels; normals.png, a normal map")
          ->group(exports)
          ->type_name("LIST");
  command
      .add_option("--decimate", options.decimate,
                  "One vertex of the mesh for every block of N x N pixels")
      ->group(exports)
      ->needs(names)
      ->check(CLI::Range(1, kMost).description(""))
      ->capture_default_str()
      ->type_name("N");
  command
      .add_option("--mesh-colours", options.export_colours,
                  "Colours of the mesh: factor, the part's brightness; or one grey")
      ->group(exports)
      ->needs(names)
      ->check(OneOf(kSurfaceColourNames))
      ->default_str(kSurfaceColourNames[0])
      ->type_name("HOW");
  command
      .add_option("--normal-convention", options.export_normals,
                  "Green of the normal map: opengl, up; directx, down")
      ->group(exports)
      ->needs(names)
      ->check(OneOf(kNormalConventionNames))
      ->default_str(kNormalConventionNames[0])
      ->type_name("HOW");
}

Recipe ParseRecipe(const ReconstructOptions& options) {
  Recipe recipe = options.recipe;
  Parameters& parameters = recipe.parameters;
  if (!options.run.empty()) parameters.run = Chosen<Run>(kRunNames, options.run);
  if (!options.difference.empty()) {
    parameters.difference = Chosen<Difference>(kDifferenceNames, options.difference);
  }
  if (!options.orientation.empty()) {
    parameters.orientation = Chosen<Orientation>(kOrientationNames, options.orientation);
  }
  if (!options.lamp.empty()) parameters.lamp = ParseLamp(options.lamp);
  if (!options.outputs.empty()) parameters.outputs = ParseOutputs(options.outputs);
  if (!options.region.empty()) parameters.region = ParseRegion("--roi", options.region);

  OutputSet scaled = {Output::kCurvature, Output::kMagnitude, Output::kChannel0, Output::kChannel1,
                      Output::kChannel2};
  const OutputSet made = WithChannels(parameters.outputs);
  OutputSet given_offsets;
  for (const std::string& text : options.offsets) {
    const auto [output, offset] = ParseScaling<int>("--offset", text, scaled, made, given_offsets);
    Scaling(parameters, output)->offset = offset;
    recipe.kept_offsets.Add(output);
  }
  scaled.Add(Output::kFactor);
  OutputSet given_gains;
  for (const std::string& text : options.gains) {
    const auto [output, gain] = ParseScaling<double>("--gain", text, scaled, made, given_gains);
    *Gain(parameters, output) = gain;
    recipe.kept_gains.Add(output);
  }
  return recipe;
}

Part ParsePart(const ReconstructOptions& options, const std::vector<std::string>& arguments) {
  Part part;
  RunRecord& record = part.record;
  record.arguments = arguments;
  record.recipe = ParseRecipe(options);
  record.options = ParseOptions(options, record.recipe);
  part.view_without = ParseHeightView(record.options, record.recipe);
  part.compression = options.compression;
  record.further = ParseExports(options, record.recipe, record.exports);
  if (options.report) record.further.emplace_back(kReportName);
  return part;
}

void GiveFiles(Part& part, const ReconstructOptions& options) {
  part.files = ChosenFiles(PartFiles(options.files, part.record.options), part.record.options);
  part.flat_files = FlatFiles(options.flat, options.files, part.files);
}

}  // namespace velostrix::cli
