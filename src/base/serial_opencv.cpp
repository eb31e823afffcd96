#include "base/serial_opencv.h"

#if defined(__unix__) || defined(__APPLE__)
#include <pthread.h>
#endif

#include <condition_variable>
#include <mutex>
#include <new>
#include <opencv2/core/utility.hpp>

namespace velostrix {
namespace {

// While any thread is in a parallel loop, even of one element, OpenCV runs all other loops of the
// process serially. The first thread that comes here opens such a loop; threads that come while it
// is open are guests, and it stays open until they have left.
class SerialSection {
 public:
  // Whether the section was open: this thread is then a guest. If not, it has to open the section.
  bool EnterAsGuest() {
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [&] { return state_ != State::kChanging; });
    const bool is_open = state_ == State::kOpen;
    if (is_open) {
      ++guests_;
    } else {
      state_ = State::kChanging;
    }
    return is_open;
  }

  void Leave() {
    const std::lock_guard lock(mutex_);
    --guests_;
    changed_.notify_all();
  }

  void Open() { Become(State::kOpen); }

  void AwaitGuests() {
    std::unique_lock lock(mutex_);
    state_ = State::kChanging;
    changed_.wait(lock, [&] { return guests_ == 0; });
  }

  void Close() { Become(State::kClosed); }

 private:
  enum class State { kClosed, kChanging, kOpen };

  void Become(State state) {
    const std::lock_guard lock(mutex_);
    state_ = state;
    changed_.notify_all();
  }

  std::mutex mutex_;
  std::condition_variable changed_;
  State state_ = State::kClosed;
  int guests_ = 0;
};

// One for the process. A forked child gets a new one: the threads inside stayed with the parent.
SerialSection& Section() {
  static SerialSection section;
#if defined(__unix__) || defined(__APPLE__)
  static const int registered =
      pthread_atfork(nullptr, nullptr, [] { new (&section) SerialSection; });
  static_cast<void>(registered);
#endif
  return section;
}

template <typename Call>
struct AtEnd {
  ~AtEnd() { call(); }
  Call call;
};
template <typename Call>
AtEnd(Call) -> AtEnd<Call>;

}  // namespace

void OnThisThread(const std::function<void()>& calls) {
  SerialSection& section = Section();
  if (section.EnterAsGuest()) {
    const AtEnd leave = {[&] { section.Leave(); }};
    calls();
    return;
  }
  const AtEnd close = {[&] { section.Close(); }};
  cv::parallel_for_(cv::Range(0, 1), [&](const cv::Range&) {
    section.Open();
    const AtEnd await_guests = {[&] { section.AwaitGuests(); }};
    calls();
  });
}

}  // namespace velostrix
