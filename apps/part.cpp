// The steps from the image files of a part to images of its relief, which commands combine.
#include "apps/part.h"

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <sstream>
#include <system_error>
#include <utility>

#include "apps/choose_images.h"
#include "apps/commands.h"
#include "apps/input_images.h"
#include "apps/parallel.h"
#include "apps/report.h"
#include "velostrix/diagnostics.hpp"
#include "velostrix/mask.hpp"
#include "velostrix/recipe.hpp"

namespace velostrix::cli {
namespace {

std::string Format(double value) {
  std::ostringstream text;
  text.precision(3);
  text << value;
  return text.str();
}

double MillisecondsSince(int64_t start) {
  return static_cast<double>(cv::getTickCount() - start) / cv::getTickFrequency() * 1000.0;
}

std::string PartReport(const Part& part, const Results& results) {
  std::vector<ReportInput> inputs;
  for (const InputImage& input : part.record.inputs) {
    inputs.push_back({input.file, input.pixels, {}});
  }
  return MakeReport(ToJson(part.record), part.out, results, inputs,
                    part.record.recipe.parameters.region);
}

// The parameters with gains in grey levels per slope of the part. Slopes of unknown lamps are in
// units of their singular vectors: one unit changes the brightness by s1 / s0 or s2 / s0, and is a
// slope of sqrt(2) times that under lamps all around, about 45 degrees from the camera's axis. One
// unit for both slopes keeps shapes.
Parameters WithSlopeUnits(const RunRecord& record) {
  Parameters parameters = record.recipe.parameters;
  const double* const s = record.diagnostics.singular_values;
  const double unit = std::sqrt(2.0 * s[1] * s[2]) / s[0];
  const bool is_estimated = parameters.run != Run::kCalibrated && unit > 0.0;
  for (const size_t k : {0, 1}) {
    if (is_estimated) parameters.channel[k].gain /= unit;
  }
  return parameters;
}

// Replaces a single folder by its files; returns whether it was one.
bool Unfold(std::vector<std::string>& files) {
  std::error_code ignored;  // what cannot be looked at is refused as a file
  const bool is_folder = files.size() == 1 && std::filesystem::is_directory(files.front(), ignored);
  if (is_folder) files = ImagesIn(files.front());
  return is_folder;
}

}  // namespace

std::vector<std::string> PartFiles(std::vector<std::string> files, const RunOptions& options) {
  const std::string given = files.empty() ? "" : files.front();
  const bool is_folder = Unfold(files);
  const size_t count = files.size();
  const bool is_many = count > VELOSTRIX_MOST_IMAGES;
  const bool is_split = options.reading.split_channels;
  const bool is_enough =
      is_split ? count == 1 : count >= VELOSTRIX_FEWEST_IMAGES && (!is_many || options.choose > 0);
  if (is_enough) return files;
  std::string reason;
  for (const std::string& file : files) {
    if (reason.empty()) reason = WhyUnreadable(file);
  }
  if (is_folder) reason = "in the folder " + given;
  throw UsageError("IMAGE: " + std::to_string(count) +
                   (count == 1 ? " file given" : " files given") +
                   (reason.empty() ? "" : " (" + reason + ")") + "; expected " +
                   (is_split  ? "1 colour file with --split-channels"
                    : is_many ? "3 to 8 of one scene; --choose 8 takes those that differ most"
                              : "3 to 8 of one scene"));
}

std::vector<std::string> ChosenFiles(const std::vector<std::string>& files,
                                     const RunOptions& options) {
  const auto count = static_cast<size_t>(options.choose);
  if (count == 0 || files.size() <= count) return files;
  std::vector<std::string> chosen;
  for (const size_t k : ChooseImages(files, count)) chosen.push_back(files[k]);
  return chosen;
}

std::vector<std::string> FlatFiles(std::vector<std::string> flat, std::vector<std::string> given,
                                   const std::vector<std::string>& read) {
  Unfold(flat);
  Unfold(given);
  if (flat.size() != given.size() || given == read) return flat;
  std::vector<std::string> files;
  for (size_t k = 0; k < given.size(); ++k) {
    const bool is_read = std::find(read.begin(), read.end(), given[k]) != read.end();
    if (is_read) files.push_back(flat[k]);
  }
  return files;
}

OutputPlan PlanOutputs(const Part& part) {
  OutputPlan plan = {part.out, {}, {}, kRecordName, part.files, part.compression};
  if (!part.record.options.mask.empty()) plan.inputs.push_back(part.record.options.mask);
  plan.inputs.insert(plan.inputs.end(), part.flat_files.begin(), part.flat_files.end());
  const OutputSet& outputs = part.record.recipe.parameters.outputs;
  for (const Output output : kAllOutputs) {
    (outputs.Contains(output) ? plan.made : plan.others).push_back(FileName(output));
  }
  const std::vector<std::string>& further = part.record.further;
  for (const char* name : kFurtherFiles) {
    const bool is_made = std::find(further.begin(), further.end(), name) != further.end();
    (is_made ? plan.made : plan.others).emplace_back(name);
  }
  (part.view_without ? plan.made : plan.others).emplace_back(kHeightViewName);
  plan.made.emplace_back(kRecordName);
  return plan;
}

void LoadImages(Part& part) {
  const int64_t start = cv::getTickCount();
  RunRecord& record = part.record;
  record.inputs = LoadImages(part.files, part.flat_files, record.options.reading, record.recipe);
  RequireOneSize(record.inputs);
  record.load_ms = MillisecondsSince(start);
}

cv::Mat DecodeMask(const std::string& file) {
  cv::Mat mask = DecodeFile(file);
  if (mask.type() == CV_8UC1) return mask;
  throw Failure(file + ": " + cv::typeToString(mask.type()) +
                "; expected a mask of 8-bit grey, 0 for pixels to leave out");
}

void LoadMask(Part& part) {
  RunRecord& record = part.record;
  const std::string& file = record.options.mask;
  if (file.empty()) return;
  if (file == "auto") {
    part.mask = LitPixels(Images(part));
  } else if (part.mask.empty()) {
    part.mask = DecodeMask(file);
    record.mask_sha256 = HashFile(file);
  }
  const cv::Size size = record.inputs.front().pixels.size();
  if (part.mask.size() != size) {
    throw Failure(file + ": " + std::to_string(part.mask.cols) + " x " +
                  std::to_string(part.mask.rows) + " pixels, but the images have " +
                  std::to_string(size.width) + " x " + std::to_string(size.height) +
                  "; expected a mask as large as they are");
  }
  record.kept_share = cv::countNonZero(part.mask) / static_cast<double>(part.mask.total());
}

void SetMask(Tool& tool, Part& part, Console& console) {
  LoadMask(part);
  if (part.mask.empty()) return;
  tool.SetMask(part.mask);
  console.Note("left out by the mask: " + Format(100.0 * (1.0 - part.record.kept_share)) +
               " % of the pixels");
}

cv::Mat KeptPixels(const Part& part) {
  const std::optional<cv::Rect>& region = part.record.recipe.parameters.region;
  return part.mask.empty() || !region ? part.mask : part.mask(*region);
}

std::vector<cv::Mat> Images(const Part& part) {
  std::vector<cv::Mat> images;
  for (const InputImage& input : part.record.inputs) images.push_back(input.pixels);
  return images;
}

void DiagnoseImages(Part& part) {
  const int64_t start = cv::getTickCount();
  std::vector<std::string> names;
  for (const InputImage& input : part.record.inputs) names.push_back(input.file);
  Diagnostics& diagnostics = part.record.diagnostics;
  diagnostics = Diagnose(Images(part), part.record.recipe.parameters, names, part.mask);
  for (const InputImage& input : part.record.inputs) {
    if (!input.warning.empty()) diagnostics.warnings.push_back(input.warning);
  }
  part.record.diagnose_ms = MillisecondsSince(start);
}

void SayDiagnostics(const Part& part, Console& console) {
  const std::vector<InputImage>& inputs = part.record.inputs;
  const Diagnostics& diagnostics = part.record.diagnostics;
  for (size_t k = 0; k < inputs.size(); ++k) {
    const VelostrixExposure& exposure = diagnostics.exposures[k];
    const std::string& note = inputs[k].note;
    console.Note(inputs[k].file + ": " + Format(100.0 * exposure.saturated_share) +
                 " % saturated, " + Format(100.0 * exposure.black_share) + " % black" +
                 (note.empty() ? "" : "; ") + note);
  }
  std::string values;
  for (size_t k = 0; k < inputs.size(); ++k) values += ' ' + Format(diagnostics.singular_values[k]);
  console.Note("difference of the lamps (relative singular values):" + values);
  if (diagnostics.unexplained_by_ring >= 0.0) {
    console.Note("not explained by the lamps of the ring: " +
                 Format(100.0 * diagnostics.unexplained_by_ring) +
                 " %, by any lamps: " + Format(100.0 * diagnostics.unexplained_by_any) + " %");
  } else if (part.record.recipe.parameters.run == Run::kCalibrated) {
    console.Note("these images do not show whether the lamps are those of the ring");
  }
  if (diagnostics.noise_share >= 0.0) {
    console.Note("noise in the curvature: " + Format(100.0 * diagnostics.noise_share) + " %");
  }
  for (const std::string& warning : diagnostics.warnings) console.Warn(warning);
}

void ChooseGains(Tool& tool, Part& part) {
  const int64_t start = cv::getTickCount();
  RunRecord& record = part.record;
  const OutputSet given = record.recipe.kept_gains;
  record.recipe = ChooseGains(tool, Images(part), record.recipe, &part.known.emplace());
  for (const Output output : kAllOutputs) {
    const bool is_chosen = record.recipe.kept_gains.Contains(output) && !given.Contains(output);
    if (is_chosen) record.chosen.Add(output);
  }
  record.choose_gains_ms = MillisecondsSince(start);
}

void DiagnoseAndChooseGains(Tool& tool, Part& part) {
  Part diagnosed = part;  // the gains change the recipe meanwhile
  InParallel(2, [&](size_t k) { k == 0 ? ChooseGains(tool, part) : DiagnoseImages(diagnosed); });
  part.record.diagnostics = diagnosed.record.diagnostics;
  part.record.diagnose_ms = diagnosed.record.diagnose_ms;
}

void SayGains(const Part& part, Console& console) {
  const Parameters& parameters = part.record.recipe.parameters;
  std::string used;
  for (const Output output : kAllOutputs) {
    const OutputScaling* const scaling = Scaling(parameters, output);
    if (scaling == nullptr || !parameters.outputs.Contains(output)) continue;
    used += std::string(used.empty() ? "" : ", ") + Name(output) + ' ' + Format(scaling->gain) +
            " + " + std::to_string(scaling->offset);
  }
  if (!used.empty()) console.Note("gains and offsets: " + used);
}

Results RunPart(Tool& tool, Part& part) {
  part.record.threads = cv::getNumThreads();
  Results results = tool.ReconstructViews(Images(part), part.record.recipe.parameters,
                                          part.known ? &*part.known : nullptr);
  part.record.calls = tool.times();
  part.record.orientation = tool.orientation();
  return results;
}

void SayOrientation(const Part& part, Console& console) {
  const OrientationFound& found = part.record.orientation;
  if (found.curl_as_is < 0.0) return;
  std::string done;
  const auto add = [&](bool is_so, const char* what) {
    if (is_so) done += std::string(done.empty() ? "" : ", ") + what;
  };
  add(found.is_mirrored, "mirrored");
  add(found.is_turned, "turned by a quarter");
  add(found.is_inverted, "inverted");
  std::string text = done.empty() ? "not mirrored or turned" : done + "; corrected";
  if (!found.is_clear) text += "; not clear whether they are mirrored";
  console.Note("orientation of the slopes: " + text + " (curl share " + Format(found.curl_as_is) +
               ", when mirrored " + Format(found.curl_mirrored) + ')');
  if (found.is_sign_open) {
    console.Note(
        "the sign is open: bumps may appear as dents; give the direction of a lamp (--lamp)");
  }
}

void WriteResults(Part& part, const Results& results, OutputFiles& files) {
  int64_t start = cv::getTickCount();
  RunRecord& record = part.record;
  std::vector<std::pair<std::string, cv::Mat>> images;
  for (const Output output : kAllOutputs) {
    const bool is_asked = record.recipe.parameters.outputs.Contains(output);
    if (is_asked) images.emplace_back(FileName(output), results[output]);
  }
  if (part.view_without) {
    const int border = HeightBorder(record.recipe.parameters);
    record.height_view =
        ViewHeight(results[Output::kHeight], *part.view_without, border, KeptPixels(part));
    images.emplace_back(kHeightViewName, record.height_view->image);
  }
  files.AddImages(images);
  for (const std::string& name : record.further) {
    if (name == kReportName) files.AddText(name, PartReport(part, results));
  }
  ExportOptions exports = record.exports;
  exports.kept = KeptPixels(part);
  AddExports(record.further, exports, results, WithSlopeUnits(record), files);
  record.encode_ms = MillisecondsSince(start);
  start = cv::getTickCount();
  files.Commit([&] {
    record.write_ms = MillisecondsSince(start);
    return ToJson(record);
  });
}

}  // namespace velostrix::cli
