// `velostrix batch`: many parts by one recipe.
#include <signal.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <iostream>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <opencv2/core.hpp>
#include <string>
#include <vector>

#include "apps/batch_check.h"
#include "apps/batch_gains.h"
#include "apps/batch_progress.h"
#include "apps/batch_workers.h"
#include "apps/commands.h"
#include "apps/console.h"
#include "apps/csv.h"
#include "apps/drafts.h"
#include "apps/machine.h"
#include "apps/manifest.h"
#include "apps/output_files.h"
#include "apps/parallel.h"
#include "apps/reconstruct_options.h"
#include "apps/result_table.h"
#include "apps/shard.h"
#include "apps/watched_folder.h"
#include "velostrix/recipe.hpp"

namespace velostrix::cli {
namespace {

struct BatchOptions {
  std::vector<std::string> parts;
  ReconstructOptions part;  // of every part
  std::string choose_gains;
  std::string shard = "1/1";
  int workers = 0;  // 0: by cores and memory
  bool is_check = false;
  std::string watched;
  size_t images = 0;  // of a watched part; 0: any number
  double quiet_seconds = 1.0;
  int curvature_level = BatchPlan().curvature_level;
};

void WriteText(const std::string& folder, const std::string& name, const std::string& text) {
  OutputFiles file({folder, {name}, {}, {}, {}});
  file.AddText(name, text);
  file.Commit();
}

// How many parts of so many pixels and further files the machine can run at the same time.
int Workers(int64_t pixels, size_t further) {
  // Bytes a pixel with 8 images: the tool with the height's vectors; for each of two parts in work
  // the decoded images, the results and the encoded files.
  constexpr int64_t kBytes = 84 + 5 * 8 + 2 * (4 * 8 + 24);
  constexpr int64_t kFurtherBytes = 2 * 64;  // a mesh has 53
  const int64_t bytes = kBytes + static_cast<int64_t>(further) * kFurtherBytes;
  const int64_t fitting = UsableMemory() / 10 * 8 / std::max<int64_t>(1, pixels * bytes);
  return static_cast<int>(std::clamp<int64_t>(fitting, 1, UsableCores()));
}

// The rows of the table, in the order in which parts were first named.
class Table {
 public:
  Table(std::string folder, std::string name)
      : folder_(std::move(folder)), name_(std::move(name)) {}

  // Reads the rows that the file has.
  void Load() {
    const std::string file = (std::filesystem::path(folder_) / name_).string();
    if (!std::filesystem::exists(file)) return;
    for (const std::vector<std::string>& cells : ReadTable(file)) {
      Set(cells.front(), CsvLine(cells));
    }
  }
  void Set(const std::string& part, const std::string& row) {
    const auto [place, is_new] = places_.emplace(part, rows_.size());
    if (is_new) rows_.emplace_back();
    rows_[place->second] = row;
  }
  void Save() const {
    std::string text = TableHeader();
    for (const std::string& row : rows_) text += row;
    WriteText(folder_, name_, text);
  }

