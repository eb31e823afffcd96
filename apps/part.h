// One part on its way from image files to pictures of its relief, in steps that commands combine.
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
  std::vector<std::string> flat_files;    // a reference for each image; none: as the recipe says
  std::string mask_file;                  // or "auto"; empty: none
  cv::Mat mask;                           // that was loaded or found
  int compression = kUsualCompression;    // of the pictures
  std::string out;                        // the folder of the results
  std::optional<OrientationFound> known;  // how the slopes lie, once gains were chosen
  RunRecord record;                       // recipe, how files are read, and what each step adds
};

// The files to read: those given, or those of the one folder that is given; of more than `choose`,
// unless that is 0, the ones that differ most. UsageError if they are not as many as a run takes.
std::vector<std::string> PartFiles(std::vector<std::string> given, bool split_channels,
                                   int choose = 0);

// The references of a flat part for those of the `given` files that are read: one for each of them,
// or one for each that is given.
std::vector<std::string> FlatFiles(std::vector<std::string> flat, std::vector<std::string> given,
                                   const std::vector<std::string>& read);

// What is to be written and must not be touched.
OutputPlan PlanOutputs(const Part& part);

// The steps, in their order. Each throws Failure, Error or OutOfMemory, which name what is wrong.

// Reads the files; finds the bits of the recipe where they are not given.
void LoadImages(Part& part);

// Loads the mask, or finds it in the images, and gives it to the tool.
void SetMask(Tool& tool, Part& part, Console& console);

// The images of the part that is loaded, as a tool takes them.
std::vector<cv::Mat> Images(const Part& part);

// Whether the images are fit for reconstruction.
void DiagnoseImages(Part& part);

// Says what was found in the images.
void SayDiagnostics(const Part& part, Console& console);

// Chooses the gains that are not given, which are kept in the recipe from here on.
void ChooseGains(Tool& tool, Part& part);

// Both of these, side by side.
void DiagnoseAndChooseGains(Tool& tool, Part& part);

// Says which gains and offsets are used.
void SayGains(const Part& part, Console& console);

// The results live as long as those of Tool::ReconstructViews. The height uses OpenCV's number of
// threads.
Results RunPart(Tool& tool, Part& part);

// Says how the slopes lay on the scene and what was done, when it was measured.
void SayOrientation(const Part& part, Console& console);

// Encodes the results and the record into files that were planned for the part, and puts them in
// place.
void WriteResults(Part& part, const Results& results, OutputFiles& files);

}  // namespace velostrix::cli
