// The table of a batch (CSV): a line for each part, in the order of the manifest.
#pragma once

#include <nlohmann/json_fwd.hpp>
#include <string>
#include <vector>

namespace velostrix::cli {

// The names of the columns.
std::string TableHeader();

// The cells of the rows of a table file. Throws Failure when it is not a table of this version.
std::vector<std::vector<std::string>> ReadTable(const std::string& file);

// The row of a finished part, from its run.json.
std::string DoneRow(const std::string& part, const nlohmann::json& record);

// The row of a part that failed, and why.
std::string FailedRow(const std::string& part, const std::string& error);

// The row of a part that has not been run yet.
std::string OpenRow(const std::string& part);

}  // namespace velostrix::cli
