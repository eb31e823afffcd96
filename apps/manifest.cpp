// The parts of a batch: from a manifest or from folders.
#include "apps/manifest.h"

#include <glob.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <exception>
#include <filesystem>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <sstream>

#include "apps/commands.h"
#include "apps/csv.h"
#include "apps/input_images.h"
#include "apps/part.h"
#include "velostrix/tool.hpp"

namespace velostrix::cli {
namespace {

namespace fs = std::filesystem;

constexpr const char* kExpected = "; expected a manifest (.csv, .jsonl) or folders of images";

// A part as the manifest has it, before its folder is read.
struct Entry {
  std::string name;
  std::vector<std::string> files;  // or one folder
};

class Collector {
 public:
  explicit Collector(const RunOptions& options) : options_(options) {}

  void Add(const std::string& place, const Entry& entry) {
    if (!IsPartName(entry.name)) {
      Refuse(place, "the part is called \"" + entry.name +
                        "\"; expected a name for a folder: no slash, no dot first, at most 200 "
                        "bytes");
      return;
    }
    const auto [first, is_new] = places_.emplace(entry.name, place);
    if (!is_new) {
      Refuse(place, "part " + entry.name + " is there already: " + first->second);
      return;
    }
    try {
      manifest_.parts.push_back({entry.name, PartFiles(entry.files, options_), place});
    } catch (const std::exception& e) {
      Refuse(place, "part " + entry.name + ": " + e.what());
    }
  }
  void Refuse(const std::string& place, const std::string& reason) {
    manifest_.problems.push_back(place + ": " + reason);
  }
  void Ignore(const std::string& column) { manifest_.unused.push_back(column); }

  size_t most_images() const {
    constexpr size_t kMostToChooseFrom = 999;
    return options_.choose > 0 ? kMostToChooseFrom : VELOSTRIX_MOST_IMAGES + 0;
  }

  Manifest Done() { return std::move(manifest_); }

