// What `velostrix reconstruct` left in a folder.
#pragma once

#include <string>
#include <vector>

#include "apps/report.h"
#include "velostrix/recipe.hpp"
#include "velostrix/tool.hpp"

namespace velostrix::cli {

struct ResultFolder {
  std::string record;  // run.json as it stands
  Recipe recipe;
  Results results;                   // at least one, of one size, of the types that a run makes
  std::vector<std::string> outputs;  // names of all files that the record lists
};

// Failure names the file and what is wrong with it.
ResultFolder ReadResults(const std::string& folder);

// The photographs as the run took them, converted; those that are gone or changed since are empty.
std::vector<ReportInput> ReadInputs(const ResultFolder& folder);

}  // namespace velostrix::cli
