// New files, written beside their places and put there together.
#pragma once

#include <signal.h>

#include <array>
#include <cstdint>
#include <filesystem>
#include <mutex>
#include <utility>
#include <vector>

namespace velostrix::cli {

// While it lives, a signal that asks the program to end is kept; it has its effect afterwards.
class SignalHold {
 public:
  SignalHold();
  ~SignalHold();
  SignalHold(const SignalHold&) = delete;
  SignalHold& operator=(const SignalHold&) = delete;

  // Failure when such a signal has come.
  static void Check();

  // The signal that has come, or 0.
  static int Kept();

  // The same; it is forgotten, and what checks for it goes on.
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

// Waits for other processes that put files into the folder; the lock ends with the descriptor.
// Where the file system has no locks there is none. Failure after half a minute.
Descriptor LockFolder(const std::filesystem::path& folder);

// The drafts in a folder whose writers died before they could put them in place or remove them.
std::vector<std::filesystem::path> AbandonedDrafts(const std::filesystem::path& folder);

// Those not put in place are removed. A draft is locked as long as its writer lives. Trouble is a
// Failure that names the place.
class Drafts {
 public:
  Drafts() = default;
  ~Drafts();
  Drafts(const Drafts&) = delete;
  Drafts& operator=(const Drafts&) = delete;

  // Writes a file of a new name into the folder of the place, down to the disk. Threads may call it
  // at once.
  void Write(const std::filesystem::path& place, const std::vector<uint8_t>& bytes);

  // In the order of writing; when the last one is in place, the others are on the disk.
  void PutInPlace();

 private:
  struct Draft {
    std::filesystem::path path;
    std::filesystem::path place;
    Descriptor file;  // keeps the lock
  };

  // Returns the descriptor of the new file.
  int Create(const std::filesystem::path& place);

  std::mutex mutex_;
  std::vector<Draft> drafts_;
};

}  // namespace velostrix::cli
