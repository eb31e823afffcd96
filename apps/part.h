// The steps from the image files of a part to images of its relief, which commands combine.
#pragma once

#include <opencv2/core.hpp>
#include <optional>
#include <string>
#include <vector>

#include "apps/console.h"
#include "apps/output_files.h"
#include "apps/run_record.h"
#include "velostrix/tool.hpp"

namespace velostrix::cli {

struct Part {
  std::vector<std::string> files;         // an image each
  std::optional<Surface> view_without;    // also make a view of the height, without this surface
  std::vector<std::string> flat_files;    // a reference for each image; none: the recipe's fields
  cv::Mat mask;                           // once it was loaded or found; empty: none
  int compression = kUsualCompression;    // of the pictures
  std::string out;                        // the folder of the results
  std::optional<OrientationFound> known;  // orientation of the slopes, from the choice of gains
  RunRecord record;                       // recipe, options, and what each step adds
};

// The files of a part: those given, or those of the one folder that is given. UsageError if they
// are not as many as a run takes, or more where it chooses.
std::vector<std::string> PartFiles(std::vector<std::string> given, const RunOptions& options);

// Those of them to read: of more than the options' `choose`, the ones that differ most.
std::vector<std::string> ChosenFiles(const std::vector<std::string>& files,
                                     const RunOptions& options);

// The references of a flat part for the files that are read. flat: one reference for each of these,
// or for each of the `given` files.
std::vector<std::string> FlatFiles(std::vector<std::string> flat, std::vector<std::string> given,
                                   const std::vector<std::string>& read);

// What is written, and what must not be changed.
OutputPlan PlanOutputs(const Part& part);

// The steps, in order. Each throws Failure, Error or OutOfMemory, which say what is wrong.

// Reads the files; finds the recipe's bits if they are not given.
void LoadImages(Part& part);

// The mask of the file. Failure when it is none.
cv::Mat DecodeMask(const std::string& file);

// Loads the mask, unless the part has it, or finds it in the images.
void LoadMask(Part& part);

// This, and sets it in the tool.
void SetMask(Tool& tool, Part& part, Console& console);

// Of the results, what the mask keeps; empty: all.
cv::Mat KeptPixels(const Part& part);

// The images of the loaded part, as a tool takes them.
std::vector<cv::Mat> Images(const Part& part);

// Checks whether the images are fit for reconstruction.
void DiagnoseImages(Part& part);

// Prints what was found in the images.
void SayDiagnostics(const Part& part, Console& console);

// Chooses the gains that are not given and keeps them in the recipe.
void ChooseGains(Tool& tool, Part& part);

// Both of these, in parallel.
void DiagnoseAndChooseGains(Tool& tool, Part& part);

// Prints which gains and offsets are used.
void SayGains(const Part& part, Console& console);

// Results are valid as those of Tool::ReconstructViews. The height uses OpenCV's number of threads.
Results RunPart(Tool& tool, Part& part);

// Prints the orientation of the slopes and how it was corrected, if it was measured.
void SayOrientation(const Part& part, Console& console);

// Encodes the results and the record into the part's planned files and moves them into place.
void WriteResults(Part& part, const Results& results, OutputFiles& files);

}  // namespace velostrix::cli
