/* A C host without OpenCV on an installed copy. */
#include <stdio.h>
#include <velostrix/uncalibration.h>
#include <velostrix/velostrix_mat.h>

int main(void) {
  static uint8_t pixels[3][20][30];
  UnCalibrationParam param = {0};
  UnCalibrationTool* tool = CreateVelostrixUnCalibrationToolPtr_CPU(NULL);
  VelostrixMat* height = VelostrixMatNew();
  VelostrixMatInfo info = {0};
  int32_t done = 0;

  param.image_count = 3;
  param.width = param.row_step = 30;
  param.height = 20;
  param.scale = 1.0;
  param.iteration_cap = 50;
  param.output_enable[VELOSTRIX_OUTPUT_HEIGHT] = 1;
  SetVelostrixUnCalibrationToolParam_CPU(tool, &param);
  InitialVelostrixUnCalibrationToolImage_CPU(tool);
  for (int k = 0; k < 3; ++k) {
    for (int i = 0; i < 20; ++i) {
      for (int j = 0; j < 30; ++j) pixels[k][i][j] = (uint8_t)(100 + (i * (k + 3) + j * j) % 50);
    }
    VelostrixMat* image = VelostrixMatWrap(pixels[k], 20, 30, VELOSTRIX_MAT_8U, 0);
    SetVelostrixUnCalibrationToolImage_CPU(tool, image);
    VelostrixMatDelete(image);
  }
  done =
      RunVelostrixUnCalibration_CPU_uncali(tool, NULL, NULL, NULL, NULL, NULL, NULL, NULL, height);
  VelostrixMatInspect(height, &info);
  printf("run %d: %d x %d, type %d\n", done, info.cols, info.rows, info.type);
  VelostrixMatDelete(height);
  ReleaseVelostrixUnCalibrationToolImage_CPU(tool);
  DestroyVelostrixUnCalibrationToolPtr_CPU(tool);
  return done == 1 && info.cols == 30 && info.rows == 20 && info.type == VELOSTRIX_MAT_16U ? 0 : 1;
}
