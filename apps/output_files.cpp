// Files of one command, written completely or not at all.
#include "apps/output_files.h"

#include <cerrno>
#include <cstring>
#include <fstream>
#include <opencv2/imgcodecs.hpp>
#include <system_error>

#include "apps/commands.h"

namespace velostrix::cli {
namespace {

namespace fs = std::filesystem;

// Files under names of their own, in the folders where they are to go; removed when not put in
// place.
class Drafts {
 public:
  ~Drafts() {
    std::error_code ignored;
    for (const auto& [draft, place] : drafts_) fs::remove(draft, ignored);
  }

  void Write(const fs::path& place, const std::vector<uint8_t>& bytes) {
    fs::path draft = place;
    draft += ".part";
    drafts_.emplace_back(draft, place);
    errno = 0;
    std::ofstream stream(draft, std::ios::binary);
    stream.write(reinterpret_cast<const char*>(bytes.data()),
                 static_cast<std::streamsize>(bytes.size()));
    stream.close();
    if (!stream) throw Failure(place.string() + ": cannot be written: " + std::strerror(errno));
  }

  void PutInPlace() {
    for (const auto& [draft, place] : drafts_) {
      std::error_code error;
      fs::rename(draft, place, error);
      if (error) throw Failure(place.string() + ": cannot be written: " + error.message());
    }
    drafts_.clear();
  }

 private:
  std::vector<std::pair<fs::path, fs::path>> drafts_;
};

}  // namespace

OutputFiles::OutputFiles(fs::path folder) : folder_(std::move(folder)) {
  if (fs::exists(folder_) && !fs::is_directory(folder_)) {
    throw Failure(folder_.string() + ": is a file; expected a folder to write to");
  }
}

void OutputFiles::AddImage(const std::string& name, const cv::Mat& image) {
  // What OpenCV does with three channels of float, unless told otherwise, loses signs.
  constexpr int kDeflate = 8;
  const std::vector<int> lossless = {cv::IMWRITE_TIFF_COMPRESSION, kDeflate};
  std::vector<uint8_t> bytes;
  if (!cv::imencode(fs::path(name).extension().string(), image, bytes, lossless)) {
    throw Failure(name + ": cannot be encoded");
  }
  files_.emplace_back(name, std::move(bytes));
}

void OutputFiles::AddText(const std::string& name, const std::string& text) {
  files_.emplace_back(name, std::vector<uint8_t>(text.begin(), text.end()));
}

void OutputFiles::Commit() {
  Drafts drafts;
  for (const auto& [name, bytes] : files_) {
    const fs::path place = folder_ / name;
    std::error_code error;
    if (place.has_parent_path()) fs::create_directories(place.parent_path(), error);
    if (error) {
      throw Failure(place.parent_path().string() + ": cannot be made a folder: " + error.message());
    }
    drafts.Write(place, bytes);
  }
  drafts.PutInPlace();
}

}  // namespace velostrix::cli
