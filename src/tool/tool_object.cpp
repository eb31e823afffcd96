// Creation and destruction of the tool object.
#include "tool/tool_object.h"

#include "tool/uncalibration_tool.h"

namespace velostrix {
namespace {

constexpr ConstantVector kZero = {};
constexpr ConstantVector kWords255 = {255, 0, 255, 0, 255, 0, 255, 0,
                                      255, 0, 255, 0, 255, 0, 255, 0};
constexpr ConstantVector kInts255 = {255, 0, 0, 0, 255, 0, 0, 0, 255, 0, 0, 0, 255, 0, 0, 0};
// Byte shuffles; an index of 0xFF writes a zero byte.
constexpr ConstantVector kWidenBytesToWords = {0, 255, 1, 255, 2, 255, 3, 255,
                                               4, 255, 5, 255, 6, 255, 7, 255};
constexpr ConstantVector kPackWordsToBytes = {0,   2,   4,   6,   8,   10,  12,  14,
                                              255, 255, 255, 255, 255, 255, 255, 255};
constexpr ConstantVector kWidenBytesToInts = {0, 255, 255, 255, 1, 255, 255, 255,
                                              2, 255, 255, 255, 3, 255, 255, 255};
constexpr ConstantVector kPackIntsToBytes = {0,   4,   8,   12,  255, 255, 255, 255,
                                             255, 255, 255, 255, 255, 255, 255, 255};
constexpr ConstantVector kFloatsMinusOne = {0, 0, 0x80, 0xBF, 0, 0, 0x80, 0xBF,
                                            0, 0, 0x80, 0xBF, 0, 0, 0x80, 0xBF};

}  // namespace

UnCalibrationTool* CreateTool(UnCalibrationTool** out) {
  auto* tool = new UnCalibrationTool();
  tool->constant_vectors = {kZero,
                            kWords255,
                            kWidenBytesToWords,
                            kPackWordsToBytes,
                            kWidenBytesToInts,
                            kPackIntsToBytes,
                            kZero,
                            kInts255,
                            kWords255,
                            kZero,
                            kWidenBytesToWords,
                            kPackWordsToBytes,
                            kFloatsMinusOne};
  if (out != nullptr) *out = tool;
  return tool;
}

void DestroyTool(UnCalibrationTool* tool) { delete tool; }

}  // namespace velostrix
