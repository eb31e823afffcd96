// What a command says on stderr while it works: notes, warnings, progress.
#include "apps/console.h"

#include <iostream>

#if defined(_WIN32)
#include <io.h>
#else
#include <unistd.h>
#endif

namespace velostrix::cli {
namespace {

bool StderrIsTerminal() {
#if defined(_WIN32)
  return _isatty(2) != 0;
#else
  return isatty(STDERR_FILENO) == 1;
#endif
}

}  // namespace

Console::Console(bool quiet) : quiet_(quiet) {
  if (!quiet && StderrIsTerminal()) shower_ = std::thread([this] { ShowProgress(); });
}

Console::~Console() {
  {
    const std::lock_guard lock(mutex_);
    is_ended_ = true;
    EraseProgress();
  }
  ended_.notify_one();
  if (shower_.joinable()) shower_.join();
}

void Console::Note(const std::string& text) {
  if (quiet_) return;
  const std::lock_guard lock(mutex_);
  EraseProgress();
  std::cerr << text << '\n';
}

void Console::Step(const std::string& text) {
  const std::lock_guard lock(mutex_);
  step_ = text;
}

void Console::ShowProgress() {
  constexpr std::chrono::milliseconds kPatience(1000);
  constexpr std::chrono::milliseconds kRefresh(200);
  std::unique_lock lock(mutex_);
  for (auto wait = kPatience; !ended_.wait_for(lock, wait, [this] { return is_ended_; });
       wait = kRefresh) {
    const auto seconds =
        std::chrono::duration_cast<std::chrono::seconds>(std::chrono::steady_clock::now() - start_);
    EraseProgress();
    std::cerr << step_ << " (" << seconds.count() << " s)" << std::flush;
    is_shown_ = true;
  }
}

void Console::EraseProgress() {
  if (is_shown_) std::cerr << "\r\x1b[K" << std::flush;
  is_shown_ = false;
}

}  // namespace velostrix::cli
