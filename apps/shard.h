// A share of a manifest's parts, for one of several machines that work without coordination.
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace velostrix::cli {

// Has the parts index, index + count, index + 2 count ... of the manifest, counted from 0.
struct Shard {
  size_t index = 0;
  size_t count = 1;

  bool Has(size_t part) const { return part % count == index; }
};

// "I/N" with I from 1 to N. "auto/N" takes I from the environment: the task of a Slurm job array,
// counted from 1, or the pod of a Kubernetes indexed job; "auto" also takes N from a whole array
// 1-N. Throws UsageError.
Shard ParseShard(const std::string& text);

// The name of the shard's table: results.csv of a whole manifest, else results-I-of-N.csv.
std::string TableName(const Shard& shard);

// The shard whose table has this name; nothing when the name is not that of a shard's table.
std::optional<Shard> ShardOfTable(const std::string& name);

}  // namespace velostrix::cli
