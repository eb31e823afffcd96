// New files: written beside their places, then moved into place together.
#pragma once

#include <signal.h>

#include <array>
#include <cstdint>
#include <filesystem>
#include <mutex>
#include <utility>
#include <vector>

namespace velostrix::cli {

// While it lives, signals that end the program are held; they take effect afterwards.
class SignalHold {
 public:
  SignalHold();
  ~SignalHold();
  SignalHold(const SignalHold&) = delete;
  SignalHold& operator=(const SignalHold&) = delete;

  // Throws Failure when such a signal has come.
  static void Check();

  // The signal that has come, or 0.
  static int Kept();

  // Returns the signal and forgets it: Check no longer throws.
  static int Take();

 private:
  static constexpr std::array kSignals = {SIGINT, SIGTERM, SIGHUP};
  std::array<struct sigaction, kSignals.size()> before_ = {};
};

// An open file or folder.
class Descriptor {
 public:
  explicit Descriptor(int number) : number_(number) {}
  ~Descriptor();
  Descriptor(Descriptor&& other) noexcept : number_(std::exchange(other.number_, -1)) {}
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;

  int number() const { return number_; }  // negative: not open

 private:
  int number_;
};

// Waits for other processes that move files into the folder; the lock ends with the descriptor.
// File systems without locks are not locked. Throws Failure after half a minute.
Descriptor LockFolder(const std::filesystem::path& folder);

// The drafts in a folder whose writers died before they moved or removed them. The caller has
// locked the folder that they lock.
std::vector<std::filesystem::path> AbandonedDrafts(const std::filesystem::path& folder);

// Drafts that were not moved into place are removed. A draft is locked as long as its writer lives.
// Errors are Failures that name the place.
class Drafts {
 public:
  // folder: the one that processes lock before they look for drafts in it or below.
  explicit Drafts(std::filesystem::path folder) : folder_(std::move(folder)) {}
  ~Drafts();
  Drafts(const Drafts&) = delete;
  Drafts& operator=(const Drafts&) = delete;

  // Writes a file with a new name into the folder of the place, and syncs it to the disk. May be
  // called by several threads.
  void Write(const std::filesystem::path& place, const std::vector<uint8_t>& bytes);

  // Moves the files in the order of writing; once the last one is in place, all others are on disk.
  void PutInPlace();

 private:
  struct Draft {
    std::filesystem::path path;
    std::filesystem::path place;
    Descriptor file;  // keeps the lock
  };

  // Returns the descriptor of the new file.
  int Create(const std::filesystem::path& place);

  std::filesystem::path folder_;
  std::mutex mutex_;
  std::vector<Draft> drafts_;
};

}  // namespace velostrix::cli
