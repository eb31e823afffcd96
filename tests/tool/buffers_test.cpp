// A new tool, and what buffers hold and cannot hold. Parameters, regions, geometry and every other
// buffer are checked with the call sequences.
#include <gtest/gtest.h>

#include <cstring>
#include <limits>
#include <opencv2/core.hpp>

#include "support/frames_and_planes.h"
#include "tool/image_input.h"

namespace velostrix {
namespace {

constexpr int32_t kMax = std::numeric_limits<int32_t>::max();

TEST(Buffers, ANewToolHoldsConstantsDefaultsAndZeros) {
  UnCalibrationTool* stored = nullptr;
  const ToolPtr tool(CreateTool(&stored));
  ASSERT_EQ(stored, tool.get());
  const std::string zero(32, '0');
  const std::string shuffles = "00ff01ff02ff03ff04ff05ff06ff07ff00020406080a0c0effffffffffffffff";
  const std::string words = "ff00ff00ff00ff00ff00ff00ff00ff00";
  std::string constants;
  for (const ConstantVector& vector : tool->constant_vectors) {
    for (const uint8_t byte : vector) {
      constants += "0123456789abcdef"[byte / 16];
      constants += "0123456789abcdef"[byte % 16];
    }
  }
  EXPECT_EQ(constants, zero + words + shuffles +
                           "00ffffff01ffffff02ffffff03ffffff0004080cffffffffffffffffffffffff" +
                           zero + "ff000000ff000000ff000000ff000000" + words + zero + shuffles +
                           "000080bf000080bf000080bf000080bf");
  EXPECT_EQ(tool->smoothing, 1.0F);
  EXPECT_EQ(tool->iteration_cap, 50);
  EXPECT_EQ(tool->scale, 1.0);
  tool->smoothing = 0;
  tool->iteration_cap = 0;
  tool->scale = 0;
  tool->constant_vectors = {};
  std::vector<uint8_t> object(sizeof *tool);
  std::memcpy(object.data(), static_cast<const void*>(tool.get()), object.size());
  EXPECT_EQ(object, std::vector<uint8_t>(sizeof *tool));
}

// A negative size times a scale that vanishes is none; others are beyond any image.
TEST(Buffers, NegativeSizesCountAsUnsigned) {
  for (const auto& [scale, cols] : {std::pair(5e-324, 0), {0.5, 40}}) {
    const ToolPtr tool = UnallocatedTool({30, 40, 40});
    tool->downscale_on = 1;
    tool->scale = scale;
    tool->roi_width = tool->roi_height = -30;
    InitialImage(*tool);
    EXPECT_EQ(tool->cols, cols);
  }
}

// Its gaps are not pixels.
TEST(Buffers, AnEqualisedImageThatHoldsNoPlaneIsRefused) {
  const ToolPtr tool = UnallocatedTool({30, 40, 40, 3});
  InitialImage(*tool);
  tool->equalise_on = 1;
  const cv::Mat larger(30, 60, CV_8UC1, cv::Scalar(7));
  EXPECT_FALSE(SetImage(*tool, larger(cv::Rect(0, 0, 39, 30))));
}

TEST(Buffers, MemoryThatCannotBeHad) {
  // A plane of 8 images has as many bytes as fit in 64 bits, a stack of them has not.
  for (const int32_t image_count : {3, 8}) {
    const ToolPtr tool = UnallocatedTool({kMax, kMax, kMax, image_count});
    InitialImage(*tool);
    for (const Buffer& buffer : BuffersOf(*tool)) EXPECT_EQ(buffer.data, nullptr);
    tool->rows = tool->cols = tool->row_step = 8;  // a frame that would fit brings no buffers
    EXPECT_FALSE(BuffersHoldImages(*tool));
  }
}

}  // namespace
}  // namespace velostrix
