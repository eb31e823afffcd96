// What a command says on stderr while it works: notes, warnings, progress.
#pragma once

#include <chrono>
#include <condition_variable>
#include <exception>
#include <mutex>
#include <string>
#include <thread>

namespace velostrix::cli {

// The text with control characters as \x1b: it stays on its line and does not steer the terminal.
std::string Printable(const std::string& text);

// What went wrong, in words.
std::string Explain(const std::exception& error);

class Console {
 public:
  // A quiet console says nothing.
  explicit Console(bool quiet);
  ~Console();
  Console(const Console&) = delete;
  Console& operator=(const Console&) = delete;

  void Note(const std::string& text);
  // What has to be known, also by one who wants it quiet.
  void Complain(const std::string& text);
  void Warn(const std::string& text) { Note("warning: " + text); }

  // Whether Step shows anything.
  bool is_terminal() const { return shower_.joinable(); }

  // What is being done now. When stderr is a terminal and a second has passed since the start, it
  // is shown there with the time so far.
  void Step(const std::string& text);

 private:
  void ShowProgress();
  void EraseProgress();

  const bool quiet_;
  const std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
  std::mutex mutex_;  // of everything below and of stderr
  std::condition_variable ended_;
  bool is_ended_ = false;
  bool is_shown_ = false;
  std::string step_;
  std::thread shower_;
};

}  // namespace velostrix::cli
