// The files of one command: written completely or not at all.
#include "apps/output_files.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <nlohmann/json.hpp>
#include <set>
#include <system_error>

#include "apps/codecs.h"
#include "apps/commands.h"
#include "apps/drafts.h"
#include "apps/input_images.h"
#include "apps/parallel.h"
#include "apps/stderr_capture.h"

namespace velostrix::cli {
namespace {

namespace fs = std::filesystem;

fs::file_status StatusOf(const fs::path& path) {
  std::error_code ignored;  // what cannot be looked at counts as missing, and fails when written
  return fs::symlink_status(path, ignored);
}

// The files that a record lists; none when it is not a record.
std::set<std::string> ReadRecord(const fs::path& path) {
  std::set<std::string> names;
  if (!fs::is_regular_file(StatusOf(path))) return names;
  std::ifstream stream(path);
  const auto record = nlohmann::json::parse(stream, nullptr, false);
  const auto outputs = record.is_object() ? record.find("outputs") : record.end();
  if (outputs == record.end()) return names;
  for (const auto& name : *outputs) {
    if (name.is_string()) names.insert(name);
  }
  return names;
}

// Requires that files can be created in the folder, or in the one above it if it is missing.
void RequireWritable(fs::path folder) {
  std::error_code ignored;
  while (!folder.empty() && !fs::exists(fs::status(folder, ignored))) folder = folder.parent_path();
  if (folder.empty()) folder = ".";
  if (!fs::is_directory(fs::status(folder, ignored))) {
    throw Failure(folder.string() + ": is a file; expected a folder to write to");
  }
  if (access(folder.c_str(), W_OK | X_OK) != 0) {
    throw Failure(folder.string() + ": cannot be written to: " + std::strerror(errno));
  }
}

bool IsPng(const std::string& name) { return fs::path(name).extension() == ".png"; }

bool NeedsCodecs(const std::string& name) {
  const bool is_report = fs::path(name).extension() == ".html";  // has JPEG pictures
  return is_report || (IsImageName(name) && !IsPng(name));
}

// Encodes by OpenCV.
std::vector<uint8_t> Encode(const std::string& name, const cv::Mat& image) {
  // Room for incompressible images, with strips of one row: if the encoder's stream failed to grow,
  // the TIFF library's clean-up would write again and end the program.
  const size_t pixels = image.total() * image.elemSize();
  std::vector<uint8_t> bytes;
  bytes.reserve(pixels + pixels / 8 + 64 * static_cast<size_t>(image.rows) + (size_t{1} << 16));
  bool is_done = false;
  const Codecs& codecs = LoadCodecs();
  const std::string said = CodeQuietly(
      [&] { is_done = codecs.encode(fs::path(name).extension().string(), image, bytes); });
  if (!is_done) throw Failure(name + ": cannot be encoded (" + said + "); is memory short?");
  bytes.shrink_to_fit();
  return bytes;
}

}  // namespace

OutputFiles::OutputFiles(OutputPlan plan) : plan_(std::move(plan)) {
  const auto check = [&] {
    const Descriptor lock = LockFolder(plan_.folder);  // another run may be putting its files there
    CheckPlaces();
  };
  try {
    check();
  } catch (const Failure&) {
    check();  // a folder that was missing had no lock: another run may have made and filled it
  }
  // Load the codecs while there is memory: one of their libraries aborts without.
  if (std::any_of(plan_.made.begin(), plan_.made.end(), NeedsCodecs)) LoadCodecs();
}

// A run that was killed between its first and its last file left its record as a draft.
std::vector<fs::path> OutputFiles::CheckPlaces() const {
  const fs::path record = plan_.folder / plan_.record;
  std::set<std::string> listed = ReadRecord(record);
  for (const fs::path& draft : AbandonedDrafts(record.parent_path())) {
    listed.merge(ReadRecord(draft));
  }
  const auto check = [&](const std::string& name) {
    const fs::path place = plan_.folder / name;
    const fs::file_status status = StatusOf(place);
    if (!fs::exists(status)) return;
    for (const std::string& input : plan_.inputs) {
      std::error_code ignored;
      if (!fs::equivalent(place, input, ignored)) continue;
      throw Failure(input + ": is an input and would be replaced by the result " + place.string() +
                    "; give another --out");
    }
    const bool is_ours =
        plan_.record.empty() || (name == plan_.record ? !listed.empty() : listed.count(name) != 0);
    if (is_ours && fs::is_regular_file(status)) return;
    throw Failure(place.string() + ": is there already, " +
                  (is_ours ? "and not a regular file" : "not from an earlier run") +
                  "; move it away or give another --out");
  };
  for (const std::string& name : plan_.made) {
    RequireWritable((plan_.folder / name).parent_path());
    check(name);
  }
  std::vector<fs::path> outdated;
  for (const std::string& name : plan_.others) {
    const fs::path place = plan_.folder / name;
    if (listed.count(name) == 0 || !fs::is_regular_file(StatusOf(place))) continue;
    check(name);
    outdated.push_back(place);
  }
  return outdated;
}

void OutputFiles::AddImages(const std::vector<std::pair<std::string, cv::Mat>>& images) {
  const size_t first = files_.size();
  std::vector<size_t> order;  // the largest first, so that the cores end together
  for (const auto& [name, image] : images) {
    if (IsPng(name)) order.push_back(files_.size() - first);
    files_.emplace_back(name, std::vector<uint8_t>());
    if (!IsPng(name)) files_.back().second = Encode(name, image);
  }
  const auto bytes = [&](size_t k) {
    return images[k].second.total() * images[k].second.elemSize();
  };
  std::stable_sort(order.begin(), order.end(),
                   [&](size_t a, size_t b) { return bytes(a) > bytes(b); });
  InParallel(order.size(), [&](size_t k) {
    files_[first + order[k]].second = EncodePng(images[order[k]].second, plan_.compression);
  });
}

void OutputFiles::AddBytes(const std::string& name, std::vector<uint8_t> bytes) {
  files_.emplace_back(name, std::move(bytes));
}

void OutputFiles::AddText(const std::string& name, const std::string& text) {
  AddBytes(name, {text.begin(), text.end()});
}

void OutputFiles::Commit(const std::function<std::string()>& record) {
  const SignalHold signals;
  Drafts drafts(plan_.folder);
  const auto write = [&](const std::string& name, const std::vector<uint8_t>& bytes) {
    const fs::path place = plan_.folder / name;
    std::error_code error;
    if (place.has_parent_path()) fs::create_directories(place.parent_path(), error);
    if (error) {
      throw Failure(place.parent_path().string() + ": cannot be made a folder: " + error.message());
    }
    drafts.Write(place, bytes);
  };
  InParallel(files_.size(), [&](size_t k) { write(files_[k].first, files_[k].second); });
  if (record) {
    const std::string text = record();
    write(plan_.record, {text.begin(), text.end()});
  }
  const Descriptor lock = LockFolder(plan_.folder);
  std::vector<fs::path> outdated = CheckPlaces();
  SignalHold::Check();
  // The record is removed first and replaced last: without it the folder is incomplete.
  if (!plan_.record.empty()) outdated.insert(outdated.begin(), plan_.folder / plan_.record);
  for (const fs::path& file : outdated) {
    std::error_code error;
    fs::remove(file, error);
    if (error) throw Failure(file.string() + ": cannot be removed: " + error.message());
  }
  std::set<fs::path> folders;
  for (const auto& [name, bytes] : files_) folders.insert((plan_.folder / name).parent_path());
  std::vector<fs::path> abandoned;
  for (const fs::path& folder : folders) {
    for (fs::path& draft : AbandonedDrafts(folder)) abandoned.push_back(std::move(draft));
  }
  drafts.PutInPlace();
  for (const fs::path& draft : abandoned) unlink(draft.c_str());
}

}  // namespace velostrix::cli