 private:
  const std::string folder_;
  const std::string name_;
  std::vector<std::string> rows_;
  std::map<std::string, size_t> places_;
};

// Waits for the next finished part, reports it and adds it to the table; empty after the time.
std::optional<Outcome> TakeOutcome(BatchWorkers& team, std::chrono::milliseconds time,
                                   BatchProgress& progress, Table& table) {
  std::optional<Outcome> outcome = team.Wait(time);
  if (outcome && outcome->status != Outcome::kOpen) {
    progress.Count(*outcome);
    table.Set(outcome->part.name, outcome->row);
  }
  return outcome;
}

// Stops the parts in work; returns the signal that asked for it, if any.
int Stop(BatchWorkers& team, BatchProgress& progress, Table& table) {
  team.Stop();
  while (TakeOutcome(team, std::chrono::milliseconds(0), progress, table)) {
  }
  const int signal = SignalHold::Take();
  table.Save();
  progress.Summarise();
  return signal;
}

// Runs the parts of a folder until a signal comes.
void WatchFolder(const BatchOptions& options, const BatchPlan& plan, Console& console) {
  const auto quiet_time = std::chrono::duration<double>(options.quiet_seconds);
  WatchedFolder folder(options.watched, options.images, quiet_time);
  std::error_code ignored;
  if (std::filesystem::equivalent(options.watched, plan.out, ignored)) {
    throw Failure(plan.out + ": has the images, and would have the results; give another --out");
  }
  Table table(plan.out, TableName({}));
  table.Load();
  BatchProgress progress(0, console);
  const SignalHold signals;
  BatchWorkers team(plan, options.workers != 0 ? options.workers : UsableCores());
  bool is_saved = false;
  for (bool is_first = true; SignalHold::Kept() == 0; is_first = false) {
    for (ManifestPart& part : folder.Look()) team.Add(std::move(part));
    if (is_first) console.Note("watching " + options.watched);
    constexpr std::chrono::milliseconds kBetweenLooks(200);
    while (const auto outcome = TakeOutcome(team, kBetweenLooks, progress, table)) {
      const bool went_well = outcome->status != Outcome::kFailed;
      folder.Through(outcome->part.name, went_well);
      is_saved = false;
    }
    progress.Tick();
    if (!is_saved) table.Save();
    is_saved = true;
  }
  Stop(team, progress, table);
}

void RunParts(const std::vector<ManifestPart>& parts, const BatchPlan& plan, int workers,
              const std::string& table_name, Console& console) {
  Table table(plan.out, table_name);
  for (const ManifestPart& part : parts) table.Set(part.name, OpenRow(part.name));
  BatchProgress progress(parts.size(), console);
  int signal = 0;
  {
    const SignalHold signals;
    BatchWorkers team(plan, workers);
    for (const ManifestPart& part : parts) team.Add(part);
    while (progress.through() < parts.size() && SignalHold::Kept() == 0) {
      TakeOutcome(team, std::chrono::milliseconds(100), progress, table);
      if (progress.Tick()) table.Save();
    }
    signal = Stop(team, progress, table);
    const size_t open = parts.size() - progress.through();
    if (open != 0) {
      console.Warn("interrupted; " + std::to_string(open) +
                   " parts are open: repeat the command to continue");
    }
  }
  if (signal != 0) raise(signal);
  if (progress.failed() != 0) {
    throw Failure(std::to_string(progress.failed()) + " of " + std::to_string(parts.size()) +
                  " parts failed; see the table " + plan.out + '/' + table_name);
  }
}

// Prints the parts as a manifest of absolute paths.
void PrintParts(const std::vector<ManifestPart>& parts) {
  for (const ManifestPart& part : parts) {
    nlohmann::ordered_json line = {{"part", part.name}};
    for (const std::string& file : part.files) {
      line["images"].push_back(std::filesystem::absolute(file).string());
    }
    std::cout << line.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace) << '\n';
  }
}

// What is the same for all parts is read once.
BatchPlan PlanBatch(const BatchOptions& options, const std::vector<std::string>& arguments) {
  BatchPlan plan;
  plan.part = ParsePart(options.part, arguments);
  plan.out = options.part.out;
  plan.curvature_level = options.curvature_level;
  RunRecord& record = plan.part.record;
  const RunOptions& asked = record.options;
  if (options.images > VELOSTRIX_MOST_IMAGES && asked.choose == 0) {
    throw UsageError("--images " + std::to_string(options.images) +
                     ": expected 3 to 8; --choose 8 takes those that differ most");
  }
  plan.flat = FlatFiles(options.part.flat, {}, {});
  if (!plan.flat.empty() && asked.choose == 0) {
    record.recipe.flat = LoadFlat(plan.flat, asked.reading, record.recipe.white, nullptr);
  }
  if (!asked.mask.empty() && asked.mask != "auto") {
    plan.part.mask = DecodeMask(asked.mask);
    record.mask_sha256 = HashFile(asked.mask);
  }
  return plan;
}

void RunBatch(const BatchOptions& options, const std::vector<std::string>& arguments) {
  if (options.parts.empty() == options.watched.empty()) {
    throw UsageError(options.parts.empty()
                         ? "no parts given; expected a manifest, folders or --watch"
                         : "--watch: expected without a manifest or folders");
  }
  BatchPlan plan = PlanBatch(options, arguments);
  Recipe& recipe = plan.part.record.recipe;
  const bool is_choosing = !options.choose_gains.empty();
  if (!is_choosing) RequireGains(recipe);
  const Shard shard = ParseShard(options.shard);
  if (!options.watched.empty()) {
    Console console(options.part.quiet);
    if (is_choosing)
      throw UsageError("--choose-gains: not with --watch; run a batch with it first");
    LimitParallel(1);
    WatchFolder(options, plan, console);
    return;
  }
  const Manifest manifest = ReadManifest(options.parts, plan.part.record.options);
  Console console(options.part.quiet);

  console.Step("checking parts");
  for (const std::string& column : manifest.unused)
    console.Note("column " + column + " is not used");
  std::vector<ManifestPart> parts;
  for (size_t k = 0; k < manifest.parts.size(); ++k) {
    if (shard.Has(k)) parts.push_back(manifest.parts[k]);
  }
  std::vector<std::string> problems = manifest.problems;
  const int64_t pixels = CheckParts(parts, plan, is_choosing, problems);
  for (const std::string& problem : problems) console.Complain(problem);
  if (!problems.empty()) {
    throw Failure(std::to_string(problems.size()) +
                  (problems.size() == 1 ? " problem" : " problems") + "; no part was run");
  }
  if (options.is_check) {
    PrintParts(parts);
    console.Note(std::to_string(parts.size()) + " parts, nothing wrong with them");
    return;
  }

  if (is_choosing) {
    recipe = ChooseGainsBy(GainParts(options.choose_gains, manifest.parts), plan, console);
    WriteText(plan.out, "recipe.json", RecipeText(plan.part.record));
  }
  const int workers =
      options.workers != 0 ? options.workers : Workers(pixels, plan.part.record.further.size());
  // A worker uses one core for height and files; a single one, where memory is short, uses all.
  const bool is_alone = options.workers == 0 && workers == 1;
  cv::setNumThreads(is_alone ? kAllCores : kNoThreads);
  LimitParallel(is_alone ? 0 : 1);
  console.Note(std::to_string(parts.size()) + " parts, " + std::to_string(workers) +
               (workers == 1 ? " worker" : " workers"));
  RunParts(parts, plan, workers, TableName(shard), console);
}

}  // namespace

