// The arguments of `velostrix reconstruct`, which other commands share, and their meaning.
#pragma once

#include <CLI/CLI.hpp>
#include <string>
#include <vector>

#include "apps/part.h"
#include "apps/png_encoder.h"
#include "velostrix/recipe.hpp"

namespace velostrix::cli {

struct ReconstructOptions {
  // The arguments as on the command line.
  std::vector<std::string> files;
  std::string out;
  std::string save_recipe;
  RunOptions asked;
  std::vector<std::string> flat;
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

  // The recipe of --recipe, with numbers and flags from the command line. Bits 0: found from files.
  // Orientation is upright unless a recipe says otherwise.
  Recipe recipe;
  std::string recipe_file;
  RunOptions recorded;  // in that file
};

// Of the options in a help text.
constexpr const char* kImagesGroup = "Images";
constexpr const char* kResultsGroup = "Results";

// Declare the arguments of reconstruct that a command needs; parsing stores them in the options.
// Call DeclareReading before those of method and results, which change the recipe that is read.
void DeclareImages(CLI::App& command, ReconstructOptions& options);
void DeclareReading(CLI::App& command, ReconstructOptions& options);
void DeclareMethod(CLI::App& command, ReconstructOptions& options);
void DeclareGains(CLI::App& command, ReconstructOptions& options);
void DeclareResults(CLI::App& command, ReconstructOptions& options);  // with gains

// Parses X,Y,WIDTH,HEIGHT. Throws UsageError, which names the option.
cv::Rect ParseRegion(const std::string& option, const std::string& text);

// The recipe with all options applied. Throws UsageError.
Recipe ParseRecipe(const ReconstructOptions& options);

// What is asked for of a part, without its files. Throws UsageError.
Part ParsePart(const ReconstructOptions& options, const std::vector<std::string>& arguments);

// Gives the part the files to read. Throws UsageError.
void GiveFiles(Part& part, const ReconstructOptions& options);

}  // namespace velostrix::cli
