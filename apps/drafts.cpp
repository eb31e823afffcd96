// New files: written beside their places, then moved into place together.
#include "apps/drafts.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <set>
#include <string>
#include <system_error>
#include <thread>

#include "apps/commands.h"

namespace velostrix::cli {
namespace {

namespace fs = std::filesystem;

constexpr const char* kPrefix = ".velostrix-";
constexpr const char* kSuffix = ".part";

std::atomic<int> kept_signal = 0;
static_assert(std::atomic<int>::is_always_lock_free, "a signal handler stores to it");

extern "C" void KeepSignal(int signal) { kept_signal = signal; }

int OpenFolder(const fs::path& folder) {
  return open(folder.empty() ? "." : folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
}

[[noreturn]] void FailToWrite(const fs::path& place) {
  throw Failure(place.string() + ": cannot be written: " + std::strerror(errno));
}

}  // namespace

SignalHold::SignalHold() {
  struct sigaction keep = {};
  keep.sa_handler = KeepSignal;
  for (size_t k = 0; k < kSignals.size(); ++k) {
    sigaction(kSignals[k], nullptr, &before_[k]);
    if (before_[k].sa_handler != SIG_IGN) sigaction(kSignals[k], &keep, nullptr);
  }
}

SignalHold::~SignalHold() {
  for (size_t k = 0; k < kSignals.size(); ++k) sigaction(kSignals[k], &before_[k], nullptr);
  if (kept_signal != 0) raise(kept_signal);
}

void SignalHold::Check() {
  if (Kept() != 0) throw Failure("interrupted");
}

int SignalHold::Kept() { return kept_signal; }

int SignalHold::Take() { return kept_signal.exchange(0); }

Descriptor::~Descriptor() {
  if (number_ >= 0) close(number_);
}

Descriptor LockFolder(const fs::path& folder) {
  constexpr int kTries = 600;
  constexpr std::chrono::milliseconds kPause(50);
  Descriptor descriptor(OpenFolder(folder));
  for (int k = 0; flock(descriptor.number(), LOCK_EX | LOCK_NB) != 0; ++k) {
    if (errno != EWOULDBLOCK) break;
    if (k == kTries) {
      throw Failure(folder.string() + ": another program holds the folder; repeat when it is done");
    }
    SignalHold::Check();
    std::this_thread::sleep_for(kPause);
  }
  return descriptor;
}

std::vector<fs::path> AbandonedDrafts(const fs::path& folder) {
  std::vector<fs::path> abandoned;
  std::error_code ignored;  // what cannot be looked at is left alone
  for (const fs::directory_entry& entry :
       fs::directory_iterator(folder.empty() ? "." : folder, ignored)) {
    const std::string name = entry.path().filename().string();
    if (name.rfind(kPrefix, 0) != 0 || entry.path().extension() != kSuffix) continue;
    const Descriptor file(open(entry.path().c_str(), O_RDWR | O_NOFOLLOW | O_CLOEXEC));
    if (flock(file.number(), LOCK_EX | LOCK_NB) == 0) abandoned.push_back(entry.path());
  }
  return abandoned;
}

Drafts::~Drafts() {
  for (const Draft& draft : drafts_) unlink(draft.path.c_str());
}

int Drafts::Create(const fs::path& place) {
  const std::lock_guard<std::mutex> guard(mutex_);
  // Other processes see the draft locked or not at all.
  const Descriptor lock = LockFolder(folder_);
  drafts_.reserve(drafts_.size() + 1);  // once the file is there, its name cannot get lost
  for (size_t k = drafts_.size();; ++k) {
    fs::path path = place.parent_path() /
                    (kPrefix + std::to_string(getpid()) + '-' + std::to_string(k) + kSuffix);
    Descriptor created(
        open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0666));
    if (created.number() < 0 && errno != EEXIST) FailToWrite(place);
    if (created.number() < 0) continue;
    flock(created.number(), LOCK_EX);
    drafts_.push_back({std::move(path), place, std::move(created)});
    return drafts_.back().file.number();
  }
}

void Drafts::Write(const fs::path& place, const std::vector<uint8_t>& bytes) {
  const int file = Create(place);
  constexpr size_t kPiece = 1 << 20;  // a signal waits for no more
  for (size_t done = 0; done < bytes.size();) {
    SignalHold::Check();
    const ssize_t written = write(file, bytes.data() + done, std::min(kPiece, bytes.size() - done));
    if (written < 0 && errno != EINTR) FailToWrite(place);
    if (written > 0) done += static_cast<size_t>(written);
  }
  if (fsync(file) != 0) FailToWrite(place);
}

void Drafts::PutInPlace() {
  // Not every file system can sync a folder: no reason to fail.
  const auto sync_folders = [this] {
    std::set<fs::path> folders;
    for (const Draft& draft : drafts_) folders.insert(draft.place.parent_path());
    for (const fs::path& folder : folders) fsync(Descriptor(OpenFolder(folder)).number());
  };
  for (const Draft& draft : drafts_) {
    if (&draft == &drafts_.back()) sync_folders();
    if (rename(draft.path.c_str(), draft.place.c_str()) != 0) FailToWrite(draft.place);
  }
  sync_folders();
  drafts_.clear();
}

}  // namespace velostrix::cli
