// The arguments of `velostrix reconstruct` and what they mean.
#pragma once

#include <CLI/CLI.hpp>
#include <optional>
#include <string>
#include <vector>

#include "apps/exports.h"
#include "apps/png_encoder.h"
#include "velostrix/height_view.hpp"
#include "velostrix/recipe.hpp"

namespace velostrix::cli {

struct ReconstructOptions {
  // As they stand on the command line.
  std::vector<std::string> files;
  std::string out;
  std::string save_recipe;
  bool split_channels = false;
  std::string bayer;
  std::string mask;
  std::vector<std::string> flat;
  int choose = 0;
  std::string height_view;  // the surface that it leaves out; empty: none
  int compression = kUsualCompression;
  bool report = false;
  std::string exports;  // names of files, joined by commas
  std::string export_normals;
  std::string export_colours;
  int decimate = 1;
  bool quiet = false;
  std::string run;
  std::string difference;
  std::string orientation;
  std::string lamp;
  std::string outputs;
  std::string region;
  std::vector<std::string> gains;
  std::vector<std::string> offsets;

  // That of --recipe with the numbers and flags that stand there; bits are 0: to be found. Upright,
  // unless a recipe says otherwise.
  Recipe recipe;
  std::string recipe_file;
};

// The recipe of the file. Failure says what is wrong with it.
Recipe ReadRecipe(const std::string& file);

// Declares the arguments; parsing stores them in the options.
void DeclareReconstructOptions(CLI::App& command, ReconstructOptions& options);

// The surface that a view of the height is to leave out, when one is asked for. Throws UsageError
// where the recipe makes no height.
std::optional<Surface> ParseHeightView(const ReconstructOptions& options, const Recipe& recipe);

// The files to export, and how. Throws UsageError where the recipe does not make what they need.
std::vector<std::string> ParseExports(const ReconstructOptions& options, const Recipe& recipe,
                                      ExportOptions& exports);

// The recipe with all that is asked for. Throws UsageError.
Recipe ParseRecipe(const ReconstructOptions& options);

}  // namespace velostrix::cli
