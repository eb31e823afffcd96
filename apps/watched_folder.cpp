// A folder into which a station writes parts, each as a folder of images.
#include "apps/watched_folder.h"

#include <algorithm>
#include <system_error>

#include "apps/commands.h"
#include "apps/input_images.h"
#include "velostrix/tool.hpp"

namespace velostrix::cli {

namespace fs = std::filesystem;

std::vector<ManifestPart> WatchedFolder::Look() {
  std::vector<ManifestPart> complete;
  std::error_code error;
  for (fs::directory_iterator entry(folder_, error), end; !error && entry != end;
       entry.increment(error)) {
    const fs::path& folder = entry->path();
    const std::string name = folder.filename().string();
    std::error_code ignored;
    if (!IsPartName(name) || !entry->is_directory(ignored)) continue;
    State& state = parts_[name];
    if (!IsComplete(folder, state)) continue;
    ManifestPart part = {name, {}, folder.string()};
    for (const File& file : state.files) part.files.push_back(file.path);
    complete.push_back(std::move(part));
  }
  if (error) throw Failure(folder_ + ": " + error.message() + "; expected a folder to watch");
  std::sort(complete.begin(), complete.end(),
            [](const ManifestPart& a, const ManifestPart& b) { return IsBefore(a.name, b.name); });
  return complete;
}

// Files and folders may disappear at any moment: a part that cannot be read is not complete.
bool WatchedFolder::IsComplete(const fs::path& folder, State& state) const {
  std::error_code error;
  const fs::file_time_type folder_time = fs::last_write_time(folder, error);
  const bool is_as_taken =
      state.is_done && state.files == state.taken && folder_time == state.folder_time;
  if (error || state.is_in_work || is_as_taken) return false;
  Files files;
  for (fs::directory_iterator entry(folder, error), end; !error && entry != end;
       entry.increment(error)) {
    if (!IsImageName(entry->path().string())) continue;
    File file = {entry->path().string(), entry->file_size(error), {}};
    if (!error) file.time = entry->last_write_time(error);
    files.push_back(std::move(file));
  }
  if (error) return false;
  std::sort(files.begin(), files.end(),
            [](const File& a, const File& b) { return IsBefore(a.path, b.path); });
  const auto now = Clock::now();
  if (!(files == state.files)) {
    state.files = std::move(files);
    state.since = now;
  }
  state.folder_time = folder_time;
  const size_t count = state.files.size();
  const bool is_enough = images_ != 0 ? count >= images_ : count >= VELOSTRIX_FEWEST_IMAGES;
  if (!is_enough || now - state.since < quiet_time_ || state.taken == state.files) return false;
  state.taken = state.files;
  state.is_in_work = true;
  return true;
}

}  // namespace velostrix::cli
