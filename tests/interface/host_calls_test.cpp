// The exported functions of the built module: both names of each do the same.
#include <gtest/gtest.h>

#include <opencv2/core.hpp>

#include "interface/host_tool.h"

namespace velostrix {
namespace {

TEST(HostCalls, BothNamesDoTheSame) {
  const cv::Size size(64, 48);
  std::vector<cv::Mat> images;
  cv::RNG random(11);
  for (int k = 0; k < 4; ++k) {
    images.emplace_back(size, CV_8UC1);
    random.fill(images.back(), cv::RNG::UNIFORM, 40, 220);
  }
  const UnCalibrationParam param = EverythingOn(size, images.size());
  HostTool plain(param);
  UnCalibrationTool* csharp = nullptr;
  EXPECT_EQ(CreateVelostrixUnCalibrationToolPtr_CPU_csharp(&csharp), csharp);
  EXPECT_TRUE(SetVelostrixUnCalibrationToolParam_CPU_csharp(csharp, &param));

  const auto set_image = [&](const cv::Mat& image) {
    const ImageRecord record = {image.data, size.width, size.height, 0, 0, 1};
    EXPECT_TRUE(SetVelostrixUnCalibrationToolImage_CPU_csharp(csharp, &record));
  };
  const auto expect_same = [&](RunKind kind, auto function, auto... band) {
    SCOPED_TRACE(kind);
    for (const cv::Mat& image : images) set_image(image);
    Results r;
    EXPECT_EQ(function(csharp, &r[0], &r[1], &r[2], &r[3], &r[4], &r[5], &r[6], &r[7], band...), 1);
    ExpectSame(r, plain.Reconstruct(kind, images, 13));
  };
  EXPECT_FALSE(SetVelostrixUnCalibrationToolROI_CPU_csharp(csharp, 70, 0, 73, 3));
  for (const bool has_region : {true, false}) {
    SCOPED_TRACE(has_region);
    if (has_region) {
      EXPECT_TRUE(plain.SetRegion({5, 4, 30, 20}));
      EXPECT_TRUE(SetVelostrixUnCalibrationToolROI_CPU_csharp(csharp, 5, 4, 34, 23));
    } else {
      EXPECT_EQ(ClearVelostrixUnCalibrationToolROI_CPU(plain.get(), 48, 64, 66), 48 * 66);
      EXPECT_EQ(ClearVelostrixUnCalibrationToolROI_CPU_csharp(csharp, 48, 64, 66), 48 * 66);
    }
    plain.InitialImage();
    InitialVelostrixUnCalibrationToolImage_CPU_csharp(csharp);
    plain.SetImage(images[3]);
    plain.ClearImage();
    set_image(images[3]);
    ClearVelostrixUnCalibrationToolImage_CPU_csharp(csharp);
    expect_same(RunKind::kUncalibrated, RunVelostrixUnCalibration_CPU_csharp_uncali);
    expect_same(RunKind::kCalibrated, RunVelostrixUnCalibration_CPU_csharp_cali);
    expect_same(RunKind::kPartRows, RunVelostrixUnCalibration_CPU_partrows_csharp_uncali, 13);
    expect_same(RunKind::kPartCols, RunVelostrixUnCalibration_CPU_partcols_csharp_uncali, 13);
    plain.ReleaseImage();
    ReleaseVelostrixUnCalibrationToolImage_CPU_csharp(csharp);
  }
  DestroyVelostrixUnCalibrationToolPtr_CPU_csharp(csharp);

  for (const auto destroy : {DestroyImageArrayCPU, DestroyImageArrayCPU_csharp}) {
    auto* const array = new cv::Mat[3];
    std::fill_n(array, 3, images[0]);
    destroy(array);
    EXPECT_EQ(images[0].u->refcount, 1);
  }
}

}  // namespace
}  // namespace velostrix
