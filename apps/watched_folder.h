// A folder that a station writes parts into, a folder of images each.
#pragma once

#include <chrono>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include "apps/manifest.h"

namespace velostrix::cli {

// Looked at again and again, which works on file systems of other machines, too.
class WatchedFolder {
 public:
  // A part is complete when it has `images` image files, or any number that a run takes for 0, and
  // they have been as they are for the time.
  WatchedFolder(std::string folder, size_t images, std::chrono::duration<double> quiet_time)
      : folder_(std::move(folder)), images_(images), quiet_time_(quiet_time) {}

  // The parts that have become complete, or another, since the last call. Failure when the folder
  // cannot be read.
  std::vector<ManifestPart> Look();

  // A part of Look has been run, and is looked at again: when it went well, only once files come or
  // go, else also when they change.
  void Through(const std::string& part, bool went_well) {
    parts_[part].is_in_work = false;
    parts_[part].is_done = went_well;
  }

 private:
  using Clock = std::chrono::steady_clock;
  struct File {
    std::string path;
    uintmax_t size;
    std::filesystem::file_time_type time;

    bool operator==(const File& other) const {
      return path == other.path && size == other.size && time == other.time;
    }
  };
  using Files = std::vector<File>;
  struct State {
    std::filesystem::file_time_type folder_time;
    Files files;              // as last seen
    Clock::time_point since;  // when they were first seen so
    Files taken;              // when the part was last complete
    bool is_in_work = false;
    bool is_done = false;
  };

  bool IsComplete(const std::filesystem::path& folder, State& state) const;

  const std::string folder_;
  const size_t images_;
  const std::chrono::duration<double> quiet_time_;
  std::map<std::string, State> parts_;
};

}  // namespace velostrix::cli
