// `velostrix reconstruct`: image files of one part under N lamps to pictures of its relief.
#include <filesystem>
#include <memory>
#include <optional>
#include <sstream>
#include <string>
#include <system_error>
#include <vector>

#include "apps/commands.h"
#include "apps/console.h"
#include "apps/input_images.h"
#include "apps/output_files.h"
#include "apps/reconstruct_options.h"
#include "apps/run_record.h"
#include "velostrix/diagnostics.hpp"
#include "velostrix/recipe.hpp"
#include "velostrix/tool.hpp"

namespace velostrix::cli {
namespace {

std::string Format(double value) {
  std::ostringstream text;
  text.precision(3);
  text << value;
  return text.str();
}

// The files to read: those given, or those of the folder that is given.
std::vector<std::string> FilesOf(const ReconstructOptions& options) {
  std::vector<std::string> files = options.files;
  std::error_code ignored;  // what cannot be looked at is refused as a file
  const bool is_folder = files.size() == 1 && std::filesystem::is_directory(files.front(), ignored);
  if (is_folder) files = ImagesIn(files.front());
  const size_t count = files.size();
  const bool is_enough = options.split_channels
                             ? count == 1
                             : count >= VELOSTRIX_FEWEST_IMAGES && count <= VELOSTRIX_MOST_IMAGES;
  if (is_enough) return files;
  std::string reason;
  for (const std::string& file : files) {
    if (reason.empty()) reason = WhyUnreadable(file);
  }
  if (is_folder) reason = "in the folder " + options.files.front();
  throw UsageError(
      "IMAGE: " + std::to_string(count) + (count == 1 ? " file given" : " files given") +
      (reason.empty() ? "" : " (" + reason + ")") + "; expected " +
      (options.split_channels ? "1 colour file with --split-channels" : "3 to 8 of one scene"));
}

Diagnostics DiagnoseInputs(const std::vector<InputImage>& inputs,
                           const std::vector<cv::Mat>& images, const Parameters& parameters,
                           Console& console) {
  std::vector<std::string> names;
  names.reserve(inputs.size());
  for (const InputImage& input : inputs) names.push_back(input.file);
  Diagnostics diagnostics = Diagnose(images, parameters, names);
  for (size_t k = 0; k < inputs.size(); ++k) {
    const VelostrixExposure& exposure = diagnostics.exposures[k];
    const std::string& note = inputs[k].note;
    console.Note(names[k] + ": " + Format(100.0 * exposure.saturated_share) + " % saturated, " +
                 Format(100.0 * exposure.black_share) + " % black" + (note.empty() ? "" : "; ") +
                 note);
  }
  std::string values;
  for (size_t k = 0; k < inputs.size(); ++k) values += ' ' + Format(diagnostics.singular_values[k]);
  console.Note("difference of the lamps (relative singular values):" + values);
  if (diagnostics.unexplained_by_ring >= 0.0) {
    console.Note("not explained by the lamps of the ring: " +
                 Format(100.0 * diagnostics.unexplained_by_ring) +
                 " %, by any lamps: " + Format(100.0 * diagnostics.unexplained_by_any) + " %");
  } else if (parameters.run == Run::kCalibrated) {
    console.Note("whether the lamps are those of the ring cannot be told from these images");
  }
  for (const std::string& warning : diagnostics.warnings) console.Warn(warning);
  return diagnostics;
}

void SayGains(const Parameters& parameters, Console& console) {
  std::string used;
  for (const Output output : kAllOutputs) {
    const OutputScaling* const scaling = Scaling(parameters, output);
    if (scaling == nullptr || !parameters.outputs.Contains(output)) continue;
    used += std::string(used.empty() ? "" : ", ") + Name(output) + ' ' + Format(scaling->gain) +
            " + " + std::to_string(scaling->offset);
  }
  if (!used.empty()) console.Note("gains and offsets: " + used);
}

OutputPlan PlanOutputs(const std::string& out, const std::vector<std::string>& inputs,
                       const OutputSet& outputs) {
  OutputPlan plan = {out, {}, {}, kRecordName, inputs};
  for (const Output output : kAllOutputs) {
    (outputs.Contains(output) ? plan.made : plan.others).push_back(FileName(output));
  }
  plan.made.emplace_back(kRecordName);
  return plan;
}

OutputPlan PlanRecipe(const std::string& file, const std::vector<std::string>& inputs) {
  const std::filesystem::path path(file);
  return {path.parent_path(), {path.filename().string()}, {}, {}, inputs};
}

double LapMs(int64_t& mark) {
  const int64_t now = cv::getTickCount();
  const double lap = static_cast<double>(now - mark) / cv::getTickFrequency() * 1000.0;
  mark = now;
  return lap;
}

void Reconstruct(const ReconstructOptions& options, const std::vector<std::string>& arguments) {
  RunRecord record;
  record.arguments = arguments;
  record.recipe = ParseRecipe(options);
  const Parameters& parameters = record.recipe.parameters;
  const std::vector<std::string> names = FilesOf(options);
  OutputFiles files(PlanOutputs(options.out, names, parameters.outputs));
  std::optional<OutputFiles> recipe_file;
  if (!options.save_recipe.empty()) recipe_file.emplace(PlanRecipe(options.save_recipe, names));
  Console console(options.quiet);
  int64_t mark = cv::getTickCount();

  console.Step("loading images");
  record.inputs = options.split_channels ? LoadChannels(names.front(), record.recipe.bits)
                                         : LoadImages(names, record.recipe.bits);
  RequireOneSize(record.inputs);
  std::vector<cv::Mat> images;
  for (const InputImage& input : record.inputs) images.push_back(input.pixels);
  record.load_ms = LapMs(mark);
  record.diagnostics = DiagnoseInputs(record.inputs, images, parameters, console);

  console.Step("choosing gains");
  Tool tool;
  LapMs(mark);
  const OutputSet given = record.recipe.kept_gains;
  record.recipe = ChooseGains(tool, images, record.recipe);
  for (const Output output : kAllOutputs) {
    const bool is_chosen = record.recipe.kept_gains.Contains(output) && !given.Contains(output);
    if (is_chosen) record.chosen.Add(output);
  }
  SayGains(parameters, console);
  record.choose_gains_ms = LapMs(mark);

  console.Step("reconstructing");
  cv::setNumThreads(kAllCores);  // for the height
  record.threads = cv::getNumThreads();
  const Results results = tool.ReconstructViews(images, parameters);
  cv::setNumThreads(kNoThreads);
  record.calls = tool.times();

  console.Step("writing files");
  for (const Output output : kAllOutputs) {
    if (parameters.outputs.Contains(output)) files.AddImage(FileName(output), results[output]);
  }
  files.AddText(kRecordName, ToJson(record));
  files.Commit();
  if (recipe_file) {
    recipe_file->AddText(std::filesystem::path(options.save_recipe).filename().string(),
                         WriteRecipe(record.recipe));
    recipe_file->Commit();
  }
  console.Note("wrote " + std::string(options.out));
}

}  // namespace

void AddReconstructCommand(CLI::App& app, const std::vector<std::string>& arguments) {
  const auto options = std::make_shared<ReconstructOptions>();
  CLI::App* const command = app.add_subcommand(
      "reconstruct", "Make pictures of the relief from 3 to 8 image files of one part");
  DeclareReconstructOptions(*command, *options);
  command->callback([options, arguments] { Reconstruct(*options, arguments); });
  command->footer(
      "Writes factor.png (brightness), curvature.png, magnitude.png, channel0.png, channel1.png "
      "(slopes), channel2.png (brightness), normal.png (the three channels), height.png (16-bit), "
      "and run.json with all that was used, found and timed. Replaces or removes the results that "
      "an earlier run.json in DIR lists, and no other file.\n\n"
      "Examples:\n"
      "  velostrix reconstruct part1 --out relief1\n"
      "  velostrix reconstruct part2 --out relief2 --recipe relief1/run.json\n"
      "  velostrix reconstruct lamp?.png --out ring --run cali --roi 100,50,800,600\n\n"
      "Exit codes: 0 done, 1 failed, 2 wrong arguments.");
}

}  // namespace velostrix::cli
