// Threads that live as long as one solve.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <thread>
#include <vector>

namespace velostrix {

// Shares loops between the caller and helper threads. Nothing outlives the team: a process may
// fork, unload the library or exit between two solves.
//
// On busy cores a helper may lose its core in the middle of its work, and the caller waits. When
// that has cost too much, the helpers are dismissed and the caller goes on alone.
class ThreadTeam {
 public:
  // A team of `threads`, the caller included; fewer when the system cannot start as many.
  explicit ThreadTeam(int threads);
  ~ThreadTeam();
  ThreadTeam(const ThreadTeam&) = delete;
  ThreadTeam& operator=(const ThreadTeam&) = delete;

  // Calls work(k) for every k in [0, count), on any thread and in any order, and returns when all
  // are done. Work must not throw and, on helpers, must not allocate.
  template <typename Work>
  void ForEach(int64_t count, const Work& work) {
    if (helpers_.empty() || is_dismissed_) {
      for (int64_t k = 0; k < count; ++k) work(k);
      return;
    }
    work_ = &work;
    call_ = [](const void* any_work, int64_t k) { (*static_cast<const Work*>(any_work))(k); };
    Share(count);
  }

 private:
  using Clock = std::chrono::steady_clock;

  void Help();
  void Share(int64_t count);
  bool TakeOne();
  void AwaitHelpers();
  template <typename Condition>
  bool SpinUntil(const Condition& is_met) const;
  void Dismiss();

  // The loop. Who has taken a piece may read these until the piece is finished.
  const void* work_ = nullptr;
  void (*call_)(const void* work, int64_t k) = nullptr;
  int64_t count_ = 0;
  std::atomic<int64_t> untaken_ = 0;
  std::atomic<int64_t> unfinished_ = 0;
  std::atomic<bool> is_dismissed_ = false;

  std::mutex mutex_;  // of the sleepers
  std::condition_variable work_came_;
  std::condition_variable work_ended_;
  std::atomic<int> sleeping_helpers_ = 0;
  std::atomic<bool> caller_sleeps_ = false;

  const Clock::time_point start_ = Clock::now();
  Clock::duration lost_{};  // waited for helpers, beyond what a piece may take
  std::vector<std::thread> helpers_;
};

}  // namespace velostrix
