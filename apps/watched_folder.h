// A folder into which a station writes parts, each as a folder of images.
#pragma once

#include <chrono>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include "apps/manifest.h"

namespace velostrix::cli {

// Reads the folder again and again, which also works on network file systems.
class WatchedFolder {
 public:
  // A part is complete when it has `images` image files (0: any number that a run takes) that have
  // not changed for the quiet time.
  WatchedFolder(std::string folder, size_t images, std::chrono::duration<double> quiet_time)
      : folder_(std::move(folder)), images_(images), quiet_time_(quiet_time) {}

  // The parts that have become complete, or changed, since the last call. Throws Failure when the
  // folder cannot be read.
  std::vector<ManifestPart> Look();

  // A part of Look has been run and may be returned again: after files come or go; if it failed,
  // also after files change.
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
