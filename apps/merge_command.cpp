// `velostrix merge`: joins the tables of a batch's shards.
#include <filesystem>
#include <map>
#include <memory>
#include <string>
#include <system_error>
#include <vector>

#include "apps/commands.h"
#include "apps/console.h"
#include "apps/csv.h"
#include "apps/output_files.h"
#include "apps/result_table.h"
#include "apps/shard.h"

namespace velostrix::cli {
namespace {

namespace fs = std::filesystem;

using Rows = std::vector<std::vector<std::string>>;

// The tables by the index of their shard. Throws Failure unless every shard has one.
std::map<size_t, fs::path> FindTables(const std::string& folder) {
  std::map<size_t, fs::path> tables;
  size_t count = 0;
  std::error_code error;
  for (const fs::directory_entry& entry : fs::directory_iterator(folder, error)) {
    const auto shard = ShardOfTable(entry.path().filename().string());
    if (!shard) continue;
    if (count != 0 && shard->count != count) {
      throw Failure(folder + ": tables of " + std::to_string(count) + " and of " +
                    std::to_string(shard->count) + " shards; move away those of the other batch");
    }
    count = shard->count;
    tables[shard->index] = entry.path();
  }
  if (error) throw Failure(folder + ": " + error.message());
  if (tables.empty()) {
    throw Failure(folder +
                  ": no tables of shards; expected results-1-of-N.csv and so on, as "
                  "velostrix batch --shard writes them");
  }
  std::string missing;
  for (size_t k = 0; k < count; ++k) {
    if (tables.count(k) == 0) missing += ' ' + TableName({k, count});
  }
  if (!missing.empty()) throw Failure(folder + ": missing:" + missing + "; run these shards first");
  return tables;
}

void MergeTables(const std::string& folder, bool quiet) {
  const std::map<size_t, fs::path> files = FindTables(folder);
  std::vector<Rows> tables;
  tables.reserve(files.size());
  for (const auto& [index, file] : files) tables.push_back(ReadTable(file.string()));
  const size_t most = tables.front().size();
  std::string text = TableHeader();
  std::map<std::string, size_t> counts;  // by status
  size_t total = 0;
  for (size_t k = 0; k < most; ++k) {
    for (const Rows& rows : tables) {
      if (k >= rows.size()) continue;
      text += CsvLine(rows[k]);
      ++counts[rows[k][1]];
      ++total;
    }
  }
  // Shards of one manifest have equally many parts; the first ones may have one more.
  for (size_t k = 0; k < tables.size(); ++k) {
    const size_t expected = total / tables.size() + (k < total % tables.size() ? 1 : 0);
    if (tables[k].size() == expected) continue;
    throw Failure(files.at(k).string() + ": " + std::to_string(tables[k].size()) +
                  " parts; expected " + std::to_string(expected) +
                  ". The shards had different manifests: run them again with one");
  }
  OutputFiles output({folder, {TableName({})}, {}, {}, {}});
  output.AddText(TableName({}), text);
  output.Commit();
  Console(quiet).Note(std::to_string(total) + " parts: " + std::to_string(counts["done"]) +
                      " done, " + std::to_string(counts["failed"]) + " failed, " +
                      std::to_string(counts["open"]) + " open");
}

}  // namespace

void AddMergeCommand(CLI::App& app) {
  struct Options {
    std::string folder;
    bool quiet = false;
  };
  const auto options = std::make_shared<Options>();
  CLI::App* const command = app.add_subcommand(
      "merge", "Join the tables of a batch's shards: results-1-of-N.csv and so on to results.csv");
  command->add_option("DIR", options->folder, "The folder that --out named")
      ->required()
      ->type_name("");
  command->add_flag("--quiet", options->quiet, "Print only errors");
  command->callback([options] { MergeTables(options->folder, options->quiet); });
}

}  // namespace velostrix::cli