void AddBatchCommand(CLI::App& app, const std::vector<std::string>& arguments) {
  const auto options = std::make_shared<BatchOptions>();
  CLI::App* const command =
      app.add_subcommand("batch", "Make images of the relief of many parts by one recipe");
  command
      ->add_option(
          "PARTS", options->parts,
          "Manifest of the parts (a .csv or .jsonl file), or one folder of images for each part")
      ->type_name("");
  DeclareReading(*command, options->part);
  DeclareMethod(*command, options->part);
  DeclareResults(*command, options->part);
  AddOut(*command, options->part.out,
         "Folder to write to: a folder for each part and the table results.csv")
      ->type_name("DIR");
  command
      ->add_option(
          "--choose-gains", options->choose_gains,
          "Choose the gains that the recipe leaves open from these parts, or from a sample "
          "of all, so that none of them exceeds the grey levels; DIR/recipe.json keeps them")
      ->type_name("PART,...|sample");
  command
      ->add_option("--shard", options->shard,
                   "Run only share I of N, on one of N machines; velostrix merge joins the tables. "
                   "auto/N or auto: I is the task of a Slurm job array or a Kubernetes indexed job")
      ->type_name("I/N");
  command
      ->add_option("--workers", options->workers,
                   "Parts that run at the same time; when not given, as many as cores and memory "
                   "allow")
      ->check(CLI::Range(1, 1024))
      ->type_name("N");
  command
      ->add_option("--curvature-level", options->curvature_level,
                   "The column curvature_share counts pixels of the curvature image that are more "
                   "than this from its offset")
      ->check(CLI::Range(0, 255))
      ->capture_default_str()
      ->type_name("LEVELS");
  command->add_flag("--check", options->is_check,
                    "Only look for problems; print the parts as a manifest of absolute paths");
  command
      ->add_option("--watch", options->watched,
                   "Run every part, a folder of images in this one, as soon as it is complete, "
                   "until Ctrl-C or SIGTERM")
      ->type_name("FOLDER");
  command
      ->add_option("--images", options->images,
                   "Images that make a watched part complete; 3 or more when not given")
      ->check(CLI::Range(VELOSTRIX_FEWEST_IMAGES + 0, 999))
      ->type_name("N");
  command
      ->add_option("--quiet-time", options->quiet_seconds,
                   "A watched part is complete when its files have not changed for this time")
      ->check(CLI::Range(0.0, 3600.0))
      ->check(IsNumber())
      ->capture_default_str()
      ->type_name("SECONDS");
  command->add_flag("--quiet", options->part.quiet, "Print only errors");
  command->callback([options, arguments] { RunBatch(*options, arguments); });
  command->footer(
      "All problems of the manifest are reported before the first part is run. Finished parts, "
      "whose images and recipe are unchanged, are not run again: repeat the command after an "
      "interruption or when there are new parts.\n\n"
      "Examples:\n"
      "  velostrix batch 'parts/*/' --out relief --choose-gains sample\n"
      "  velostrix batch parts.csv --out relief --recipe part1/run.json\n"
      "  velostrix batch parts.csv --out relief --recipe part1/run.json --shard 3/8\n"
      "  velostrix batch --watch station --out relief --recipe part1/run.json\n\n"
      "Exit codes: 0 all parts done, 1 some failed, 2 wrong arguments.");
}

}  // namespace velostrix::cli
