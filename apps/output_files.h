// Files of one command, written completely or not at all.
#pragma once

#include <filesystem>
#include <opencv2/core.hpp>
#include <string>
#include <utility>
#include <vector>

namespace velostrix::cli {

// Files are encoded as they are added and appear in the folder on Commit, in that order; a reader
// who finds the last one finds them all. Before Commit nothing is touched. Any trouble is a Failure
// that names the file.
class OutputFiles {
 public:
  // The folder is made on Commit when it is not there.
  explicit OutputFiles(std::filesystem::path folder);

  // The extension of the name says the format.
  void AddImage(const std::string& name, const cv::Mat& image);
  void AddText(const std::string& name, const std::string& text);

  void Commit();

 private:
  std::filesystem::path folder_;
  std::vector<std::pair<std::string, std::vector<uint8_t>>> files_;
};

}  // namespace velostrix::cli
