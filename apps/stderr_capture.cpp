// Captures what image codecs print on stderr, so that our own messages can contain it.
#include "apps/stderr_capture.h"

#include <unistd.h>

#include <cstdio>
#include <opencv2/core.hpp>

namespace velostrix::cli {
namespace {

// Where this thread's prints go; null: to stderr.
thread_local std::string* kept = nullptr;

ssize_t Route(void* /*cookie*/, const char* text, size_t length) {
  if (kept == nullptr) return write(STDERR_FILENO, text, length);
  kept->append(text, length);
  return static_cast<ssize_t>(length);
}

// Codecs print to the variable stderr, which all threads share; we replace it for good, as another
// thread may be printing. The program's own lines go through std::cerr, which keeps the first.
void RouteStderr() {
  std::FILE* const routed = fopencookie(nullptr, "w", {nullptr, Route, nullptr, nullptr});
  if (routed == nullptr) return;  // no memory: it is printed
  std::setvbuf(routed, nullptr, _IONBF, 0);
  stderr = routed;
}

class Capture {
 public:
  explicit Capture(std::string& text) {
    static const bool is_routed = (RouteStderr(), true);
    static_cast<void>(is_routed);
    kept = &text;
  }
  ~Capture() { kept = nullptr; }
  Capture(const Capture&) = delete;
  Capture& operator=(const Capture&) = delete;
};

}  // namespace

std::string CodeQuietly(const std::function<void()>& code) {
  std::string said;
  std::string error;
  {
    const Capture capture(said);
    try {
      code();
    } catch (const cv::Exception& e) {
      if (e.code == cv::Error::StsNoMem) throw;
      error = e.err;
    }
  }
  said.resize(std::min(said.size(), said.find_first_of("\r\n")));
  return said.empty() ? error : said;
}

}  // namespace velostrix::cli
