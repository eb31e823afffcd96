// Keeps what image codecs print on stderr, so that it can be said in a line of our own.
#pragma once

#include <cstdio>
#include <functional>
#include <string>

namespace velostrix::cli {

class StderrCapture {
 public:
  StderrCapture();
  ~StderrCapture() { End(); }
  StderrCapture(const StderrCapture&) = delete;
  StderrCapture& operator=(const StderrCapture&) = delete;

  // Gives stderr back; returns the first line that was printed meanwhile, without its line end.
  std::string End();

 private:
  std::FILE* file_;
  int saved_descriptor_ = -1;
};

// Calls OpenCV's reading or writing of images; returns what was remarked, or the error. Memory that
// cannot be had is thrown.
std::string CodeQuietly(const std::function<void()>& code);

}  // namespace velostrix::cli
