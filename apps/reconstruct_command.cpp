// `velostrix reconstruct`: image files of one part under N lamps to pictures of its relief.
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "apps/commands.h"
#include "apps/console.h"
#include "apps/diagnostics.h"
#include "apps/input_images.h"
#include "apps/output_files.h"
#include "apps/reconstruct_options.h"
#include "apps/run_record.h"
#include "velostrix/auto_gain.hpp"
#include "velostrix/tool.hpp"

namespace velostrix::cli {
namespace {

std::string Format(double value) {
  std::ostringstream text;
  text.precision(3);
  text << value;
  return text.str();
}

// Bits as in LoadImages.
std::vector<InputImage> LoadInputs(const ReconstructOptions& options, const Parameters& parameters,
                                   int& bits) {
  std::vector<InputImage> inputs = options.split_channels
                                       ? LoadChannels(options.files.front(), bits)
                                       : LoadImages(options.files, bits);
  RequireOneSize(inputs);
  const cv::Rect frame({0, 0}, inputs.front().pixels.size());
  if (parameters.region && (*parameters.region & frame) != *parameters.region) {
    throw Failure("--roi " + options.region +
                  ": not inside the images; expected corners from 0,0 to " +
                  std::to_string(frame.width - 1) + ',' + std::to_string(frame.height - 1));
  }
  return inputs;
}

Diagnostics DiagnoseInputs(const std::vector<InputImage>& inputs, const Parameters& parameters,
                           Console& console) {
  std::vector<cv::Mat> parts;
  std::vector<std::string> names;
  for (const InputImage& input : inputs) {
    parts.push_back(parameters.region ? input.pixels(*parameters.region) : input.pixels);
    names.push_back(input.file);
  }
  const bool with_ring = parameters.run == Run::kCalibrated;
  Diagnostics diagnostics = Diagnose(parts, names, with_ring);
  for (size_t k = 0; k < inputs.size(); ++k) {
    const Exposure& exposure = diagnostics.exposures[k];
    const std::string& note = inputs[k].note;
    console.Note(names[k] + ": " + Format(100.0 * exposure.saturated_share) + " % saturated, " +
                 Format(100.0 * exposure.black_share) + " % black" + (note.empty() ? "" : "; ") +
                 note);
  }
  std::string values;
  for (const double value : diagnostics.singular_values) values += ' ' + Format(value);
  console.Note("difference of the lamps (relative singular values):" + values);
  if (const auto& unexplained = diagnostics.unexplained) {
    console.Note("not explained by the lamps of the ring: " + Format(100.0 * unexplained->by_ring) +
                 " %, by any lamps: " + Format(100.0 * unexplained->by_any) + " %");
  } else if (with_ring) {
    console.Note("whether the lamps are those of the ring cannot be told from these images");
  }
  for (const std::string& warning : diagnostics.warnings) console.Warn(warning);
  return diagnostics;
}

// The parameters with those gains and offsets that were not given.
Parameters CompleteParameters(Tool& tool, const std::vector<cv::Mat>& images,
                              const Request& request, Console& console) {
  Parameters parameters = ChooseGains(tool, images, request.parameters, request.given_gains);
  for (const auto& [output, offset] : request.given_offsets) {
    Scaling(parameters, output)->offset = offset;
  }
  std::string used;
  for (const Output output : kAllOutputs) {
    const OutputScaling* const scaling = Scaling(parameters, output);
    if (scaling == nullptr || !parameters.outputs.Contains(output)) continue;
    used += std::string(used.empty() ? "" : ", ") + Name(output) + ' ' + Format(scaling->gain) +
            " + " + std::to_string(scaling->offset);
  }
  if (!used.empty()) console.Note("gains and offsets: " + used);
  return parameters;
}

OutputPlan PlanOutputs(const ReconstructOptions& options, const OutputSet& outputs) {
  OutputPlan plan = {options.out, {}, {}, kRecordName, options.files};
  for (const Output output : kAllOutputs) {
    (outputs.Contains(output) ? plan.made : plan.others).push_back(FileName(output));
  }
  plan.made.emplace_back(kRecordName);
  return plan;
}

double LapMs(int64_t& mark) {
  const int64_t now = cv::getTickCount();
  const double lap = static_cast<double>(now - mark) / cv::getTickFrequency() * 1000.0;
  mark = now;
  return lap;
}

void Reconstruct(const ReconstructOptions& options) {
  const Request request = ParseRequest(options);
  OutputFiles files(PlanOutputs(options, request.parameters.outputs));
  Console console(options.quiet);
  RunRecord record;
  int64_t mark = cv::getTickCount();

  console.Step("loading images");
  record.bits = options.bits;
  record.inputs = LoadInputs(options, request.parameters, record.bits);
  std::vector<cv::Mat> images;
  for (const InputImage& input : record.inputs) images.push_back(input.pixels);
  record.load_ms = LapMs(mark);
  record.diagnostics = DiagnoseInputs(record.inputs, request.parameters, console);

  console.Step("choosing gains");
  Tool tool;
  LapMs(mark);
  record.parameters = CompleteParameters(tool, images, request, console);
  record.choose_gains_ms = LapMs(mark);

  console.Step("reconstructing");
  cv::setNumThreads(kAllCores);  // for the height
  const Results results = tool.ReconstructViews(images, record.parameters);
  cv::setNumThreads(kNoThreads);
  record.calls = tool.times();

  console.Step("writing files");
  for (const Output output : kAllOutputs) {
    if (!record.parameters.outputs.Contains(output)) continue;
    files.AddImage(FileName(output), results[output]);
  }
  files.AddText(kRecordName, ToJson(record, options, request));
  files.Commit();
  console.Note("wrote " + std::string(options.out));
}

}  // namespace

void AddReconstructCommand(CLI::App& app) {
  const auto options = std::make_shared<ReconstructOptions>();
  CLI::App* const command = app.add_subcommand(
      "reconstruct", "Make pictures of the relief from 3 to 8 image files of one part");
  DeclareReconstructOptions(*command, *options);
  command->callback([options] { Reconstruct(*options); });
  command->footer(
      "Writes factor.png (brightness), curvature.png, magnitude.png, channel0.png, channel1.png "
      "(slopes), channel2.png (brightness), normal.png (the three channels), height.png (16-bit), "
      "and run.json with all that was used, found and timed. Replaces or removes the results that "
      "an earlier run.json in DIR lists, and no other file. Exit codes: 0 done, 1 failed, 2 wrong "
      "arguments.");
}

}  // namespace velostrix::cli
