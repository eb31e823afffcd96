// Timing of two implementations in turn, memory bandwidth, peak memory.
#include "measurement.h"

#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <limits>
#include <stdexcept>
#include <thread>
#include <vector>

namespace velostrix::bench {
namespace {

double TimeMs(const std::function<void()>& work) {
  const auto start = std::chrono::steady_clock::now();
  work();
  const std::chrono::duration<double, std::milli> elapsed =
      std::chrono::steady_clock::now() - start;
  return elapsed.count();
}

// Linux counts in kilobytes.
int64_t PeakResidentBytes() {
  rusage usage = {};
  getrusage(RUSAGE_SELF, &usage);
  return usage.ru_maxrss * int64_t{1024};
}

}  // namespace

Comparison Compare(const std::function<void()>& product, const std::function<void()>& reference,
                   int repeats) {
  constexpr double kLongReferenceMs = 2000;
  Comparison best = {std::numeric_limits<double>::max(), std::numeric_limits<double>::max()};
  for (int i = 0; i < repeats; ++i) {
    best.product_ms = std::min(best.product_ms, TimeMs(product));
    if (i == 0 || best.reference_ms < kLongReferenceMs) {
      best.reference_ms = std::min(best.reference_ms, TimeMs(reference));
    }
  }
  return best;
}

double MedianMs(const std::function<void()>& work, int repeats) {
  std::vector<double> times;
  times.reserve(static_cast<size_t>(repeats));
  for (int i = 0; i < repeats; ++i) times.push_back(TimeMs(work));
  std::sort(times.begin(), times.end());
  return times[times.size() / 2];
}

BusyCores::BusyCores() {
  for (unsigned k = 0; k < std::thread::hardware_concurrency(); ++k) {
    const pid_t child = fork();
    if (child < 0) throw std::runtime_error("fork failed");
    if (child == 0) {
      prctl(PR_SET_PDEATHSIG, SIGKILL);
      for (volatile int forever = 1; forever != 0;) {
      }
    }
    processes_.push_back(child);
  }
}

BusyCores::~BusyCores() {
  for (const pid_t child : processes_) {
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
  }
}

double TriadBandwidth(int64_t count, bool all_threads) {
  const auto size = static_cast<size_t>(count);
  std::vector<float> a(size, 1.0F);
  std::vector<float> b(size, 2.0F);
  std::vector<float> c(size, 3.0F);
  double best_ms = std::numeric_limits<double>::max();
  for (int repeat = 0; repeat < 10; ++repeat) {
    best_ms = std::min(best_ms, TimeMs([&] {
#pragma omp parallel for simd schedule(static) if (all_threads)
                         for (int64_t i = 0; i < count; ++i) {
                           const auto at = static_cast<size_t>(i);
                           a[at] = b[at] + 3.0F * c[at];
                         }
                       }));
  }
  return 12.0 * static_cast<double>(count) / best_ms / 1e6;
}

int64_t PeakMemory(const std::function<void()>& work) {
  int channel[2];
  if (pipe(channel) != 0) throw std::runtime_error("pipe failed");
  const pid_t child = fork();
  if (child < 0) throw std::runtime_error("fork failed");
  if (child == 0) {
    const int64_t before = PeakResidentBytes();
    work();
    const int64_t added = PeakResidentBytes() - before;
    const bool sent = write(channel[1], &added, sizeof added) == sizeof added;
    _exit(sent ? 0 : 1);
  }
  int64_t added = 0;
  const bool received = read(channel[0], &added, sizeof added) == sizeof added;
  close(channel[0]);
  close(channel[1]);
  waitpid(child, nullptr, 0);
  if (!received) throw std::runtime_error("the measured process died");
  return added;
}

}  // namespace velostrix::bench
