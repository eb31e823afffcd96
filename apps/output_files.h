// The files of one command: written completely or not at all.
#pragma once

#include <filesystem>
#include <functional>
#include <opencv2/core.hpp>
#include <string>
#include <utility>
#include <vector>

#include "apps/png_encoder.h"

namespace velostrix::cli {

// What a command writes into a folder, and what it must not change.
struct OutputPlan {
  std::filesystem::path folder;     // created by Commit if necessary
  std::vector<std::string> made;    // names of the files to be added
  std::vector<std::string> others;  // that other runs of the command make
  // The name of one of `made`, a JSON object whose member "outputs" lists the files. An existing
  // file is replaced, and one of `others` removed, only if an earlier record lists it. Empty:
  // existing files are replaced.
  std::string record;
  std::vector<std::string> inputs;      // never replaced
  int compression = kUsualCompression;  // of PNG files
};

// Files are encoded when they are added, and appear in the folder on Commit, in that order: where
// the last one is, all are. Before Commit nothing changes. Errors are Failures that name the file.
class OutputFiles {
 public:
  // Throws Failure when the plan cannot be carried out.
  explicit OutputFiles(OutputPlan plan);

  // The extension of the name determines the format. PNG files are encoded on all cores.
  void AddImages(const std::vector<std::pair<std::string, cv::Mat>>& images);
  void AddImage(const std::string& name, const cv::Mat& image) { AddImages({{name, image}}); }
  void AddBytes(const std::string& name, std::vector<uint8_t> bytes);
  void AddText(const std::string& name, const std::string& text);

  // `record`, if given, makes the text of the plan's record when all other drafts are written.
  void Commit(const std::function<std::string()>& record = nullptr);

 private:
  std::vector<std::filesystem::path> CheckPlaces() const;  // returns the files to remove

  OutputPlan plan_;
  std::vector<std::pair<std::string, std::vector<uint8_t>>> files_;
};

}  // namespace velostrix::cli
