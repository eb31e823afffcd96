// Threads that live as long as one solve.
#include "base/thread_team.h"

#include <exception>

#include "base/floating_point_scope.h"
#include "base/vectors.h"

#if defined(__unix__)
#include <csignal>
#endif

namespace velostrix {
namespace {

// Blocks signals: the application's handlers must not run on threads that it does not know. New
// threads inherit the mask.
class SignalsBlocked {
 public:
#if defined(__unix__)
  SignalsBlocked() {
    sigset_t all;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &host_mask_);
  }
  ~SignalsBlocked() { pthread_sigmask(SIG_SETMASK, &host_mask_, nullptr); }
  SignalsBlocked(const SignalsBlocked&) = delete;
  SignalsBlocked& operator=(const SignalsBlocked&) = delete;

 private:
  sigset_t host_mask_;
#endif
};

}  // namespace

ThreadTeam::ThreadTeam(int threads) {
  [[maybe_unused]] const SignalsBlocked scope;
  try {
    while (static_cast<int>(helpers_.size()) + 1 < threads) {
      helpers_.emplace_back([this] { Help(); });
    }
  } catch (const std::exception&) {
    // No thread, or no memory for one.
  }
}

ThreadTeam::~ThreadTeam() {
  Dismiss();
  for (std::thread& helper : helpers_) helper.join();
}

void ThreadTeam::Help() {
  const FloatingPointScope scope;
  const auto has_news = [this] { return untaken_ > 0 || is_dismissed_; };
  while (!is_dismissed_) {
    while (TakeOne()) {
    }
    if (SpinUntil(has_news)) continue;
    std::unique_lock lock(mutex_);
    ++sleeping_helpers_;
    work_came_.wait(lock, has_news);
    --sleeping_helpers_;
  }
}

bool ThreadTeam::TakeOne() {
  int64_t untaken = untaken_;
  do {
    if (untaken == 0) return false;
  } while (!untaken_.compare_exchange_weak(untaken, untaken - 1));
  call_(work_, count_ - untaken);
  if (--unfinished_ == 0 && caller_sleeps_) {
    const std::lock_guard lock(mutex_);
    work_ended_.notify_one();
  }
  return true;
}

void ThreadTeam::Share(int64_t count) {
  count_ = count;
  unfinished_ = count;
  untaken_ = count;
  if (sleeping_helpers_ > 0) {
    const std::lock_guard lock(mutex_);
    work_came_.notify_all();
  }
  const Clock::time_point begin = Clock::now();
  while (TakeOne()) {
  }
  if (unfinished_ == 0) return;
  const Clock::time_point end = Clock::now();
  AwaitHelpers();
  // A piece takes no longer than all the caller's work, unless its thread lost the core.
  const Clock::duration excess = (Clock::now() - end) - (end - begin);
  if (excess > Clock::duration::zero()) lost_ += excess;
  constexpr auto kTolerable = std::chrono::milliseconds(1);
  if (lost_ > kTolerable + (end - start_) / 10) Dismiss();
}

void ThreadTeam::AwaitHelpers() {
  const auto is_done = [this] { return unfinished_ == 0; };
  if (SpinUntil(is_done)) return;
  std::unique_lock lock(mutex_);
  caller_sleeps_ = true;
  work_ended_.wait(lock, is_done);
  caller_sleeps_ = false;
}

// At most 30 microseconds or so: less than waking a thread takes, and too short to block a core.
template <typename Condition>
bool ThreadTeam::SpinUntil(const Condition& is_met) const {
  constexpr auto kLongest = std::chrono::microseconds(30);
  const Clock::time_point begin = Clock::now();
  do {
    for (int k = 0; k < 16; ++k) {
      if (is_met()) return true;
      Pause();
    }
  } while (Clock::now() - begin < kLongest);
  return false;
}

void ThreadTeam::Dismiss() {
  is_dismissed_ = true;
  const std::lock_guard lock(mutex_);
  work_came_.notify_all();
}

}  // namespace velostrix
