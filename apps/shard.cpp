// A share of a manifest's parts, for one of several machines that work without coordination.
#include "apps/shard.h"

#include <cstdlib>

#include "apps/commands.h"

namespace velostrix::cli {
namespace {

// Nothing when there is no such variable. Throws UsageError when it is not a number.
std::optional<size_t> Variable(const char* name) {
  const char* const text = std::getenv(name);
  if (text == nullptr) return std::nullopt;
  size_t number = 0;
  if (!ParseNumber(text, number)) {
    throw UsageError(std::string(name) + " is \"" + text +
                     "\" in the environment; expected a number");
  }
  return number;
}

// The count is 0 when the environment does not give it: when only some tasks of a Slurm array are
// submitted again, the variables do not say how many there were. Slurm's tasks count from 1 here.
Shard FromEnvironment(const std::string& option) {
  if (const auto task = Variable("SLURM_ARRAY_TASK_ID")) {
    const size_t count = Variable("SLURM_ARRAY_TASK_COUNT").value_or(0);
    const bool is_whole = Variable("SLURM_ARRAY_TASK_MIN").value_or(0) == 1 &&
                          Variable("SLURM_ARRAY_TASK_MAX").value_or(0) == count;
    return {*task - 1, is_whole ? count : 0};
  }
  if (const auto pod = Variable("JOB_COMPLETION_INDEX")) return {*pod, 0};
  throw UsageError(option +
                   ": neither SLURM_ARRAY_TASK_ID nor JOB_COMPLETION_INDEX is in the environment; "
                   "expected a task of a Slurm job array or of a Kubernetes indexed job");
}

}  // namespace

Shard ParseShard(const std::string& text) {
  const std::string option = "--shard " + text;
  const size_t slash = text.find('/');
  const std::string task = text.substr(0, slash);
  size_t count = 0;
  const bool has_count = slash != std::string::npos;
  bool is_understood = !has_count || (ParseNumber(text.substr(slash + 1), count) && count > 0);
  Shard shard;
  if (task == "auto" && is_understood) {
    shard = FromEnvironment(option);
    if (!has_count && shard.count == 0) {
      throw UsageError(option +
                       ": the environment does not say how many tasks there are, as a whole Slurm "
                       "array 1-N does; give auto/N");
    }
    if (has_count) shard.count = count;
  } else {
    size_t number = 0;
    is_understood = is_understood && has_count && ParseNumber(task, number) && number > 0;
    if (!is_understood) {
      throw UsageError(option + ": expected I/N with I from 1 to N, auto or auto/N");
    }
    shard = {number - 1, count};
  }
  if (shard.index >= shard.count) {
    throw UsageError(option + ": task " + std::to_string(shard.index + 1) + " of " +
                     std::to_string(shard.count) + "; expected one from 1 to their number");
  }
  return shard;
}

std::string TableName(const Shard& shard) {
  if (shard.count == 1) return "results.csv";
  return "results-" + std::to_string(shard.index + 1) + "-of-" + std::to_string(shard.count) +
         ".csv";
}

std::optional<Shard> ShardOfTable(const std::string& name) {
  Shard shard;
  int length = 0;
  const int found =
      std::sscanf(name.c_str(), "results-%zu-of-%zu.csv%n", &shard.index, &shard.count, &length);
  --shard.index;
  const bool is_one =
      found == 2 && shard.count > 1 && shard.index < shard.count && TableName(shard) == name;
  if (!is_one) return std::nullopt;
  return shard;
}

}  // namespace velostrix::cli
