// `velostrix explore`: one result of a part under several values of one or two parameters, as one
// picture to choose from by eye.
#include <algorithm>
#include <array>
#include <cmath>
#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include "apps/commands.h"
#include "apps/console.h"
#include "apps/contact_sheet.h"
#include "apps/explore_plan.h"
#include "apps/input_images.h"
#include "apps/output_files.h"
#include "apps/part.h"
#include "apps/reconstruct_options.h"
#include "velostrix/tool.hpp"

namespace velostrix::cli {
namespace {

namespace fs = std::filesystem;

constexpr int kUsualTile = 400;      // pixels wide
constexpr int kLargestSide = 16384;  // of the sheet

struct ExploreOptions {
  ReconstructOptions part;
  std::vector<std::string> vary;
  std::string show;
  std::string crop;
  int tile = 0;  // 0: not given
};

// Rounded to three digits, so that the label shows the whole number.
std::string Rounded(double gain) {
  if (gain == 0.0) return "0";
  const double unit = std::pow(10.0, std::floor(std::log10(std::abs(gain))) - 2.0);
  std::ostringstream text;
  text.precision(12);
  text << std::round(gain / unit) * unit;
  return text.str();
}

// The part with the gains of each tile, chosen once for all tiles that differ only in a gain's
// factor. Adds the chosen gains to the settings of the tiles.
std::vector<Part> ChooseGains(Tool& tool, const Part& part, const ReconstructOptions& options,
                              ExplorePlan& plan) {
  std::map<std::string, Part> chosen_for;
  std::vector<Part> parts;
  for (ExploredTile& tile : plan.tiles) {
    const Recipe plain = ParseSettings(options, tile.settings, plan.shown);
    const auto [found, is_new] = chosen_for.emplace(Label(tile.settings), part);
    Part& chosen = found->second;
    if (is_new) {
      chosen.record.recipe = plain;
      ChooseGains(tool, chosen);
    }
    parts.push_back(chosen);
    if (tile.gain_factor == 0.0) continue;
    const std::string name = std::string(Name(plan.shown)) + '=';
    const Parameters& parameters = chosen.record.recipe.parameters;
    const double gain = *Gain(parameters, plan.shown) * tile.gain_factor;
    tile.settings.emplace_back("gain", name + Rounded(gain));
    // A gain that is given leaves the offset as it was.
    const OutputScaling* const scaling = Scaling(parameters, plan.shown);
    if (scaling != nullptr && scaling->offset != Scaling(plain.parameters, plan.shown)->offset) {
      tile.settings.emplace_back("offset", name + std::to_string(scaling->offset));
    }
    parts.back().record.recipe = ParseSettings(options, tile.settings, plan.shown);
  }
  return parts;
}

// How a result becomes a tile.
struct Showing {
  cv::Rect crop;
  int tile_width = 0;
  std::string how;
};

Showing PlanShowing(const ExploreOptions& options, cv::Size size, int label_width) {
  Showing showing = {{{}, size}, 0, {}};
  if (!options.crop.empty()) {
    showing.crop = ParseRegion("--crop", options.crop);
    if ((showing.crop & cv::Rect({}, size)) != showing.crop || showing.crop.empty()) {
      throw UsageError("--crop " + options.crop + ": not inside the results of " +
                       std::to_string(size.width) + " x " + std::to_string(size.height) +
                       " pixels");
    }
  }
  const int width = showing.crop.width;
  int wanted = options.tile;
  if (wanted == 0) wanted = options.crop.empty() ? std::max(kUsualTile, label_width) : width;
  if (wanted < width) {
    if (wanted < label_width) {
      throw UsageError("--tile " + std::to_string(wanted) + ": expected at least " +
                       std::to_string(label_width) + ", as wide as the labels");
    }
    showing.tile_width = wanted;
    std::ostringstream text;
    text.precision(3);
    text << "reduced 1 : " << static_cast<double>(width) / wanted
         << "; --crop X,Y,WIDTH,HEIGHT shows real pixels";
    showing.how = text.str();
    return showing;
  }
  const int enlarged = std::max({1, options.tile / width, (label_width + width - 1) / width});
  showing.tile_width = enlarged * width;
  showing.how =
      enlarged == 1 ? "real pixels" : "pixels enlarged " + std::to_string(enlarged) + " times";
  return showing;
}

void RequireReasonableSheet(const Showing& showing, size_t rows, size_t columns) {
  const double width = static_cast<double>(columns) * showing.tile_width;
  const double height =
      static_cast<double>(rows) * showing.tile_width * showing.crop.height / showing.crop.width;
  if (std::max(width, height) <= kLargestSide) return;
  throw UsageError("a sheet of " + std::to_string(static_cast<int64_t>(width)) + " x " +
                   std::to_string(static_cast<int64_t>(height)) + " pixels; expected at most " +
                   std::to_string(kLargestSide) + " a side, give a smaller --crop or --tile");
}

cv::Mat ShownImage(const Results& results, const ExplorePlan& plan, const Part& part) {
  const cv::Mat& image = results[plan.shown];
  if (plan.show != kHeightView) return image;
  const int border = HeightBorder(part.record.recipe.parameters);
  return ViewHeight(image, *part.view_without, border, KeptPixels(part)).image;
}

bool IsSame(const cv::Mat& a, const cv::Mat& b) { return cv::norm(a, b, cv::NORM_INF) == 0.0; }

// Warns of parameters that make no difference in this result.
void SayIdle(const ExplorePlan& plan, const std::vector<SheetRow>& rows, Console& console) {
  std::array<bool, 2> is_idle = {true, true};
  for (const SheetRow& row : rows) {
    for (size_t k = 0; k < row.tiles.size(); ++k) {
      const cv::Mat& image = row.tiles[k].image;
      is_idle[0] = is_idle[0] && IsSame(image, rows.front().tiles[k].image);
      is_idle[1] = is_idle[1] && IsSame(image, row.tiles.front().image);
    }
  }
  for (size_t k = 0; k < is_idle.size(); ++k) {
    const Axis& axis = plan.axes[k];
    if (axis.values.size() < 2 || !is_idle[k]) continue;
    console.Warn("--" + axis.option + " makes no difference in " + plan.show +
                 " here; see --show and --run");
  }
}

// The picture must not be in the folder of the images: the next run would read it as one.
void RequireOtherFolder(const fs::path& out, const std::vector<std::string>& images) {
  std::error_code ignored;
  const fs::path folder = out.has_parent_path() ? out.parent_path() : ".";
  if (images.size() != 1 || !fs::is_directory(images.front(), ignored) ||
      !fs::equivalent(folder, images.front(), ignored)) {
    return;
  }
  throw UsageError("--out " + out.string() +
                   ": is in the folder of the images, among which it "
                   "would be read; give another place");
}

void Explore(const ExploreOptions& options, const std::vector<std::string>& arguments) {
  const fs::path out = options.part.out;
  RequirePictureName(options.part.out);
  RequireOtherFolder(out, options.part.files);
  ExplorePlan plan = PlanTiles(options.vary, options.show, options.part);
  Part part = ParsePart(options.part, arguments);
  part.record.recipe.parameters.outputs = {plan.shown};
  if (plan.show == kHeightView) part.view_without = Surface::kQuadratic;
  GiveFiles(part, options.part);
  const std::string name = out.filename().string();
  OutputFiles files({out.parent_path(), {name}, {}, {}, PlanOutputs(part).inputs});
  Console console(options.part.quiet);

  console.Step("loading images");
  LoadImages(part);
  Tool tool;
  SetMask(tool, part, console);
  DiagnoseImages(part);
  SayDiagnostics(part, console);
  console.Step("choosing gains");
  std::vector<Part> parts = ChooseGains(tool, part, options.part, plan);

  const std::optional<cv::Rect> region = part.record.recipe.parameters.region;
  const cv::Size size = region ? region->size() : part.record.inputs.front().pixels.size();
  int label_width = 0;
  for (ExploredTile& tile : plan.tiles) {
    if (plan.show == kHeightView) tile.settings.emplace_back(kHeightView, "");
    label_width = std::max(label_width, LabelWidth(Label(tile.settings)));
  }
  const size_t columns = plan.axes[1].values.size();
  const Showing showing = PlanShowing(options, size, label_width);
  RequireReasonableSheet(showing, plan.axes[0].values.size(), columns);

  std::vector<SheetRow> rows;
  cv::setNumThreads(kAllCores);  // for the height
  for (size_t k = 0; k < parts.size(); ++k) {
    const Settings& settings = plan.tiles[k].settings;
    console.Step("tile " + std::to_string(k + 1) + " of " + std::to_string(parts.size()));
    if (k % columns == 0) {
      const Axis& axis = plan.axes[0];
      rows.push_back({axis.option + ' ' + axis.values[k / columns], {}});
    }
    const Results results = RunPart(tool, parts[k]);
    const cv::Mat image = ShownImage(results, plan, parts[k])(showing.crop);
    rows.back().tiles.push_back({Label(settings), Thumbnail(image, showing.tile_width)});
  }
  cv::setNumThreads(kNoThreads);
  SayIdle(plan, rows, console);
  rows.insert(rows.begin(), {plan.show + ", " + showing.how, {}});
  files.AddImage(name, ComposeSheet(rows, showing.tile_width));
  files.Commit();
  console.Note("wrote " + options.part.out);
}

}  // namespace

void AddExploreCommand(CLI::App& app, const std::vector<std::string>& arguments) {
  const auto options = std::make_shared<ExploreOptions>();
  options->part.out = "explore.png";
  options->part.outputs = "all";  // of which one is shown
  CLI::App* const command = app.add_subcommand(
      "explore", "Show a part under several parameters, as one picture to choose from by eye");
  DeclareImages(*command, options->part);
  DeclareReading(*command, options->part);
  DeclareMethod(*command, options->part);
  const char* const sheet = "Sheet";
  command
      ->add_option(
          "--vary", options->vary,
          "A parameter and its values; twice for rows and columns. Parameters: " +
              ParameterNames() +
              "; a gain may be xF, F times the chosen one. When not given, those that matter "
              "for the result: blur=0,1,2,4 and gain=x0.5,x1,x2 for the curvature")
      ->group(sheet)
      ->allow_extra_args(false)
      ->type_name("NAME=VALUE,...");
  std::vector<std::string> results = {kHeightView};
  results.reserve(kAllOutputs.size() + 1);
  for (const Output output : kAllOutputs) results.emplace_back(Name(output));
  command
      ->add_option(
          "--show", options->show,
          "The result to show; when not given, curvature, or height-view (see --height-view "
          "of reconstruct) when iterations are varied")
      ->group(sheet)
      ->check(CLI::IsMember(results))
      ->type_name("RESULT");
  command->add_option("--crop", options->crop, "Show only these pixels of the results, unscaled")
      ->group(sheet)
      ->type_name("X,Y,WIDTH,HEIGHT");
  command
      ->add_option("--tile", options->tile,
                   "Width of each tile in pixels; larger results are reduced to it")
      ->group(sheet)
      ->check(CLI::Range(16, 4096))
      ->type_name("PIXELS");
  AddOut(*command, options->part.out, "The picture to write")
      ->group(sheet)
      ->required(false)
      ->capture_default_str()
      ->type_name("FILE");
  command->add_flag("--quiet", options->part.quiet, "Print only errors")->group(sheet);
  DeclareGains(*command, options->part);
  command->callback([options, arguments] { Explore(*options, arguments); });
  command->footer(
      "Each tile is the result of reconstruct with the options above it and those given here. "
      "Gains that are neither given nor varied are chosen for each tile, as reconstruct does.\n\n"
      "Examples:\n"
      "  velostrix explore part1\n"
      "  velostrix explore part1 --vary blur=0,2 --vary gain=20,40 --crop 9,9,300,200\n"
      "  velostrix explore part1 --run partrows --vary band=32,64,128 --out bands.png\n"
      "  velostrix explore part1 --show height-view --vary iterations=50,200,1000\n\n"
      "Exit codes: 0 done, 1 failed, 2 wrong arguments.");
}

}  // namespace velostrix::cli
