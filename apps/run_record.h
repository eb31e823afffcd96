// The record of a run, which run.json contains.
#pragma once

#include <array>
#include <optional>
#include <string>
#include <vector>

#include "apps/exports.h"
#include "apps/input_images.h"
#include "velostrix/diagnostics.hpp"
#include "velostrix/height_view.hpp"
#include "velostrix/recipe.hpp"
#include "velostrix/tool.hpp"

namespace velostrix::cli {

// Measures for limits.
struct Measures {
  // The share of pixels with large curvature; nothing when the run makes no curvature.
  std::optional<double> curvature_share;
  // Largest minus smallest height, in slope times pixels: see MeasureResults.
  std::optional<double> height_range;
};

// What changes results and is in no recipe.
struct RunOptions {
  Reading reading;
  int choose = 0;           // so many of more files; 0: all
  std::string mask;         // a file, or "auto"; empty: none
  std::string height_view;  // the surface that it leaves out; empty: none
};

struct RunRecord {
  std::vector<std::string> arguments;  // of the program
  std::vector<InputImage> inputs;
  Diagnostics diagnostics;
  Recipe recipe;  // as used
  RunOptions options;
  OutputSet chosen;                  // whose gains were not given
  std::vector<std::string> further;  // names of the files made besides the results
  ExportOptions exports;             // how those for other tools are made
  int threads = 1;
  CallTimes calls;
  OrientationFound orientation;
  std::string mask_sha256;  // of its file; empty: none
  double kept_share = 1.0;  // of the pixels, by the mask
  std::optional<HeightView> height_view;
  double load_ms = 0.0;
  double diagnose_ms = 0.0;
  double choose_gains_ms = 0.0;
  double encode_ms = 0.0;
  double write_ms = 0.0;             // all but this record itself
  std::string batch;                 // JSON: what a batch was asked for besides the recipe
  std::optional<Measures> measures;  // of a batch
};

constexpr const char* kRecordName = "run.json";
constexpr const char* kHeightViewName = "height_view.png";
constexpr const char* kReportName = "report.html";

// Files that a run makes besides the results if requested.
inline constexpr std::array kFurtherFiles = {kReportName, kSurfaceName, kHeightMapName,
                                             kNormalMapName};

// Of a result.
std::string FileName(Output output);

// JSON.
std::string ToJson(const RunOptions& options);

// Those of the text of a run.json or of RecipeText; none where it has only a recipe. Throws Error.
RunOptions OptionsFromJson(const std::string& text);

// The recipe, and the options beside it where there are some.
std::string RecipeText(const RunRecord& record);

// The text of run.json, which is also a recipe that repeats the run.
std::string ToJson(const RunRecord& record);

}  // namespace velostrix::cli
