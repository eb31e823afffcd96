// The flat cv::Mat helper: what it makes fits OpenCV and the module, what it cannot make is null.
#include "velostrix_mat.h"

#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <limits>
#include <numeric>
#include <opencv2/core.hpp>
#include <vector>

namespace {

VelostrixMatInfo Inspect(const VelostrixMat* mat) {
  VelostrixMatInfo info = {};
  EXPECT_TRUE(VelostrixMatInspect(mat, &info));
  return info;
}

TEST(VelostrixMat, TypeNumbersAreThoseOfOpenCv) {
  EXPECT_EQ(VELOSTRIX_MAT_8U, CV_8UC1);
  EXPECT_EQ(VELOSTRIX_MAT_16U, CV_16UC1);
  EXPECT_EQ(VELOSTRIX_MAT_8U_C3, CV_8UC3);
}

TEST(VelostrixMat, NewImagesAreEmptyOrZero) {
  VelostrixMat* empty = VelostrixMatNew();
  EXPECT_EQ(Inspect(empty).rows, 0);
  EXPECT_EQ(Inspect(empty).data, nullptr);
  VelostrixMatDelete(empty);

  VelostrixMat* colour = VelostrixMatNewSized(3, 5, VELOSTRIX_MAT_8U_C3);
  const VelostrixMatInfo info = Inspect(colour);
  EXPECT_EQ(info.rows, 3);
  EXPECT_EQ(info.cols, 5);
  EXPECT_EQ(info.type, CV_8UC3);
  EXPECT_EQ(info.pixel_bytes, 3);
  EXPECT_EQ(info.step, 15);
  EXPECT_EQ(info.owns_pixels, 1);
  EXPECT_EQ(cv::norm(*colour), 0.0);
  VelostrixMatDelete(colour);
}

TEST(VelostrixMat, WrapsAndCopiesRowsThatLieApart) {
  std::array<uint16_t, 12> memory = {};
  std::iota(memory.begin(), memory.end(), uint16_t{0});
  VelostrixMat* mat = VelostrixMatWrap(memory.data(), 3, 2, VELOSTRIX_MAT_16U, 8);
  EXPECT_EQ(Inspect(mat).data, memory.data());
  EXPECT_EQ(Inspect(mat).step, 8);
  EXPECT_EQ(Inspect(mat).owns_pixels, 0);

  std::vector<uint16_t> copy(7, 99);
  EXPECT_FALSE(VelostrixMatCopyTo(mat, copy.data(), 11));
  EXPECT_FALSE(VelostrixMatCopyTo(mat, copy.data(), 13));
  EXPECT_FALSE(VelostrixMatCopyTo(mat, nullptr, 12));
  EXPECT_EQ(copy, std::vector<uint16_t>(7, 99));
  EXPECT_TRUE(VelostrixMatCopyTo(mat, copy.data(), 12));
  EXPECT_EQ(copy, (std::vector<uint16_t>{0, 1, 4, 5, 8, 9, 99}));
  VelostrixMatDelete(mat);
}

TEST(VelostrixMat, WhatIsNoImageIsNull) {
  constexpr int32_t kMost = std::numeric_limits<int32_t>::max();
  uint8_t pixels[64] = {};
  struct Case {
    int32_t rows, cols, type;
    int64_t step;
  };
  for (const Case& c :
       {Case{0, 4, 0, 0}, Case{4, -1, 0, 0}, Case{4, 4, -1, 0}, Case{4, 4, 4096, 0},
        Case{4, 4, CV_8UC(5), 0}, Case{4, 4, 0, 3}, Case{4, 4, 0, -4}, Case{4, 4, CV_16UC1, 9}}) {
    EXPECT_EQ(VelostrixMatWrap(pixels, c.rows, c.cols, c.type, c.step), nullptr)
        << c.rows << ' ' << c.cols << ' ' << c.type << ' ' << c.step;
    if (c.step == 0) {
      EXPECT_EQ(VelostrixMatNewSized(c.rows, c.cols, c.type), nullptr);
    }
  }
  EXPECT_EQ(VelostrixMatWrap(nullptr, 4, 4, 0, 0), nullptr);
  EXPECT_EQ(VelostrixMatNewSized(kMost, kMost, CV_64FC4), nullptr);
  EXPECT_EQ(VelostrixMatNewArray(0), nullptr);
  EXPECT_EQ(VelostrixMatNewArray(-1), nullptr);
}

TEST(VelostrixMat, NullIsRefused) {
  VelostrixMatInfo info = {};
  cv::Mat mat;
  uint8_t byte = 0;
  EXPECT_FALSE(VelostrixMatInspect(nullptr, &info));
  EXPECT_FALSE(VelostrixMatInspect(&mat, nullptr));
  EXPECT_FALSE(VelostrixMatCopyTo(nullptr, &byte, 1));
  EXPECT_FALSE(VelostrixMatCopyTo(&mat, &byte, 0));
  EXPECT_FALSE(VelostrixMatAssign(nullptr, &mat));
  EXPECT_FALSE(VelostrixMatAssign(&mat, nullptr));
  EXPECT_EQ(VelostrixMatAt(nullptr, 1, 0), nullptr);
  VelostrixMatDelete(nullptr);
  VelostrixMatDeleteArray(nullptr);

  const std::array<int, 3> sizes = {2, 2, 2};
  const cv::Mat cube(3, sizes.data(), CV_8UC1);
  EXPECT_FALSE(VelostrixMatInspect(&cube, &info));
}

TEST(VelostrixMat, ArraysHoldImagesAndFitTheModule) {
  constexpr int32_t kCount = 3;
  cv::Mat shared(4, 4, CV_8UC1, cv::Scalar(7));
  for (const auto destroy : {DestroyImageArrayCPU, VelostrixMatDeleteArray}) {
    VelostrixMat* first = VelostrixMatNewArray(kCount);
    for (int32_t k = 0; k < kCount; ++k) {
      EXPECT_TRUE(VelostrixMatAssign(VelostrixMatAt(first, kCount, k), &shared));
    }
    EXPECT_EQ(VelostrixMatAt(first, kCount, kCount), nullptr);
    EXPECT_EQ(VelostrixMatAt(first, kCount, -1), nullptr);
    EXPECT_EQ(shared.u->refcount, 1 + kCount);
    EXPECT_EQ(Inspect(VelostrixMatAt(first, kCount, 1)).data, shared.data);
    destroy(first);
    EXPECT_EQ(shared.u->refcount, 1);
  }
}

}  // namespace
