// Independent pieces of work on all cores.
#include "apps/parallel.h"

#include <algorithm>
#include <atomic>
#include <exception>
#include <system_error>
#include <thread>
#include <vector>

namespace velostrix::cli {

namespace {

std::atomic<size_t> most_threads = 0;  // 0: cores

}  // namespace

void LimitParallel(size_t threads) { most_threads = threads; }

void InParallel(size_t count, const std::function<void(size_t)>& work) {
  std::vector<std::exception_ptr> errors(count);
  std::vector<std::thread> helpers;
  std::atomic<size_t> next = 0;
  const auto take_pieces = [&]() noexcept {
    for (size_t k = next++; k < count; k = next++) {
      try {
        work(k);
      } catch (...) {
        errors[k] = std::current_exception();
        next = count;
      }
    }
  };
  const size_t cores = std::max(1U, std::thread::hardware_concurrency());
  const size_t limit = most_threads;
  const size_t threads = std::min(limit == 0 ? cores : limit, count);
  helpers.reserve(threads);
  try {
    while (helpers.size() + 1 < threads) helpers.emplace_back(take_pieces);
  } catch (const std::exception&) {  // none left: those that run do
  }
  take_pieces();
  for (std::thread& helper : helpers) helper.join();
  for (const std::exception_ptr& error : errors) {
    if (error) std::rethrow_exception(error);
  }
}

}  // namespace velostrix::cli
