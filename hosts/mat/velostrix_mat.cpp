// cv::Mat behind plain C functions; no exception leaves this file.
#include "velostrix_mat.h"

#include <cstring>
#include <new>
#include <opencv2/core.hpp>

static_assert(sizeof(VelostrixMatInfo) == 40, "record layout");

namespace {

bool IsImage(int32_t rows, int32_t cols, int32_t type) {
  constexpr int kMostChannels = 4;
  return rows >= 1 && cols >= 1 && type >= 0 && type == CV_MAT_TYPE(type) &&
         CV_MAT_CN(type) <= kMostChannels;
}

// What function returns, or `failed` when it throws.
template <typename Function, typename Value>
Value Guarded(Value failed, const Function& function) noexcept {
  try {
    return function();
  } catch (...) {
    return failed;
  }
}

VelostrixMat* const kNoMat = nullptr;

}  // namespace

VelostrixMat* VelostrixMatNew() {
  return Guarded(kNoMat, [] { return new cv::Mat; });
}

VelostrixMat* VelostrixMatNewSized(int32_t rows, int32_t cols, int32_t type) {
  if (!IsImage(rows, cols, type)) return nullptr;
  return Guarded(kNoMat, [&] { return new cv::Mat(rows, cols, type, cv::Scalar::all(0)); });
}

VelostrixMat* VelostrixMatWrap(void* data, int32_t rows, int32_t cols, int32_t type, int64_t step) {
  if (data == nullptr || !IsImage(rows, cols, type)) return nullptr;
  const int64_t row_bytes = int64_t{cols} * CV_ELEM_SIZE(type);
  if (step == 0) step = row_bytes;
  if (step < row_bytes || step % CV_ELEM_SIZE1(type) != 0) return nullptr;
  return Guarded(kNoMat,
                 [&] { return new cv::Mat(rows, cols, type, data, static_cast<size_t>(step)); });
}

bool VelostrixMatInspect(const VelostrixMat* mat, VelostrixMatInfo* info) {
  if (mat == nullptr || info == nullptr || mat->dims > 2) return false;
  *info = {};
  if (mat->empty()) return true;
  info->data = mat->data;
  info->step = static_cast<int64_t>(mat->step[0]);
  info->rows = mat->rows;
  info->cols = mat->cols;
  info->type = mat->type();
  info->pixel_bytes = static_cast<int32_t>(mat->elemSize());
  info->owns_pixels = mat->u != nullptr ? 1 : 0;
  return true;
}

bool VelostrixMatCopyTo(const VelostrixMat* mat, void* out, int64_t out_bytes) {
  VelostrixMatInfo info;
  if (out == nullptr || !VelostrixMatInspect(mat, &info) || info.data == nullptr) return false;
  const int64_t row_bytes = int64_t{info.cols} * info.pixel_bytes;
  if (out_bytes != row_bytes * info.rows) return false;
  for (int32_t row = 0; row < info.rows; ++row) {
    std::memcpy(static_cast<uint8_t*>(out) + row * row_bytes, mat->ptr(row),
                static_cast<size_t>(row_bytes));
  }
  return true;
}

void VelostrixMatDelete(VelostrixMat* mat) { delete mat; }

VelostrixMat* VelostrixMatNewArray(int32_t count) {
  if (count < 1) return nullptr;
  return Guarded(kNoMat, [&] { return new cv::Mat[static_cast<size_t>(count)]; });
}

VelostrixMat* VelostrixMatAt(VelostrixMat* first, int32_t count, int32_t index) {
  return first == nullptr || index < 0 || index >= count ? nullptr : first + index;
}

bool VelostrixMatAssign(VelostrixMat* to, const VelostrixMat* from) {
  if (to == nullptr || from == nullptr) return false;
  return Guarded(false, [&] {
    *to = *from;
    return true;
  });
}

void VelostrixMatDeleteArray(VelostrixMat* first) { delete[] first; }
