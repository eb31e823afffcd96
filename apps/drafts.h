// New files, written beside their places and put there together.
#pragma once

#include <signal.h>

#include <array>
#include <cstdint>
#include <filesystem>
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

 private:
  static constexpr std::array kSignals = {SIGINT, SIGTERM, SIGHUP};
  std::array<struct sigaction, kSignals.size()> before_ = {};
};

// An open file or folder.
class Descriptor {
 public:
  explicit Descriptor(int number) : number_(number) {}
  ~Descriptor();
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;

  int number() const { return number_; }  // negative: not open

 private:
  int number_;
};

// Waits for other processes that put files into the folder; ends with the descriptor. After two
// seconds, or where the file system has no locks, there is none.
Descriptor LockFolder(const std::filesystem::path& folder);

// Those not put in place are removed. Trouble is a Failure that names the place.
class Drafts {
 public:
  Drafts() = default;
  ~Drafts();
  Drafts(const Drafts&) = delete;
  Drafts& operator=(const Drafts&) = delete;

  // Writes a file of a new name into the folder of the place, down to the disk.
  void Write(const std::filesystem::path& place, const std::vector<uint8_t>& bytes);

  // In the order of writing; when the last one is in place, the others are on the disk.
  void PutInPlace();

 private:
  std::vector<std::pair<std::filesystem::path, std::filesystem::path>> drafts_;  // and their places
};

}  // namespace velostrix::cli
