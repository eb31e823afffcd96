// `velostrix sheet`: one picture of the images in folders, a labelled row for each folder.
#include <algorithm>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "apps/commands.h"
#include "apps/contact_sheet.h"
#include "apps/input_images.h"
#include "apps/output_files.h"
#include "velostrix/tool.hpp"

namespace velostrix::cli {
namespace {

namespace fs = std::filesystem;

struct SheetOptions {
  std::vector<std::string> folders;
  std::string out;
  int tile_width = 240;
};

// The position of a result image among the others; 0 for any other picture.
size_t Rank(const fs::path& file) {
  size_t rank = 1;
  for (const Output output : kAllOutputs) {
    if (file.stem() == Name(output)) return rank;
    ++rank;
  }
  return 0;
}

// Adds the files to those read.
SheetRow ReadRow(const std::string& folder, std::vector<std::string>& read) {
  std::vector<std::string> files = ImagesIn(folder);
  std::stable_sort(files.begin(), files.end(),
                   [](const std::string& a, const std::string& b) { return Rank(a) < Rank(b); });

  const fs::path path = fs::path(folder).lexically_normal();
  SheetRow row = {
      path.has_filename() ? path.filename().string() : path.parent_path().filename().string(), {}};
  for (const std::string& file : files) {
    row.tiles.push_back({fs::path(file).stem().string(), DecodeFile(file)});
  }
  read.insert(read.end(), files.begin(), files.end());
  return row;
}

void MakeSheet(const SheetOptions& options) {
  const fs::path out = options.out;
  RequirePictureName(options.out);
  OutputPlan plan = {out.parent_path(), {out.filename().string()}, {}, {}, {}};
  std::vector<SheetRow> rows;
  for (const std::string& folder : options.folders) rows.push_back(ReadRow(folder, plan.inputs));
  OutputFiles files(plan);
  files.AddImage(out.filename().string(), ComposeSheet(rows, options.tile_width));
  files.Commit();
}

}  // namespace

void AddSheetCommand(CLI::App& app) {
  const auto options = std::make_shared<SheetOptions>();
  CLI::App* command = app.add_subcommand(
      "sheet", "Put the pictures of folders into one picture: a labelled row for each folder");
  command->add_option("FOLDER", options->folders, "Folders with pictures, from top to bottom")
      ->required();
  AddOut(*command, options->out, "The picture to write, such as overview.png")->type_name("FILE");
  command->add_option("--tile", options->tile_width, "Width of each picture in pixels")
      ->check(CLI::Range(16, 4096))
      ->capture_default_str()
      ->type_name("PIXELS");
  command->callback([options] { MakeSheet(*options); });
}

}  // namespace velostrix::cli
