// The defaults of a new tool and its constant vectors.
#include "tool/tool_object.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>

#include "tool_under_test.h"

namespace velostrix {
namespace {

TEST(ToolObject, NewToolHasTheDefaults) {
  UnCalibrationTool* stored = nullptr;
  const ToolPtr tool(CreateTool(&stored));
  ASSERT_EQ(stored, tool.get());

  EXPECT_EQ(tool->smoothing, 1.0F);
  EXPECT_EQ(tool->iteration_cap, 50);
  EXPECT_EQ(tool->scale, 1.0);
  // With these and the constant vectors taken away nothing is left but zeros.
  tool->smoothing = 0;
  tool->iteration_cap = 0;
  tool->scale = 0;
  tool->constant_vectors = {};
  const ToolState state(*tool);
  EXPECT_EQ(std::count(state.object.begin(), state.object.end(), 0),
            static_cast<std::ptrdiff_t>(sizeof(UnCalibrationTool)));
}

TEST(ToolObject, HandedOutOnlyByReturnWhenThereIsNoPlaceForIt) {
  const ToolPtr tool(CreateTool(nullptr));
  EXPECT_NE(tool, nullptr);
  DestroyTool(nullptr);
}

std::string Hex(const ConstantVector& vector) {
  static constexpr char kDigits[] = "0123456789ABCDEF";
  std::string text;
  for (const uint8_t byte : vector) {
    text += kDigits[byte / 16];
    text += kDigits[byte % 16];
  }
  return text;
}

TEST(ToolObject, ConstantVectors) {
  const std::string zero = "00000000000000000000000000000000";
  const std::string words_of_255 = "FF00FF00FF00FF00FF00FF00FF00FF00";
  const std::string widen_to_words = "00FF01FF02FF03FF04FF05FF06FF07FF";
  const std::string pack_words = "00020406080A0C0EFFFFFFFFFFFFFFFF";
  const std::string expected[13] = {zero,
                                    words_of_255,
                                    widen_to_words,
                                    pack_words,
                                    "00FFFFFF01FFFFFF02FFFFFF03FFFFFF",
                                    "0004080CFFFFFFFFFFFFFFFFFFFFFFFF",
                                    zero,
                                    "FF000000FF000000FF000000FF000000",
                                    words_of_255,
                                    zero,
                                    widen_to_words,
                                    pack_words,
                                    "000080BF000080BF000080BF000080BF"};
  const ToolPtr tool = NewTool();
  for (size_t i = 0; i < 13; ++i) {
    EXPECT_EQ(Hex(tool->constant_vectors[i]), expected[i]) << "vector " << i + 1;
  }
}

}  // namespace
}  // namespace velostrix
