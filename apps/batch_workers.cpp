// Workers that read, run and write parts on several threads, each with its own tool.
#include "apps/batch_workers.h"

#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <system_error>

#include "apps/commands.h"
#include "apps/console.h"
#include "apps/drafts.h"
#include "apps/input_images.h"
#include "apps/measures.h"
#include "apps/part.h"
#include "apps/result_table.h"
#include "velostrix/version.h"

namespace velostrix::cli {
namespace {

using nlohmann::json;

constexpr int kThreadsOfWorker = 2;

json At(const json& object, const char* name) {
  const auto found = object.is_object() ? object.find(name) : object.end();
  return found == object.end() ? json() : *found;
}

json ReadRecord(const Part& part) {
  std::ifstream stream(std::filesystem::path(part.out) / kRecordName);
  return stream ? json::parse(stream, nullptr, false) : json();
}

// What is asked for besides the recipe and the options of its record.
json SettingsOf(const BatchPlan& plan) {
  const RunRecord& record = plan.part.record;
  json settings = {{"compression", plan.part.compression},
                   {"curvature_level", plan.curvature_level},
                   {"further", record.further}};
  for (const std::string& name : record.further) {
    if (name == kReportName) continue;
    settings["exports"] = {record.exports.decimate, record.exports.normals, record.exports.colours};
  }
  return settings;
}

// Whether an earlier run with this record made exactly these results, and its files still exist.
bool IsRecordOf(const json& record, const Part& part) {
  const RunRecord& wanted = part.record;
  const bool is_split = wanted.options.reading.split_channels;
  const size_t count = is_split ? 3 : part.files.size();
  const json mask = At(record, "mask");
  const bool is_same = At(record, "version") == VELOSTRIX_VERSION &&
                       At(record, "recipe") == json::parse(WriteRecipe(wanted.recipe)) &&
                       At(record, "options") == json::parse(ToJson(wanted.options)) &&
                       At(record, "batch") == json::parse(wanted.batch) &&
                       (mask.is_null() || At(mask, "sha256") == wanted.mask_sha256) &&
                       At(record, "inputs").size() == count;
  if (!is_same) return false;
  for (size_t k = 0; k < count; ++k) {
    const std::string& file = part.files[is_split ? 0 : k];
    if (At(record["inputs"][k], "sha256") != HashFile(file)) return false;
  }
  for (const json& name : At(record, "outputs")) {
    std::error_code ignored;
    const bool is_there = name.is_string() && std::filesystem::is_regular_file(
                                                  std::filesystem::path(part.out) / name, ignored);
    if (!is_there) return false;
  }
  return true;
}

// The row of the part if it is finished.
std::optional<std::string> FinishedRow(const std::string& name, const Part& part) {
  try {
    const json record = ReadRecord(part);
    if (IsRecordOf(record, part)) return DoneRow(name, record);
  } catch (const json::exception&) {
    return std::nullopt;  // not a record of ours
  }
  return std::nullopt;
}

class Lap {
 public:
  double Ms() {
    const auto now = std::chrono::steady_clock::now();
    const std::chrono::duration<double, std::milli> lap = now - mark_;
    mark_ = now;
    return lap.count();
  }

