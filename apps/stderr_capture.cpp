// Keeps what image decoders print on stderr, so that it can be told in a line of our own.
#include "apps/stderr_capture.h"

#if defined(_WIN32)
#include <io.h>
#else
#include <unistd.h>
#endif

namespace velostrix::cli {
namespace {

constexpr int kStderr = 2;

#if defined(_WIN32)
int Duplicate(int descriptor) { return _dup(descriptor); }
void Replace(int source, int target) { _dup2(source, target); }
void Close(int descriptor) { _close(descriptor); }
int DescriptorOf(std::FILE* file) { return _fileno(file); }
#else
int Duplicate(int descriptor) { return dup(descriptor); }
void Replace(int source, int target) { dup2(source, target); }
void Close(int descriptor) { close(descriptor); }
int DescriptorOf(std::FILE* file) { return fileno(file); }
#endif

}  // namespace

StderrCapture::StderrCapture() : file_(std::tmpfile()) {
  if (file_ == nullptr) return;  // no place to keep it: it is printed
  std::fflush(stderr);
  saved_descriptor_ = Duplicate(kStderr);
  if (saved_descriptor_ >= 0) Replace(DescriptorOf(file_), kStderr);
}

std::string StderrCapture::End() {
  if (file_ == nullptr) return {};
  if (saved_descriptor_ >= 0) {
    std::fflush(stderr);
    Replace(saved_descriptor_, kStderr);
    Close(saved_descriptor_);
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

}  // namespace velostrix::cli
