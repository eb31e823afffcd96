// Keeps what image decoders print on stderr, so that it can be told in a line of our own.
#pragma once

#include <cstdio>
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

}  // namespace velostrix::cli
