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
bool has_failed = false;

bool FailsNow() {
  if (until_failure == kNever) return false;
  if (--until_failure != kNever) return false;
  has_failed = true;
  return true;
}

class FailingMatAllocator : public cv::MatAllocator {
 public:
  cv::UMatData* allocate(int dims, const int* sizes, int type, void* data, size_t* step,
                         cv::AccessFlag flags, cv::UMatUsageFlags usage) const override {
    if (FailsNow()) CV_Error(cv::Error::StsNoMem, "no memory, says the test");
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

void StartFailingAllocations(int64_t failing) {
  static FailingMatAllocator allocator;
  cv::Mat::setDefaultAllocator(&allocator);
  has_failed = false;
  until_failure = failing;
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

// Only Eigen calls it. Its decompositions (3.4) destroy a member twice when one of their vectors of
// a few numbers cannot be had; such blocks are left to succeed.
void* __wrap_malloc(size_t size) {
  constexpr size_t kSmallestThatFails = 512;
  return size >= kSmallestThatFails && velostrix::FailsNow() ? nullptr : __real_malloc(size);
}
void* __wrap_calloc(size_t count, size_t size) {
  return velostrix::FailsNow() ? nullptr : __real_calloc(count, size);
}
void* __wrap__Znwm(size_t size) {
  if (velostrix::FailsNow()) throw std::bad_alloc();
  return __real__Znwm(size);
}
void* __wrap__Znam(size_t size) {
  if (velostrix::FailsNow()) throw std::bad_alloc();
  return __real__Znam(size);
}
void* __wrap__ZnwmSt11align_val_t(size_t size, std::align_val_t alignment) {
  if (velostrix::FailsNow()) throw std::bad_alloc();
  return __real__ZnwmSt11align_val_t(size, alignment);
}

}  // extern "C"
// NOLINTEND(bugprone-reserved-identifier)
