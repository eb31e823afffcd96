// A new tool, parameters, region and working frame, and the buffers for it.
#include <gtest/gtest.h>
#include <malloc.h>

#include <algorithm>
#include <limits>
#include <opencv2/core.hpp>

#include "tool/region.h"
#include "tool_under_test.h"

namespace velostrix {
namespace {

constexpr int32_t kMax = std::numeric_limits<int32_t>::max();

using Numbers = std::vector<int64_t>;

// The record is laid out as a host lays it out: byte by byte, every number that of its place.
TEST(Geometry, EveryFieldOfTheRecordGoesToItsPlace) {
  UnCalibrationParam param;
  auto* const bytes = reinterpret_cast<uint8_t*>(&param);
  for (int32_t offset = 0; offset < 200; offset += 4) {
    std::memcpy(bytes + offset, &offset, sizeof offset);
  }
  for (const int offset : {48, 72, 88, 104, 120, 136, 152, 168, 184}) {
    const double value = offset + 0.5;
    std::memcpy(bytes + offset, &value, sizeof value);
  }
  const ToolPtr tool = NewTool(param);
  EXPECT_EQ((Numbers{tool->image_count, tool->cols, tool->roi_width, tool->rows, tool->roi_height,
                     tool->row_step, tool->difference_mode, tool->blur_radius, tool->iteration_cap,
                     tool->factor_offset, tool->equalise_on, tool->plane_size}),
            (Numbers{0, 4, 4, 8, 8, 12, 56, 60, 64, 68, 192, 12 * 8}));
  for (int i = 0; i < VELOSTRIX_OUTPUT_COUNT; ++i) EXPECT_EQ(tool->output_enable[i], 16 + 4 * i);
  EXPECT_EQ(tool->scale, 48.5);
  EXPECT_EQ(tool->factor_gain, 72.5);
  int offset = 80;
  const auto channel = [&](int k) {
    return OutputScaling{tool->channel_offset[k], tool->channel_gain[k]};
  };
  for (const OutputScaling& scaling :
       {OutputScaling{tool->curvature_offset, tool->curvature_gain},
        OutputScaling{tool->magnitude_offset, tool->magnitude_gain}, channel(0), channel(1),
        channel(2), tool->reserved[0], tool->reserved[1]}) {
    EXPECT_EQ(scaling.offset, offset);
    EXPECT_EQ(scaling.gain, offset + 8.5);
    offset += 16;
  }
}

TEST(Geometry, RegionsByHand) {
  const struct {
    double scale;
    int32_t corners[4];
    RegionOfInterest roi;
    int64_t cols, rows;
  } cases[] = {{1.0, {10, 10, 109, 59}, {10, 10, 100, 50}, 100, 50},
               {1.0, {639, 479, 639, 479}, {639, 479, 1, 1}, 1, 1},
               {1.0, {-5, -5, 10000, 10000}, {0, 0, 640, 480}, 640, 480},
               {0.5, {0, 0, 99, 39}, {0, 0, 100, 40}, 50, 20},
               {0.5, {0, 0, 19, 99}, {0, 0, 20, 100}, 20, 100},   // 10 is too narrow to scale
               {0.645, {0, 0, 39, 19}, {0, 0, 40, 20}, 25, 12}};  // 25.8 x 12.9
  for (const auto& c : cases) {
    UnCalibrationParam param = FrameParam(640, 480);
    param.scale = c.scale;
    const ToolPtr tool = NewTool(param);
    EXPECT_TRUE(SetRegion(*tool, c.corners[0], c.corners[1], c.corners[2], c.corners[3]));
    EXPECT_EQ((Numbers{tool->roi.x, tool->roi.y, tool->roi.width, tool->roi.height, tool->cols,
                       tool->rows, tool->row_step}),
              (Numbers{c.roi.x, c.roi.y, c.roi.width, c.roi.height, c.cols, c.rows, c.cols}));
  }
}

struct Buffer {
  void* data;
  int64_t pixel_bytes;  // in all its planes
};

std::vector<Buffer> Buffers(const UnCalibrationTool& tool) {
  std::vector<Buffer> buffers = {{tool.image_stack, tool.image_count},
                                 {tool.height_plane, 2},
                                 {tool.spare_stack, 4 * tool.image_count}};
  for (float* map : {tool.factor_map, tool.slope_p, tool.slope_q, tool.gated_factor_map,
                     tool.deriv_p, tool.deriv_q, tool.blurred_deriv_p, tool.blurred_deriv_q,
                     tool.height_map, tool.spare_map}) {
    buffers.push_back({map, 4});
  }
  for (uint8_t* plane :
       {tool.factor_plane, tool.channel_plane[0], tool.channel_plane[1], tool.channel_plane[2],
        tool.derivative_half[0], tool.derivative_half[1], tool.curvature_plane,
        tool.magnitude_plane, tool.spare_plane[0], tool.spare_plane[1]}) {
    buffers.push_back({plane, 1});
  }
  return buffers;
}

void ExpectNoBuffers(const UnCalibrationTool& tool) {
  for (const Buffer& buffer : Buffers(tool)) EXPECT_EQ(buffer.data, nullptr);
  EXPECT_FALSE(BuffersHoldImages(tool));
  EXPECT_FALSE(PlanesHoldFrame(tool));
  EXPECT_FALSE(StackHoldsImages(tool, 1));
}

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
  EXPECT_EQ(ToolState(*tool).object, std::vector<uint8_t>(sizeof(UnCalibrationTool)));
}

TEST(Buffers, AllocatedZeroedAndReleased) {
  for (int32_t image_count = 3; image_count <= 8; ++image_count) {
    SCOPED_TRACE(image_count);
    const ToolPtr tool = NewTool(FrameParam(90, 50, image_count));
    InitialImage(*tool);
    for (const Buffer& buffer : Buffers(*tool)) {
      auto* const bytes = static_cast<uint8_t*>(buffer.data);
      const int64_t size = 50 * 90 * buffer.pixel_bytes;
      ASSERT_GE(static_cast<int64_t>(malloc_usable_size(bytes)), size);
      EXPECT_EQ(std::count(bytes, bytes + size, 0), size);
      std::fill_n(bytes, size, uint8_t{0xA5});  // seen where two share a place
    }
    tool->images_set = 3;
    for (int repetition = 0; repetition < 2; ++repetition) {
      ReleaseImage(*tool);
      ExpectNoBuffers(*tool);
      EXPECT_EQ(tool->images_set, 0);
    }
  }
}

TEST(Buffers, MemoryThatCannotBeHad) {
  // A plane of 8 images has as many bytes as fit in 64 bits, a stack of them has not.
  for (const int32_t image_count : {3, 8}) {
    const ToolPtr tool = NewTool(FrameParam(kMax, kMax, image_count));
    InitialImage(*tool);
    ExpectNoBuffers(*tool);
    SetParam(*tool, FrameParam(8, 6));  // a frame that would fit does not bring buffers
    EXPECT_FALSE(BuffersHoldImages(*tool));
    ReleaseImage(*tool);
    InitialImage(*tool);
    EXPECT_TRUE(BuffersHoldImages(*tool));
  }
}

}  // namespace
}  // namespace velostrix
