/* A host in C, without OpenCV: a session with plain image records. Exit code 0 when every call
 * answered as it should. */
#include <stdio.h>
#include <velostrix/uncalibration.h>

#include "velostrix_mat.h"

enum { kWidth = 40, kHeight = 30, kImages = 3, kStride = 48 };

static int failures = 0;

static void Expect(bool holds, const char* what) {
  if (holds) return;
  fprintf(stderr, "c_host: not so: %s\n", what);
  ++failures;
}
#define EXPECT(condition) Expect(condition, #condition)

static void SetImages(UnCalibrationTool* tool) {
  static uint8_t pixels[kHeight * kStride];
  const ImageRecord image = {pixels, kWidth, kHeight, kStride, 0, 1};
  for (int k = 0; k < kImages; ++k) {
    for (int i = 0; i < kHeight * kStride; ++i) pixels[i] = (uint8_t)((i * (k + 7)) % 251);
    EXPECT(SetVelostrixUnCalibrationToolImage_CPU_csharp(tool, &image));
  }
  EXPECT(!SetVelostrixUnCalibrationToolImage_CPU_csharp(tool, &image)); /* one too many */
}

/* Without results there is still the light stage. */
static void ExpectOfAllRuns(int32_t done, UnCalibrationTool* tool, VelostrixMat* height) {
  VelostrixMat* const no = NULL;
  EXPECT(done == RunVelostrixUnCalibration_CPU_uncali(tool, no, no, no, no, no, no, no, height));
  EXPECT(done == RunVelostrixUnCalibration_CPU_cali(tool, no, no, no, no, no, no, no, height));
  EXPECT(done == RunVelostrixUnCalibration_CPU_partrows_uncali(tool, no, no, no, no, no, no, no,
                                                               height, 16));
  EXPECT(done == RunVelostrixUnCalibration_CPU_partcols_uncali(tool, no, no, no, no, no, no, no,
                                                               height, 16));
}

static void UseTool(void) {
  UnCalibrationTool* stored = NULL;
  UnCalibrationTool* const tool = CreateVelostrixUnCalibrationToolPtr_CPU(&stored);
  VelostrixMat* const height = VelostrixMatNew();
  VelostrixMatInfo info = {0};
  UnCalibrationParam param = {0};
  EXPECT(tool != NULL && tool == stored);
  param.image_count = kImages;
  param.width = param.row_step = kWidth;
  param.height = kHeight;
  param.scale = 1.0;
  EXPECT(SetVelostrixUnCalibrationToolParam_CPU(tool, &param));
  EXPECT(!SetVelostrixUnCalibrationToolParam_CPU(tool, NULL));
  EXPECT(SetVelostrixUnCalibrationToolROI_CPU(tool, 5, 4, 30, 20));
  EXPECT(!SetVelostrixUnCalibrationToolROI_CPU(tool, 26, 0, 30, 3)); /* beyond the region before */
  EXPECT(ClearVelostrixUnCalibrationToolROI_CPU(tool, kHeight, kWidth, kWidth) == kHeight * kWidth);
  InitialVelostrixUnCalibrationToolImage_CPU(tool);
  EXPECT(!SetVelostrixUnCalibrationToolImage_CPU(tool, NULL));
  EXPECT(!SetVelostrixUnCalibrationToolImage_CPU_csharp(tool, NULL));
  SetImages(tool);
  ExpectOfAllRuns(1, tool, NULL);
  param.output_enable[VELOSTRIX_OUTPUT_HEIGHT] = 1;
  EXPECT(SetVelostrixUnCalibrationToolParam_CPU(tool, &param));
  ExpectOfAllRuns(0, tool, NULL);
  ExpectOfAllRuns(1, tool, height);
  EXPECT(VelostrixMatInspect(height, &info) && info.cols == kWidth && info.rows == kHeight &&
         info.type == VELOSTRIX_MAT_16U);
  VelostrixMatDelete(height);
  ReleaseVelostrixUnCalibrationToolImage_CPU(tool);
  DestroyVelostrixUnCalibrationToolPtr_CPU(tool);
}

int main(void) {
  UseTool();
  return failures == 0 ? 0 : 1;
}
