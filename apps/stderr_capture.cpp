// Keeps what image codecs print on stderr, so that it can be said in a line of our own.
#include "apps/stderr_capture.h"

#include <unistd.h>

#include <opencv2/core.hpp>

namespace velostrix::cli {

StderrCapture::StderrCapture() : file_(std::tmpfile()) {
  if (file_ == nullptr) return;  // no place to keep it: it is printed
  std::fflush(stderr);
  saved_descriptor_ = dup(STDERR_FILENO);
  if (saved_descriptor_ >= 0) dup2(fileno(file_), STDERR_FILENO);
}

std::string StderrCapture::End() {
  if (file_ == nullptr) return {};
  if (saved_descriptor_ >= 0) {
    std::fflush(stderr);
    dup2(saved_descriptor_, STDERR_FILENO);
    close(saved_descriptor_);
  }
  std::string line;
  std::rewind(file_);
  for (int c = std::fgetc(file_); c != EOF && c != '\n' && c != '\r'; c = std::fgetc(file_)) {
    line.push_back(static_cast<char>(c));
  }
  std::fclose(file_);
  file_ = nullptr;
  return line;
}

std::string CodeQuietly(const std::function<void()>& code) {
  StderrCapture capture;
  std::string error;
  try {
    code();
  } catch (const cv::Exception& e) {
    if (e.code == cv::Error::StsNoMem) throw;
    error = e.err;
  }
  const std::string said = capture.End();
  return said.empty() ? error : said;
}

}  // namespace velostrix::cli
