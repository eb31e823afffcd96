// Workers that read, run and write parts on several threads, each with its own tool.
#pragma once

#include <chrono>
#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "apps/manifest.h"
#include "apps/part.h"
#include "velostrix/tool.hpp"

namespace velostrix::cli {

// What all parts of a batch have in common.
struct BatchPlan {
  Part part;                      // as each begins; its recipe has all gains
  std::vector<std::string> flat;  // references of all lamps, where parts choose some of them
  std::string out;                // the folder that has a folder for each part
  int curvature_level = 64;
};

// The part before its first step.
Part BeginPart(const ManifestPart& part, const BatchPlan& plan);

// Leaves the part those of its files that are to be read, and their flat fields.
void ChooseFiles(Part& part, const BatchPlan& plan);

struct Outcome {
  enum Status { kOpen, kDone, kWasDone, kFailed };

  ManifestPart part;
  Status status = kOpen;  // kOpen: a signal came; kWasDone: nothing had to be made
  std::string row;        // of the table
  std::string error;
  double read_ms = 0.0;
  double run_ms = 0.0;
  double write_ms = 0.0;
};

// Each worker has two threads: while one part runs, another is read or written. It also has a tool,
// which keeps its buffers while parts have the same size. Called by one thread.
class BatchWorkers {
 public:
  BatchWorkers(BatchPlan plan, int workers);
  ~BatchWorkers() { Stop(); }
  BatchWorkers(const BatchWorkers&) = delete;
  BatchWorkers& operator=(const BatchWorkers&) = delete;

  void Add(ManifestPart part);
  // Waits for the parts in work, which end early after a signal; drops the others.
  void Stop();
  // The next finished part; nothing when the time is over.
  std::optional<Outcome> Wait(std::chrono::milliseconds time);

 private:
  void Work();
  Outcome Process(ManifestPart job);
  Results Run(Part& part);

  const BatchPlan plan_;
  std::mutex mutex_;  // of everything below
  std::condition_variable work_came_;
  std::condition_variable outcome_came_;
  std::condition_variable tool_came_;
  bool is_ended_ = false;
  std::deque<ManifestPart> waiting_;
  std::deque<Outcome> outcomes_;
  std::vector<std::unique_ptr<Tool>> idle_tools_;
  std::vector<std::thread> threads_;
};

}  // namespace velostrix::cli
