// Reports the progress of a batch while it runs, and its result.
#include "apps/batch_progress.h"

#include <cmath>
#include <sstream>

namespace velostrix::cli {
namespace {

std::string Format(double value, int digits = 3) {
  std::ostringstream text;
  text.precision(digits);
  text << value;
  return text.str();
}

// "34 s", "5 min 20 s", "2 h 5 min"
std::string Duration(double seconds) {
  const auto s = static_cast<int64_t>(std::lround(seconds));
  const auto two = [](int64_t large, const char* unit, int64_t small, const char* lesser) {
    return std::to_string(large) + unit + std::to_string(small) + lesser;
  };
  if (s >= 3600) return two(s / 3600, " h ", s % 3600 / 60, " min");
  if (s >= 60) return two(s / 60, " min ", s % 60, " s");
  return std::to_string(s) + " s";
}

}  // namespace

void BatchProgress::Count(const Outcome& outcome) {
  switch (outcome.status) {
    case Outcome::kOpen:
      return;
    case Outcome::kDone:
      ++done_;
      break;
    case Outcome::kWasDone:
      ++was_done_;
      if (done_ == 0) start_ = Clock::now();
      break;
    case Outcome::kFailed:
      ++failed_;
      console_.Warn("part " + outcome.part.name + ": " + outcome.error);
      break;
  }
  read_ms_ += outcome.read_ms;
  run_ms_ += outcome.run_ms;
  write_ms_ += outcome.write_ms;
}

std::string BatchProgress::Describe() const {
  const std::chrono::duration<double> time = Clock::now() - start_;
  const double rate = static_cast<double>(done_ + failed_) / time.count();
  std::string text = std::to_string(through());
  if (total_ != 0) text += " of " + std::to_string(total_);
  text += " parts";
  if (failed_ != 0) text += ", " + std::to_string(failed_) + " failed";
  if (rate > 0.0) {
    text += ", " + Format(rate) + " a second";
    if (total_ != 0)
      text += ", " + Duration(static_cast<double>(total_ - through()) / rate) + " left";
  }
  return text;
}

bool BatchProgress::Tick() {
  constexpr size_t kWidth = 24;
  const size_t filled = total_ == 0 ? 0 : kWidth * through() / total_;
  const std::string bar = '[' + std::string(filled, '#') + std::string(kWidth - filled, '.') + "] ";
  console_.Step((total_ == 0 ? "" : bar) + Describe());
  if (Clock::now() - minute_ < std::chrono::minutes(1)) return false;
  minute_ = Clock::now();
  if (!console_.is_terminal()) console_.Note(Describe());
  return true;
}

void BatchProgress::Summarise() {
  const std::chrono::duration<double> time = Clock::now() - start_;
  console_.Note(std::to_string(done_) + " parts done in " + Duration(time.count()) + ", " +
                std::to_string(was_done_) + " were done already, " + std::to_string(failed_) +
                " failed");
  if (done_ == 0) return;
  const auto each = [this](double sum) { return Format(sum / static_cast<double>(done_)) + " ms"; };
  console_.Note("a part took " + each(read_ms_) + " to read, " + each(run_ms_) + " to run, " +
                each(write_ms_) + " to write, side by side with others");
}

}  // namespace velostrix::cli
