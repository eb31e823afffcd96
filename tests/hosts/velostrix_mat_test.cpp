// The flat cv::Mat helper: what it makes fits OpenCV and the module, what it cannot make is null.
#include "velostrix_mat.h"

#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <numeric>
#include <opencv2/core.hpp>
#include <vector>

namespace {

std::vector<int64_t> Inspect(const VelostrixMat* mat) {
  VelostrixMatInfo info = {};
  EXPECT_TRUE(VelostrixMatInspect(mat, &info));
  EXPECT_EQ(info.data, mat->data);
  return {info.rows, info.cols, info.type, info.pixel_bytes, info.step, info.owns_pixels};
}

TEST(VelostrixMat, MadeWrappedAndCopied) {
  VelostrixMat* const empty = VelostrixMatNew();
  EXPECT_EQ(Inspect(empty), (std::vector<int64_t>{0, 0, 0, 0, 0, 0}));
  VelostrixMatDelete(empty);

  VelostrixMat* const colour = VelostrixMatNewSized(3, 5, VELOSTRIX_MAT_8U_C3);
  EXPECT_EQ(Inspect(colour), (std::vector<int64_t>{3, 5, CV_8UC3, 3, 15, 1}));
  EXPECT_EQ(cv::norm(*colour), 0.0);
  VelostrixMatDelete(colour);

  std::array<uint16_t, 12> memory = {};
  std::iota(memory.begin(), memory.end(), uint16_t{0});
  VelostrixMat* const mat = VelostrixMatWrap(memory.data(), 3, 2, VELOSTRIX_MAT_16U, 8);
  EXPECT_EQ(Inspect(mat), (std::vector<int64_t>{3, 2, CV_16UC1, 2, 8, 0}));
  EXPECT_EQ(mat->ptr(), reinterpret_cast<uint8_t*>(memory.data()));
  std::vector<uint16_t> copy(7, 99);
  EXPECT_FALSE(VelostrixMatCopyTo(mat, copy.data(), 11));
  EXPECT_FALSE(VelostrixMatCopyTo(mat, copy.data(), 13));
  EXPECT_FALSE(VelostrixMatCopyTo(mat, nullptr, 12));
  EXPECT_EQ(copy, std::vector<uint16_t>(7, 99));
  EXPECT_TRUE(VelostrixMatCopyTo(mat, copy.data(), 12));
  EXPECT_EQ(copy, (std::vector<uint16_t>{0, 1, 4, 5, 8, 9, 99}));
  VelostrixMatDelete(mat);
}

TEST(VelostrixMat, WhatIsNoImageIsRefused) {
  uint8_t pixels[64] = {};
  for (const std::array<int32_t, 4>& c : {std::array{0, 4, 0, 0},
                                          {4, -1, 0, 0},
                                          {4, 4, -1, 0},
                                          {4, 4, 4096, 0},
                                          {4, 4, CV_8UC(5), 0},
                                          {4, 4, 0, 3},
                                          {4, 4, 0, -4},
                                          {4, 4, CV_16UC1, 9}}) {
    SCOPED_TRACE(testing::PrintToString(c));
    EXPECT_EQ(VelostrixMatWrap(pixels, c[0], c[1], c[2], c[3]), nullptr);
    EXPECT_TRUE(c[3] != 0 || VelostrixMatNewSized(c[0], c[1], c[2]) == nullptr);
  }
  EXPECT_EQ(VelostrixMatWrap(nullptr, 4, 4, 0, 0), nullptr);
  EXPECT_EQ(VelostrixMatNewSized(INT32_MAX, INT32_MAX, CV_64FC4), nullptr);
  EXPECT_EQ(VelostrixMatNewArray(0), nullptr);

  VelostrixMatInfo info = {};
  cv::Mat empty;
  const int sizes[] = {2, 2, 2};
  const cv::Mat cube(3, sizes, CV_8UC1);
  EXPECT_FALSE(VelostrixMatInspect(&cube, &info));
  EXPECT_FALSE(VelostrixMatInspect(nullptr, &info));
  EXPECT_FALSE(VelostrixMatInspect(&empty, nullptr));
  EXPECT_FALSE(VelostrixMatCopyTo(nullptr, pixels, 1));
  EXPECT_FALSE(VelostrixMatCopyTo(&empty, pixels, 0));
  EXPECT_FALSE(VelostrixMatAssign(nullptr, &empty));
  EXPECT_FALSE(VelostrixMatAssign(&empty, nullptr));
  EXPECT_EQ(VelostrixMatAt(nullptr, 1, 0), nullptr);
  VelostrixMatDelete(nullptr);
  VelostrixMatDeleteArray(nullptr);
}

TEST(VelostrixMat, ArraysHoldImagesAndFitTheModule) {
  const cv::Mat shared(4, 4, CV_8UC1, cv::Scalar(7));
  for (const auto destroy : {DestroyImageArrayCPU, VelostrixMatDeleteArray}) {
    VelostrixMat* const first = VelostrixMatNewArray(3);
    for (int32_t k = 0; k < 3; ++k) {
      EXPECT_TRUE(VelostrixMatAssign(VelostrixMatAt(first, 3, k), &shared));
    }
    EXPECT_EQ(VelostrixMatAt(first, 3, 3), nullptr);
    EXPECT_EQ(VelostrixMatAt(first, 3, -1), nullptr);
    EXPECT_EQ(VelostrixMatAt(first, 3, 2)->data, shared.data);
    EXPECT_EQ(shared.u->refcount, 4);
    destroy(first);
    EXPECT_EQ(shared.u->refcount, 1);
  }
}

}  // namespace
