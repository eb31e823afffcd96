// What a command says on stderr while it works: notes, warnings, progress.
#include "apps/console.h"

#include <unistd.h>

#include <cstdio>
#include <iostream>
#include <new>
#include <opencv2/core.hpp>
#include <system_error>

namespace velostrix::cli {

std::string Printable(const std::string& text) {
  std::string printable;
  for (const char character : text) {
    const auto byte = static_cast<unsigned char>(character);
    // U+0080 to U+009F are C2 80 to C2 9F.
    const bool is_second =
        byte >= 0x80 && byte < 0xA0 && !printable.empty() && printable.back() == '\xC2';
    if (byte >= 0x20 && byte != 0x7F && !is_second) {
      printable += character;
      continue;
    }
    if (is_second) printable.pop_back();
    char escaped[8];
    std::snprintf(escaped, sizeof escaped, "\\x%02x", byte);
    printable += escaped;
  }
  return printable;
}

std::string Explain(const std::exception& error) {
  const auto* const from_opencv = dynamic_cast<const cv::Exception*>(&error);
  const bool is_memory = from_opencv != nullptr
                             ? from_opencv->code == cv::Error::StsNoMem
                             : dynamic_cast<const std::bad_alloc*>(&error) != nullptr;
  if (is_memory) return "out of memory; work on fewer pixels (--roi, --scale, --size, --tile)";
  return from_opencv != nullptr ? from_opencv->err : error.what();
}

Console::Console(bool quiet) : quiet_(quiet) {
  if (quiet || isatty(STDERR_FILENO) == 0) return;
  try {
    shower_ = std::thread([this] { ShowProgress(); });
  } catch (const std::system_error&) {
    return;  // no thread to be started: no progress
  }
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
  if (!quiet_) Complain(text);
}

void Console::Complain(const std::string& text) {
  const std::lock_guard lock(mutex_);
  EraseProgress();
  std::cerr << Printable(text) << '\n';
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
