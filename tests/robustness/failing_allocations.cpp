// Lets one allocation of the library fail. The linker turns the library's references to the
// allocators to the __wrap_ functions below; images are OpenCV's, which takes another allocator.
#include "failing_allocations.h"

#include <cstdlib>
#include <new>
#include <opencv2/core.hpp>

namespace velostrix {
namespace {

constexpr int64_t kNever = -1;
int64_t until_failure = kNever;
size_t smallest_failing = 1;
bool has_failed = false;

bool FailsNow(size_t bytes) {
  if (until_failure == kNever || bytes < smallest_failing) return false;
  if (--until_failure != kNever) return false;
  has_failed = true;
  return true;
}

class FailingMatAllocator : public cv::MatAllocator {
 public:
  cv::UMatData* allocate(int dims, const int* sizes, int type, void* data, size_t* step,
                         cv::AccessFlag flags, cv::UMatUsageFlags usage) const override {
    if (FailsNow(smallest_failing)) CV_Error(cv::Error::StsNoMem, "no memory, says the test");
    return cv::Mat::getStdAllocator()->allocate(dims, sizes, type, data, step, flags, usage);
  }
  bool allocate(cv::UMatData* data, cv::AccessFlag flags, cv::UMatUsageFlags usage) const override {
    return cv::Mat::getStdAllocator()->allocate(data, flags, usage);
  }
  void deallocate(cv::UMatData* data) const override {
    cv::Mat::getStdAllocator()->deallocate(data);
  }
};

}  // namespace

void StartFailingAllocations(int64_t failing, size_t smallest) {
  static FailingMatAllocator allocator;
  cv::Mat::setDefaultAllocator(&allocator);
  has_failed = false;
  until_failure = failing;
  smallest_failing = smallest;
}

bool StopFailingAllocations() {
  cv::Mat::setDefaultAllocator(cv::Mat::getStdAllocator());
  until_failure = kNever;
  return has_failed;
}

}  // namespace velostrix

// Names that the linker prescribes.
// NOLINTBEGIN(bugprone-reserved-identifier)
extern "C" {

void* __real_malloc(size_t size);
void* __real_calloc(size_t count, size_t size);
void* __real__Znwm(size_t size);
void* __real__Znam(size_t size);
void* __real__ZnwmSt11align_val_t(size_t size, std::align_val_t alignment);

void* __wrap_malloc(size_t size) {
  return velostrix::FailsNow(size) ? nullptr : __real_malloc(size);
}
void* __wrap_calloc(size_t count, size_t size) {
  return velostrix::FailsNow(count * size) ? nullptr : __real_calloc(count, size);
}
void* __wrap__Znwm(size_t size) {
  if (velostrix::FailsNow(size)) throw std::bad_alloc();
  return __real__Znwm(size);
}
void* __wrap__Znam(size_t size) {
  if (velostrix::FailsNow(size)) throw std::bad_alloc();
  return __real__Znam(size);
}
void* __wrap__ZnwmSt11align_val_t(size_t size, std::align_val_t alignment) {
  if (velostrix::FailsNow(size)) throw std::bad_alloc();
  return __real__ZnwmSt11align_val_t(size, alignment);
}

}  // extern "C"
// NOLINTEND(bugprone-reserved-identifier)
