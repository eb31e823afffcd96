// Reports the progress of a batch while it runs, and its result.
#pragma once

#include <chrono>
#include <cstddef>
#include <string>

#include "apps/batch_workers.h"
#include "apps/console.h"

namespace velostrix::cli {

class BatchProgress {
 public:
  // total: number of parts; 0 when unknown.
  BatchProgress(size_t total, Console& console) : total_(total), console_(console) {}

  // Counts a finished part; reports what went wrong.
  void Count(const Outcome& outcome);

  // Call it often. Shows the progress: on a terminal always, elsewhere once a minute. Returns true
  // once a minute.
  bool Tick();

  // Reports how many parts were done, and how the time was spent.
  void Summarise();

  size_t through() const { return done_ + was_done_ + failed_; }
  size_t failed() const { return failed_; }

 private:
  using Clock = std::chrono::steady_clock;

  std::string Describe() const;

  const size_t total_;
  Console& console_;
  size_t done_ = 0;
  size_t was_done_ = 0;
  size_t failed_ = 0;
  double read_ms_ = 0.0;
  double run_ms_ = 0.0;
  double write_ms_ = 0.0;
  Clock::time_point start_ = Clock::now();  // of the first part that is not done already
  Clock::time_point minute_ = Clock::now();
};

}  // namespace velostrix::cli
