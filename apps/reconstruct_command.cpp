// `velostrix reconstruct`: image files of one part under N lamps to images of its relief.
#ifdef __linux__
#include <malloc.h>
#endif

#include <filesystem>
#include <limits>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "apps/commands.h"
#include "apps/console.h"
#include "apps/output_files.h"
#include "apps/part.h"
#include "apps/reconstruct_options.h"
#include "velostrix/recipe.hpp"
#include "velostrix/tool.hpp"

namespace velostrix::cli {
namespace {

OutputPlan PlanRecipe(const std::string& file, const std::vector<std::string>& inputs) {
  const std::filesystem::path path(file);
  return {path.parent_path(), {path.filename().string()}, {}, {}, inputs};
}

// Keeps freed memory for later use by any thread. By default the C library returns blocks as large
// as images to the system, which clears them again page by page: a third of all page faults.
void KeepFreedMemory() {
#ifdef __GLIBC__
  mallopt(M_MMAP_MAX, 0);
  mallopt(M_TRIM_THRESHOLD, std::numeric_limits<int>::max());
  mallopt(M_ARENA_MAX, 1);
#endif
}

void Reconstruct(const ReconstructOptions& options, const std::vector<std::string>& arguments) {
  KeepFreedMemory();
  Part part = ParsePart(options, arguments);
  GiveFiles(part, options);
  part.out = options.out;
  OutputFiles files(PlanOutputs(part));
  std::optional<OutputFiles> recipe_file;
  if (!options.save_recipe.empty()) {
    recipe_file.emplace(PlanRecipe(options.save_recipe, part.files));
  }
  Console console(options.quiet);

  console.Step("loading images");
  LoadImages(part);
  Tool tool;
  SetMask(tool, part, console);
  console.Step("choosing gains");
  DiagnoseAndChooseGains(tool, part);
  SayDiagnostics(part, console);
  SayGains(part, console);

  console.Step("reconstructing");
  cv::setNumThreads(kAllCores);  // for the height
  const Results results = RunPart(tool, part);
  cv::setNumThreads(kNoThreads);
  SayOrientation(part, console);

  console.Step("writing files");
  WriteResults(part, results, files);
  if (recipe_file) {
    recipe_file->AddText(std::filesystem::path(options.save_recipe).filename().string(),
                         RecipeText(part.record));
    recipe_file->Commit();
  }
  console.Note("wrote " + options.out);
}

}  // namespace

void AddReconstructCommand(CLI::App& app, const std::vector<std::string>& arguments) {
  const auto options = std::make_shared<ReconstructOptions>();
  CLI::App* const command = app.add_subcommand(
      "reconstruct", "Make images of the relief from 3 to 8 image files of one part");
  DeclareImages(*command, *options);
  DeclareReading(*command, *options);
  command
      ->add_option("--save-recipe", options->save_recipe,
                   "Write all parameters, including chosen gains, to a separate recipe")
      ->group("Recipes")
      ->type_name("FILE");
  DeclareMethod(*command, *options);
  AddOut(*command, options->out, "Folder to write to; made when it is missing")
      ->group(kResultsGroup)
      ->type_name("DIR");
  DeclareResults(*command, *options);
  command->add_flag("--quiet", options->quiet, "Print only errors")->group(kResultsGroup);
  command->callback([options, arguments] { Reconstruct(*options, arguments); });
  command->footer(
      "Writes factor.png (brightness), curvature.png, magnitude.png, channel0.png, channel1.png "
      "(slopes), channel2.png (brightness), normal.png (the three channels), height.png (16-bit), "
      "height_view.png, report.html and exports if requested, and run.json with all parameters, "
      "diagnostics and times. Replaces or removes only results that an earlier run.json in DIR "
      "lists.\n\n"
      "Examples:\n"
      "  velostrix reconstruct part1 --out relief1 --report\n"
      "  velostrix reconstruct part1 --out relief1 --export surface.ply --decimate 4\n"
      "  velostrix reconstruct part2 --out relief2 --recipe relief1/run.json\n"
      "  velostrix reconstruct lamp?.png --out ring --run cali --roi 100,50,800,600\n\n"
      "Exit codes: 0 done, 1 failed, 2 wrong arguments.");
}

}  // namespace velostrix::cli
