// The exported functions of the built module: both names of each, null pointers, image arrays.
#include <gtest/gtest.h>

#include <opencv2/core.hpp>

#include "interface/host_tool.h"

namespace velostrix {
namespace {

std::vector<cv::Mat> RandomImages(cv::Size size, int count) {
  cv::RNG rng(11);
  std::vector<cv::Mat> images;
  for (int k = 0; k < count; ++k) {
    images.emplace_back(size, CV_8UC1);
    rng.fill(images.back(), cv::RNG::UNIFORM, 40, 220);
  }
  return images;
}

// One session that uses every entry; its answers and all its results.
std::vector<Results> Session(Names names) {
  const std::vector<cv::Mat> images = RandomImages(cv::Size(64, 48), 4);
  const UnCalibrationParam param = EverythingOn(cv::Size(64, 48), 4);
  HostTool tool(param, names);
  const LoadedModule& module = tool.module();
  std::vector<Results> all;

  EXPECT_FALSE(tool.SetRegion(cv::Rect(70, 0, 4, 4)));
  EXPECT_TRUE(tool.SetRegion(cv::Rect(5, 4, 30, 20)));
  tool.InitialImage();
  for (const RunKind kind : kAllRuns) all.push_back(tool.Reconstruct(kind, images, 13));
  tool.ReleaseImage();

  EXPECT_EQ(module.clear_roi(tool.get(), 48, 64, 66), 48 * 66);
  tool.InitialImage();
  tool.SetImage(images[3]);
  tool.ClearImage();
  for (const RunKind kind : kAllRuns) all.push_back(tool.Reconstruct(kind, images, 9));

  auto* array = new cv::Mat[3];
  std::fill_n(array, 3, images[0]);
  const int references = images[0].u->refcount;
  module.destroy_image_array(array);
  EXPECT_EQ(images[0].u->refcount, references - 3);
  module.destroy_image_array(nullptr);
  return all;
}

TEST(HostCalls, BothNamesDoTheSame) {
  const std::vector<Results> plain = Session(Names::kPlain);
  const std::vector<Results> csharp = Session(Names::kCsharp);
  ASSERT_EQ(plain.size(), csharp.size());
  for (size_t i = 0; i < plain.size(); ++i) {
    SCOPED_TRACE(testing::Message() << (i < 4 ? "region, " : "frame, ") << kAllRuns[i % 4]);
    ExpectSame(csharp[i], plain[i]);
    for (const cv::Mat& image : plain[i]) EXPECT_FALSE(image.empty());
  }
}

TEST(HostCalls, NullImageForAToolThatIsReady) {
  for (const Names names : {Names::kPlain, Names::kCsharp}) {
    HostTool tool = HostTool::Ready(EverythingOn(cv::Size(8, 8), 3), names);
    EXPECT_FALSE(tool.module().set_image(tool.get(), nullptr));
    EXPECT_FALSE(tool.module().set_image_record(tool.get(), nullptr));
    EXPECT_FALSE(tool.module().set_param(tool.get(), nullptr));
  }
}

TEST(HostCalls, AMatOfTheHostGoesThroughTheRecordSetterToo) {
  HostTool tool = HostTool::Ready(EverythingOn(cv::Size(8, 8), 3));
  const cv::Mat image(8, 8, CV_8UC1, cv::Scalar(9));
  const ImageRecord record = {image.data, 8, 8, 0, 0, 1};
  ImageRecord other_type = record;
  other_type.type_code = 13;
  EXPECT_TRUE(tool.module().set_image(tool.get(), &image));
  EXPECT_FALSE(tool.module().set_image_record(tool.get(), &other_type));
  EXPECT_TRUE(tool.module().set_image_record(tool.get(), &record));
  EXPECT_TRUE(tool.module().set_image(tool.get(), &image));
  EXPECT_FALSE(tool.module().set_image_record(tool.get(), &record));  // a fourth of three
}

}  // namespace
}  // namespace velostrix