 private:
  std::chrono::steady_clock::time_point mark_ = std::chrono::steady_clock::now();
};

}  // namespace

Part BeginPart(const ManifestPart& entry, const BatchPlan& plan) {
  Part part = plan.part;
  part.files = entry.files;
  part.out = (std::filesystem::path(plan.out) / entry.name).string();
  part.record.batch = SettingsOf(plan).dump();
  return part;
}

void ChooseFiles(Part& part, const BatchPlan& plan) {
  RunRecord& record = part.record;
  if (record.options.choose == 0) return;
  const std::vector<std::string> given = std::move(part.files);
  part.files = ChosenFiles(given, record.options);
  if (plan.flat.empty()) return;
  record.recipe.flat = LoadFlat(FlatFiles(plan.flat, given, part.files), record.options.reading,
                                record.recipe.white, nullptr);
}

BatchWorkers::BatchWorkers(BatchPlan plan, int workers) : plan_(std::move(plan)) {
  for (int k = 0; k < workers; ++k) idle_tools_.push_back(std::make_unique<Tool>());
  for (int k = 0; k < workers * kThreadsOfWorker; ++k) {
    try {
      threads_.emplace_back([this] { Work(); });
    } catch (const std::system_error&) {
      if (threads_.empty()) throw;
    }
  }
}

void BatchWorkers::Stop() {
  {
    const std::lock_guard lock(mutex_);
    is_ended_ = true;
  }
  work_came_.notify_all();
  for (std::thread& thread : threads_) thread.join();
  threads_.clear();
}

void BatchWorkers::Add(ManifestPart part) {
  {
    const std::lock_guard lock(mutex_);
    waiting_.push_back(std::move(part));
  }
  work_came_.notify_one();
}

std::optional<Outcome> BatchWorkers::Wait(std::chrono::milliseconds time) {
  std::unique_lock lock(mutex_);
  if (!outcome_came_.wait_for(lock, time, [this] { return !outcomes_.empty(); })) return {};
  Outcome outcome = std::move(outcomes_.front());
  outcomes_.pop_front();
  return outcome;
}

void BatchWorkers::Work() {
  for (std::unique_lock lock(mutex_);;) {
    work_came_.wait(lock, [this] { return is_ended_ || !waiting_.empty(); });
    if (is_ended_) return;
    ManifestPart job = std::move(waiting_.front());
    waiting_.pop_front();
    lock.unlock();
    Outcome outcome = Process(std::move(job));
    lock.lock();
    outcomes_.push_back(std::move(outcome));
    outcome_came_.notify_one();
  }
}

Outcome BatchWorkers::Process(ManifestPart job) {
  Outcome outcome;
  Part part = BeginPart(job, plan_);
  outcome.part = std::move(job);
  const std::string& name = outcome.part.name;
  try {
    Lap lap;
    ChooseFiles(part, plan_);
    if (const auto row = FinishedRow(name, part)) {
      outcome.row = *row;
      outcome.status = Outcome::kWasDone;
      return outcome;
    }
    OutputFiles files(PlanOutputs(part));
    LoadImages(part);
    if (part.record.recipe.bits != plan_.part.record.recipe.bits) {
      throw Failure(
          "16-bit samples, and the recipe leaves open how many bits are in use; see "
          "--choose-gains");
    }
    LoadMask(part);
    DiagnoseImages(part);
    outcome.read_ms = lap.Ms();
    const Results results = Run(part);
    part.record.measures = MeasureResults(results, part.record.recipe.parameters,
                                          plan_.curvature_level, KeptPixels(part));
    outcome.run_ms = lap.Ms();
    WriteResults(part, results, files);
    outcome.write_ms = lap.Ms();
    outcome.row = DoneRow(name, ReadRecord(part));
    outcome.status = Outcome::kDone;
  } catch (const std::exception& e) {
    if (SignalHold::Kept() != 0) return outcome;
    outcome.error = Explain(e);
    outcome.row = FailedRow(name, outcome.error);
    outcome.status = Outcome::kFailed;
  }
  return outcome;
}

Results BatchWorkers::Run(Part& part) {
  std::unique_ptr<Tool> tool;
  {
    std::unique_lock lock(mutex_);
    tool_came_.wait(lock, [this] { return !idle_tools_.empty(); });
    tool = std::move(idle_tools_.back());
    idle_tools_.pop_back();
  }
  const auto give_back = [this](Tool* used) {
    const std::lock_guard lock(mutex_);
    idle_tools_.emplace_back(used);
    tool_came_.notify_one();
  };
  const std::unique_ptr<Tool, decltype(give_back)> borrowed(tool.release(), give_back);
  if (!part.mask.empty()) borrowed->SetMask(part.mask);
  Results results = RunPart(*borrowed, part);
  for (const Output output : kAllOutputs) results[output] = results[output].clone();
  return results;
}

}  // namespace velostrix::cli