 private:
  const RunOptions options_;
  std::map<std::string, std::string> places_;  // of the names
  Manifest manifest_;
};

std::string Beside(const std::string& manifest, const std::string& file) {
  return (fs::path(manifest).parent_path() / file).string();
}

// Of image1 and so on as far as parts may have images, else 0.
size_t ImageNumber(const std::string& column, size_t most) {
  size_t number = 0;
  const bool is_image = column.rfind("image", 0) == 0 && ParseNumber(column.substr(5), number);
  return is_image && number <= most ? number : 0;
}

void ReadCsv(const std::string& file, const std::string& text, Collector& parts) {
  std::vector<CsvRow> rows;
  try {
    rows = ParseCsv(text);
  } catch (const Failure& e) {
    parts.Refuse(file, e.what());
  }
  if (rows.empty()) return;
  const std::vector<std::string> header = rows.front().cells;
  const auto has = [&](const char* name) {
    return std::find(header.begin(), header.end(), name) != header.end();
  };
  std::string missing;
  if (!has("part")) missing = "part";
  if (!has("folder") && !has("image1"))
    missing += std::string(missing.empty() ? "" : " and ") + "image1 (or folder)";
  if (!missing.empty()) {
    parts.Refuse(file + ":1", "no column " + missing +
                                  "; expected a header such as part,image1,image2,image3 or "
                                  "part,folder");
    return;
  }
  for (const std::string& column : header) {
    const bool is_used =
        column == "part" || column == "folder" || ImageNumber(column, parts.most_images()) != 0;
    if (!is_used) parts.Ignore(column);
  }
  for (size_t k = 1; k < rows.size(); ++k) {
    const std::vector<std::string>& cells = rows[k].cells;
    const std::string place = file + ':' + std::to_string(rows[k].line);
    if (cells.size() > header.size()) {
      parts.Refuse(place, std::to_string(cells.size()) + " cells; expected " +
                              std::to_string(header.size()) + ", as in the header");
      continue;
    }
    Entry entry;
    std::map<size_t, std::string> images;  // by number
    for (size_t column = 0; column < cells.size(); ++column) {
      const std::string& name = header[column];
      const std::string& cell = cells[column];
      if (cell.empty()) continue;
      if (name == "part") entry.name = cell;
      if (name == "folder") entry.files = {Beside(file, cell)};
      if (const size_t number = ImageNumber(name, parts.most_images())) images[number] = cell;
    }
    if (!entry.files.empty() && !images.empty()) {
      parts.Refuse(place, "both a folder and images; expected one of them");
      continue;
    }
    for (const auto& [number, image] : images) entry.files.push_back(Beside(file, image));
    parts.Add(place, entry);
  }
}

// The object as an entry, or what is wrong with it.
std::string ReadObject(const std::string& file, const nlohmann::json& object, Entry& entry) {
  constexpr const char* kObject =
      "expected an object such as {\"part\": \"a\", \"images\": [\"a0.png\", ...]} or {\"part\": "
      "\"a\", \"folder\": \"a\"}";
  if (!object.is_object() || !object.contains("part") || !object["part"].is_string() ||
      object.contains("images") == object.contains("folder")) {
    return kObject;
  }
  entry.name = object["part"];
  const nlohmann::json& from = object.contains("images") ? object["images"] : object["folder"];
  if (from.is_array() != object.contains("images")) return kObject;
  const nlohmann::json names = from.is_array() ? from : nlohmann::json::array({from});
  for (const nlohmann::json& name : names) {
    if (!name.is_string()) return kObject;
    entry.files.push_back(Beside(file, name));
  }
  return {};
}

void ReadJsonLines(const std::string& file, const std::string& text, Collector& parts) {
  std::istringstream stream(text);
  size_t number = 0;
  for (std::string line; std::getline(stream, line);) {
    ++number;
    if (line.find_first_not_of(" \t\r") == std::string::npos) continue;
    const std::string place = file + ':' + std::to_string(number);
    Entry entry;
    const std::string refusal =
        ReadObject(file, nlohmann::json::parse(line, nullptr, false), entry);
    if (refusal.empty()) {
      parts.Add(place, entry);
    } else {
      parts.Refuse(place, refusal);
    }
  }
}

// The paths that the pattern matches, in natural order; the text itself when it matches none.
std::vector<std::string> Matches(const std::string& pattern) {
  glob_t found = {};
  const std::unique_ptr<glob_t, decltype(&globfree)> owner(&found, globfree);
  if (glob(pattern.c_str(), 0, nullptr, &found) != 0) return {pattern};
  std::vector<std::string> paths(found.gl_pathv, found.gl_pathv + found.gl_pathc);
  std::sort(paths.begin(), paths.end(), IsBefore);
  return paths;
}

void ReadFolders(const std::vector<std::string>& given, Collector& parts) {
  for (const std::string& pattern : given) {
    for (const std::string& folder : Matches(pattern)) {
      std::error_code ignored;
      if (!fs::is_directory(folder, ignored)) {
        // A file that a pattern matches is ignored; a file given by name is a mistake.
        if (folder == pattern) parts.Refuse(folder, std::string("no such folder") + kExpected);
        continue;
      }
      const fs::path path = (fs::path(folder) / "").parent_path();
      parts.Add(folder, {path.filename().string(), {folder}});
    }
  }
}

}  // namespace

bool IsPartName(const std::string& name) {
  constexpr size_t kLongest = 200;
  const bool is_plain = std::none_of(name.begin(), name.end(), [](char c) {
    return c == '/' || static_cast<unsigned char>(c) < 0x20 || c == 0x7F;
  });
  return !name.empty() && name.size() <= kLongest && name.front() != '.' && is_plain;
}

Manifest ReadManifest(const std::vector<std::string>& given, const RunOptions& options) {
  Collector parts(options);
  const std::string& first = given.front();
  const std::string extension = CLI::detail::to_lower(fs::path(first).extension().string());
  const bool is_csv = extension == ".csv";
  std::error_code ignored;
  if ((is_csv || extension == ".jsonl" || extension == ".ndjson") &&
      !fs::is_directory(first, ignored)) {
    if (given.size() > 1)
      throw UsageError(given[1] + ": is not expected beside the manifest " + first);
    const std::vector<char> bytes = ReadBytes(first, kExpected);
    (is_csv ? ReadCsv : ReadJsonLines)(first, {bytes.begin(), bytes.end()}, parts);
  } else {
    ReadFolders(given, parts);
  }
  Manifest manifest = parts.Done();
  if (manifest.parts.empty() && manifest.problems.empty()) {
    throw Failure(first + ": no parts" + kExpected);
  }
  return manifest;
}

}  // namespace velostrix::cli
