// The messages of a command on stderr: notes, warnings, progress.
#pragma once

#include <chrono>
#include <condition_variable>
#include <exception>
#include <mutex>
#include <string>
#include <thread>

namespace velostrix::cli {

// The text with control characters written as \x1b, so that it cannot control the terminal.
std::string Printable(const std::string& text);

// The text of an exception, for users.
std::string Explain(const std::exception& error);

class Console {
 public:
  // A quiet console says nothing.
  explicit Console(bool quiet);
  ~Console();
  Console(const Console&) = delete;
  Console& operator=(const Console&) = delete;

  void Note(const std::string& text);
  // Warnings are printed even with --quiet.
  void Complain(const std::string& text);
  void Warn(const std::string& text) { Note("warning: " + text); }

  // Whether Step shows anything.
  bool is_terminal() const { return shower_.joinable(); }

  // What the command is doing. From the second second on it is shown on a terminal, with the time.
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
