// The cores and the memory that this process may use.
#include "apps/machine.h"

#include <algorithm>
#include <cmath>
#include <fstream>
#include <string>
#include <thread>

namespace velostrix::cli {
namespace {

// The control group of a container is at the root of what it sees (version 2, then version 1).
constexpr const char* kGroups = "/sys/fs/cgroup/";

// The first number of the file; the fallback when there is none, as in "max".
double FirstNumber(const std::string& file, double fallback) {
  std::ifstream stream(kGroups + file);
  double number = 0.0;
  return stream >> number && number > 0.0 ? number : fallback;
}

}  // namespace

int UsableCores() {
  const double cores = std::max(1U, std::thread::hardware_concurrency());  // by affinity
  double share = cores;
  std::ifstream stream(std::string(kGroups) + "cpu.max");
  double quota = 0.0;
  double period = 0.0;
  if (stream >> quota >> period && period > 0.0) {
    share = quota / period;
  } else {
    const double period_us = FirstNumber("cpu/cpu.cfs_period_us", 0.0);
    const double quota_us = FirstNumber("cpu/cpu.cfs_quota_us", 0.0);
    if (period_us > 0.0 && quota_us > 0.0) share = quota_us / period_us;
  }
  return std::max(1, static_cast<int>(std::lround(std::min(cores, share))));
}

int64_t UsableMemory() {
  constexpr double kUnlimited = 1e18;
  double available = kUnlimited;
  std::ifstream stream("/proc/meminfo");
  for (std::string name, unit; stream >> name;) {
    double number = 0.0;
    stream >> number;
    std::getline(stream, unit);
    if (name == "MemAvailable:") available = number * 1024.0;
  }
  const double limit = std::min(FirstNumber("memory.max", kUnlimited),
                                FirstNumber("memory/memory.limit_in_bytes", kUnlimited));
  return static_cast<int64_t>(std::min(available, limit));
}

}  // namespace velostrix::cli
