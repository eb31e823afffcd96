// `velostrix report`: writes the report of existing results.
#include <algorithm>
#include <filesystem>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>

#include "apps/commands.h"
#include "apps/console.h"
#include "apps/output_files.h"
#include "apps/report.h"
#include "apps/result_folder.h"
#include "apps/run_record.h"

namespace velostrix::cli {
namespace {

namespace fs = std::filesystem;

struct ReportOptions {
  std::string folder;
  std::string out;
  bool quiet = false;
};

// The record with the report in its list, so that the next run replaces or removes it.
std::string WithReport(const std::string& record) {
  auto json = nlohmann::ordered_json::parse(record);
  auto& outputs = json["outputs"];
  if (std::find(outputs.begin(), outputs.end(), kReportName) == outputs.end()) {
    outputs.push_back(kReportName);
  }
  return json.dump(2, ' ', false, nlohmann::ordered_json::error_handler_t::replace) + '\n';
}

void Report(const ReportOptions& options) {
  Console console(options.quiet);
  console.Step("reading results");
  const ResultFolder folder = ReadResults(options.folder);
  const std::vector<ReportInput> inputs = ReadInputs(folder);
  OutputPlan plan = {options.folder, {kReportName, kRecordName}, {}, kRecordName, {}};
  for (const ReportInput& input : inputs) plan.inputs.push_back(input.file);
  if (!options.out.empty()) {
    const fs::path out = options.out;
    plan = {out.parent_path(), {out.filename().string()}, {}, {}, plan.inputs};
    for (const std::string& name : folder.outputs) {
      plan.inputs.push_back((fs::path(options.folder) / name).string());
    }
    plan.inputs.push_back((fs::path(options.folder) / kRecordName).string());
  }
  OutputFiles files(plan);

  console.Step("writing the report");
  files.AddText(plan.made.front(), MakeReport(folder.record, options.folder, folder.results, inputs,
                                              folder.recipe.parameters.region));
  if (plan.made.size() > 1) files.AddText(kRecordName, WithReport(folder.record));
  files.Commit();
  for (const ReportInput& input : inputs) {
    if (input.pixels.empty()) console.Warn("not shown: " + input.missing);
  }
  console.Note("wrote " + (plan.folder / plan.made.front()).string());
}

}  // namespace

void AddReportCommand(CLI::App& app) {
  const auto options = std::make_shared<ReportOptions>();
  CLI::App* const command = app.add_subcommand(
      "report", "Write a page that shows results: relighting, 3-D view, profiles, record");
  command->add_option("FOLDER", options->folder, "Folder that velostrix reconstruct wrote")
      ->required()
      ->type_name("");
  command
      ->add_option("--out", options->out,
                   "The page to write; when not given, report.html in the folder")
      ->type_name("FILE");
  command->add_flag("--quiet", options->quiet, "Print only errors");
  command->callback([options] { Report(*options); });
  command->footer(
      "The page opens in any browser and needs no network. It stays below 8 MB: its pictures are "
      "reduced by a factor that it names.\n\n"
      "Example:\n"
      "  velostrix report relief1\n\n"
      "Exit codes: 0 done, 1 failed, 2 wrong arguments.");
}

}  // namespace velostrix::cli
