// The results that `velostrix reconstruct` wrote to a folder.
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

// Throws Failure, which names the file and what is wrong with it.
ResultFolder ReadResults(const std::string& folder);

// The images as the run took them, converted; empty where files are missing or have changed.
std::vector<ReportInput> ReadInputs(const ResultFolder& folder);

}  // namespace velostrix::cli
