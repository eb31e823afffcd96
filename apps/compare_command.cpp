// `velostrix compare`: the differences between two runs, or between a run and the truth.
#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <iostream>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "apps/commands.h"
#include "apps/console.h"
#include "apps/contact_sheet.h"
#include "apps/differences.h"
#include "apps/ground_truth.h"
#include "apps/input_images.h"
#include "apps/output_files.h"
#include "apps/result_folder.h"
#include "apps/run_record.h"

namespace velostrix::cli {
namespace {

namespace fs = std::filesystem;
using Json = nlohmann::ordered_json;

constexpr int kTileWidth = 480;

struct CompareOptions {
  std::string a;
  std::string b;
  double tolerance = 0.0;
  double share = 0.0;
  std::string json;
  std::string picture;
  bool quiet = false;
};

// One image of both sides, and its differences.
struct Compared {
  std::string name;
  cv::Mat a, b;  // as Levels gives them
  Differences differences;
  Json json;
};

struct Comparison {
  std::vector<Compared> images;
  std::vector<std::string> only_in_one;
  std::vector<std::string> recipe_differences;  // JSON pointers
  std::vector<std::string> read;                // the files
};

Compared CompareImages(const CompareOptions& options, const std::string& name, const cv::Mat& a,
                       const cv::Mat& b, const cv::Rect& inside) {
  Compared compared = {name, a, b, Compare(a, b, inside, options.tolerance), {}};
  const Differences& found = compared.differences;
  compared.json = {{"largest", found.largest},
                   {"mean", found.mean},
                   {"rms", found.rms},
                   {"beyond_share", found.beyond_share},
                   {"worst", Json::array()}};
  for (const auto& [pixel, difference] : found.worst) {
    compared.json["worst"].push_back({{"x", pixel.x}, {"y", pixel.y}, {"difference", difference}});
  }
  return compared;
}

void AddFiles(const std::string& folder, const ResultFolder& results, Comparison& comparison) {
  for (const std::string& name : results.outputs) {
    comparison.read.push_back((fs::path(folder) / name).string());
  }
  comparison.read.push_back((fs::path(folder) / kRecordName).string());
}

void CompareWithTruth(const CompareOptions& options, const ResultFolder& a,
                      const GroundTruth& truth, Comparison& comparison) {
  for (const ExpectedResult& expected : ExpectedResults(truth, a)) {
    Compared& compared = comparison.images.emplace_back(
        CompareImages(options, Name(expected.output), Levels(a.results[expected.output]),
                      expected.levels, expected.inside));
    compared.json["explained_variance"] = expected.explained;
    compared.json["is_inverted"] = expected.is_inverted;
  }
  comparison.read.insert(comparison.read.end(), truth.files.begin(), truth.files.end());
  if (comparison.images.empty()) {
    throw Failure(options.a +
                  ": has nothing that the truth knows: factor, channel0, channel1 or "
                  "height; reconstruct with --outputs all");
  }
}

void CompareResults(const CompareOptions& options, const ResultFolder& a, const ResultFolder& b,
                    Comparison& comparison) {
  const Json difference =
      Json::diff(Json::parse(WriteRecipe(a.recipe)), Json::parse(WriteRecipe(b.recipe)));
  for (const Json& step : difference) comparison.recipe_differences.push_back(step["path"]);
  const cv::Size size = (*a.results.begin()).second.size();
  if ((*b.results.begin()).second.size() != size) {
    throw Failure(options.b + ": its results are not as large as those in " + options.a +
                  "; expected results of images and a region of one size");
  }
  for (const Output output : kAllOutputs) {
    const bool is_in_a = !a.results[output].empty();
    if (is_in_a != !b.results[output].empty()) {
      comparison.only_in_one.emplace_back(Name(output));
    } else if (is_in_a) {
      comparison.images.push_back(CompareImages(options, Name(output), Levels(a.results[output]),
                                                Levels(b.results[output]), {{}, size}));
    }
  }
  AddFiles(options.b, b, comparison);
}

Comparison CompareFolders(const CompareOptions& options) {
  Comparison comparison;
  const ResultFolder a = ReadResults(options.a);
  AddFiles(options.a, a, comparison);
  if (const auto truth = ReadGroundTruth(options.b)) {
    CompareWithTruth(options, a, *truth, comparison);
  } else {
    CompareResults(options, a, ReadResults(options.b), comparison);
  }
  return comparison;
}

std::string Joined(const std::vector<std::string>& names) { return CLI::detail::join(names, ", "); }

void Say(const Comparison& comparison, Console& console) {
  std::cout << "image      largest      mean       rms  beyond %  worst place x,y\n";
  for (const auto& [name, a, b, found, json] : comparison.images) {
    char line[160];
    std::snprintf(line, sizeof line, "%-9s %8.3f  %8.4f  %8.4f  %8.4f", name.c_str(), found.largest,
                  found.mean, found.rms, 100.0 * found.beyond_share);
    std::cout << line;
    if (!found.worst.empty()) {
      const cv::Point& pixel = found.worst.front().pixel;
      std::cout << "  " << pixel.x << ',' << pixel.y;
    }
    if (json.contains("explained_variance")) {
      std::snprintf(line, sizeof line, "  explained variance %.4f%s",
                    json["explained_variance"].get<double>(),
                    json["is_inverted"].get<bool>() ? ", inverted" : "");
      std::cout << line;
    }
    std::cout << '\n';
  }
  if (!comparison.recipe_differences.empty()) {
    console.Note("the recipes differ: " + Joined(comparison.recipe_differences));
  }
}

// Both sides and their difference, a row for each image.
cv::Mat Picture(const Comparison& comparison) {
  std::vector<SheetRow> rows;
  for (const Compared& compared : comparison.images) {
    const double white = compared.differences.largest;
    cv::Mat a, b, difference;
    compared.a.convertTo(a, CV_8U);
    compared.b.convertTo(b, CV_8U);
    compared.differences.image.convertTo(difference, CV_8U, white > 0.0 ? 255.0 / white : 0.0);
    char label[64];
    std::snprintf(label, sizeof label, "difference, white is %.3g levels", white);
    rows.push_back({compared.name, {{"A", a}, {"B", b}, {label, difference}}});
  }
  return ComposeSheet(rows, kTileWidth);
}

// Plans one file that must not replace a file that was read.
OutputFiles FileTo(const std::string& file, const Comparison& comparison) {
  const fs::path path = file;
  return OutputFiles({path.parent_path(), {path.filename().string()}, {}, {}, comparison.read});
}

void WriteFiles(const CompareOptions& options, const Comparison& comparison, bool is_within) {
  if (!options.json.empty()) {
    Json images = Json::object();
    for (const Compared& compared : comparison.images) images[compared.name] = compared.json;
    const Json json = {{"a", options.a},
                       {"b", options.b},
                       {"tolerance", options.tolerance},
                       {"share", options.share},
                       {"is_within", is_within},
                       {"only_in_one", comparison.only_in_one},
                       {"recipe_differences", comparison.recipe_differences},
                       {"images", images}};
    OutputFiles files = FileTo(options.json, comparison);
    files.AddText(fs::path(options.json).filename().string(),
                  json.dump(2, ' ', false, Json::error_handler_t::replace) + '\n');
    files.Commit();
  }
  if (!options.picture.empty()) {
    OutputFiles files = FileTo(options.picture, comparison);
    files.AddImage(fs::path(options.picture).filename().string(), Picture(comparison));
    files.Commit();
  }
}

// Returns what is beyond the tolerance.
std::string CompareAndWrite(const CompareOptions& options) {
  if (!options.picture.empty() && !IsImageName(options.picture)) {
    throw UsageError("--picture " + options.picture +
                     ": expected a name that ends in .png, .tiff or .jpg");
  }
  Console console(options.quiet);
  const Comparison comparison = CompareFolders(options);
  std::vector<std::string> beyond;
  for (const Compared& compared : comparison.images) {
    if (compared.differences.beyond_share > options.share) beyond.push_back(compared.name);
  }
  WriteFiles(options, comparison, beyond.empty() && comparison.only_in_one.empty());
  if (!options.quiet) Say(comparison, console);
  std::string what;
  if (!beyond.empty()) what = "beyond the tolerance: " + Joined(beyond);
  if (!comparison.only_in_one.empty()) {
    what += (what.empty() ? "in one folder only: " : "; in one folder only: ") +
            Joined(comparison.only_in_one);
  }
  return what;
}

// Like other programs that compare: exit code 1 for differences, 2 for errors.
void CompareCommand(const CompareOptions& options) {
  std::string beyond;
  try {
    beyond = CompareAndWrite(options);
  } catch (const std::exception& e) {
    throw UsageError(Explain(e));
  }
  if (!beyond.empty()) throw Failure(beyond);
}

}  // namespace

void AddCompareCommand(CLI::App& app) {
  const auto options = std::make_shared<CompareOptions>();
  CLI::App* const command = app.add_subcommand(
      "compare",
      "Compare results with those of another run, or with the truth of a rendered scene");
  command->add_option("A", options->a, "Folder that velostrix reconstruct wrote")
      ->required()
      ->type_name("");
  command
      ->add_option("B", options->b,
                   "Another one, or a folder of velostrix render, whose truth is fitted to A, as "
                   "photometric stereo does not determine scales")
      ->required()
      ->type_name("");
  command
      ->add_option(
          "--tolerance", options->tolerance,
          "Grey levels (of 255) by which pixels may differ; in the height, 1 is 257 levels")
      ->check(CLI::Range(0.0, 255.0))
      ->check(IsNumber())
      ->capture_default_str()
      ->type_name("LEVELS");
  command
      ->add_option("--share", options->share,
                   "Share of the pixels (0 to 1) that may differ by more")
      ->check(CLI::Range(0.0, 1.0))
      ->check(IsNumber())
      ->capture_default_str()
      ->type_name("SHARE");
  command->add_option("--json", options->json, "Write all numbers")->type_name("FILE");
  command
      ->add_option("--picture", options->picture,
                   "Write one picture: for each image A, B and their difference")
      ->type_name("FILE");
  command->add_flag("--quiet", options->quiet, "Print only errors");
  command->callback([options] { CompareCommand(*options); });
  command->footer(
      "Levels are compared directly: use one recipe for both runs, so that the gains are equal.\n\n"
      "Examples:\n"
      "  velostrix compare relief1 relief2 --tolerance 2 --picture differences.png\n"
      "  velostrix compare relief scene --tolerance 20 --share 0.02\n\n"
      "Exit codes: 0 within the tolerance, 1 beyond it, 2 wrong arguments or nothing compared.");
}

}  // namespace velostrix::cli
