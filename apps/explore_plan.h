// The tiles of `velostrix explore`: values of one or two parameters as options of reconstruct.
#pragma once

#include <array>
#include <string>
#include <utility>
#include <vector>

#include "apps/reconstruct_options.h"
#include "velostrix/recipe.hpp"

namespace velostrix::cli {

// Shown in place of a result.
constexpr const char* kHeightView = "height-view";

// Options of reconstruct, without dashes, and their values.
using Settings = std::vector<std::pair<std::string, std::string>>;

// A parameter that is varied, by the name of its option; empty: none.
struct Axis {
  std::string option;
  std::vector<std::string> values;
};

struct ExploredTile {
  Settings settings;
  double gain_factor = 0.0;  // of the gain that is given or chosen; 0: the gain is not varied so
};

struct ExplorePlan {
  std::string show;
  Output shown;                     // the result that it is taken from
  std::array<Axis, 2> axes;         // rows and columns
  std::vector<ExploredTile> tiles;  // row by row
};

// The parameters that can be varied, joined by commas.
std::string ParameterNames();

// Makes the plan from NAME=VALUE,VALUE,... for none, one or two parameters and the result to show;
// empty ones have defaults. Throws UsageError, or the parser's errors for values that it refuses.
ExplorePlan PlanTiles(const std::vector<std::string>& vary, const std::string& show,
                      const ReconstructOptions& options);

// The settings as options of reconstruct.
std::string Label(const Settings& settings);

// The recipe of reconstruct with the options and these settings, for one result.
Recipe ParseSettings(const ReconstructOptions& options, const Settings& settings, Output shown);

}  // namespace velostrix::cli
