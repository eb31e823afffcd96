// The table of a batch (CSV): a line for each part, in the order of the manifest.
#pragma once

#include <nlohmann/json_fwd.hpp>
#include <string>
#include <vector>

namespace velostrix::cli {

// The names of the columns.
std::string TableHeader();

// The cells of the rows of a table that is a file. Failure when it is none of this version.
std::vector<std::vector<std::string>> ReadTable(const std::string& file);

// Of a part that is finished, from its run.json.
std::string DoneRow(const std::string& part, const nlohmann::json& record);

// Of one that could not be run, and why.
std::string FailedRow(const std::string& part, const std::string& error);

// Of one that is yet to be run.
std::string OpenRow(const std::string& part);

}  // namespace velostrix::cli
