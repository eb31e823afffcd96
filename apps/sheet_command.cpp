// `velostrix sheet`: the pictures of folders, a labelled row for each folder, as one picture.
#include <algorithm>
#include <array>
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

bool IsPicture(const fs::path& file) {
  constexpr std::array<const char*, 6> kExtensions = {".png",  ".bmp", ".tif",
                                                      ".tiff", ".jpg", ".jpeg"};
  return std::find(kExtensions.begin(), kExtensions.end(), file.extension().string()) !=
         kExtensions.end();
}

// The place of a result image among the others; 0 for any other picture.
size_t Rank(const fs::path& file) {
  size_t rank = 1;
  for (const Output output : kAllOutputs) {
    if (file.stem() == Name(output)) return rank;
    ++rank;
  }
  return 0;
}

// The files are added to those that were read.
SheetRow ReadRow(const std::string& folder, std::vector<std::string>& read) {
  if (!fs::is_directory(folder))
    throw Failure(folder + ": no such folder; expected one of pictures");
  std::vector<fs::path> files;
  for (const fs::directory_entry& entry : fs::directory_iterator(folder)) {
    if (entry.is_regular_file() && IsPicture(entry.path())) files.push_back(entry.path());
  }
  if (files.empty()) throw Failure(folder + ": no pictures; expected PNG, BMP, TIFF or JPEG files");
  std::sort(files.begin(), files.end(), [](const fs::path& a, const fs::path& b) {
    return std::pair(Rank(a), a) < std::pair(Rank(b), b);
  });

  const fs::path path = fs::path(folder).lexically_normal();
  SheetRow row = {
      path.has_filename() ? path.filename().string() : path.parent_path().filename().string(), {}};
  for (const fs::path& file : files) {
    row.tiles.push_back({file.stem().string(), DecodeFile(file.string())});
    read.push_back(file.string());
  }
  return row;
}

void MakeSheet(const SheetOptions& options) {
  const fs::path out = options.out;
  if (!IsPicture(out)) {
    throw UsageError("--out " + options.out + ": expected a name that ends in .png, .tiff or .jpg");
  }
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
