/* A host in C, without OpenCV: loads the module named by its argument and goes through a session
 * with plain image records. Exit code 0 when every call answered as it should. */
#include <dlfcn.h>
#include <stdio.h>
#include <string.h>

#include "velostrix/uncalibration.h"

enum { kWidth = 40, kHeight = 30, kImages = 3, kStride = 48 };

static int failures = 0;

static void Expect(bool holds, const char* what) {
  if (holds) return;
  fprintf(stderr, "c_host: not so: %s\n", what);
  ++failures;
}
#define EXPECT(condition) Expect(condition, #condition)

/* Standard C has no cast from an object pointer to a function pointer. */
static void Find(void* module, const char* name, void* entry) {
  void* const address = dlsym(module, name);
  if (address == NULL) {
    fprintf(stderr, "c_host: the module does not export %s\n", name);
    ++failures;
  }
  memcpy(entry, &address, sizeof address);
}

typedef int32_t FullFrameRun(UnCalibrationTool*, VelostrixMat*, VelostrixMat*, VelostrixMat*,
                             VelostrixMat*, VelostrixMat*, VelostrixMat*, VelostrixMat*,
                             VelostrixMat*);
typedef int32_t PartialRun(UnCalibrationTool*, VelostrixMat*, VelostrixMat*, VelostrixMat*,
                           VelostrixMat*, VelostrixMat*, VelostrixMat*, VelostrixMat*,
                           VelostrixMat*, int32_t);

typedef struct Module {
  UnCalibrationTool* (*create)(UnCalibrationTool**);
  bool (*set_param)(UnCalibrationTool*, const UnCalibrationParam*);
  bool (*set_roi)(UnCalibrationTool*, int32_t, int32_t, int32_t, int32_t);
  int64_t (*clear_roi)(UnCalibrationTool*, int32_t, int32_t, int32_t);
  void (*initial)(UnCalibrationTool*);
  bool (*set_image)(UnCalibrationTool*, const ImageRecord*);
  void (*clear_image)(UnCalibrationTool*);
  FullFrameRun* run[2];
  PartialRun* run_partial[2];
  void (*release)(UnCalibrationTool*);
  void (*destroy_array)(VelostrixMat*);
  void (*destroy)(UnCalibrationTool*);
} Module;

static Module FindEntries(void* handle) {
  Module m;
  Find(handle, "CreateVelostrixUnCalibrationToolPtr_CPU", &m.create);
  Find(handle, "SetVelostrixUnCalibrationToolParam_CPU", &m.set_param);
  Find(handle, "SetVelostrixUnCalibrationToolROI_CPU", &m.set_roi);
  Find(handle, "ClearVelostrixUnCalibrationToolROI_CPU", &m.clear_roi);
  Find(handle, "InitialVelostrixUnCalibrationToolImage_CPU", &m.initial);
  Find(handle, "SetVelostrixUnCalibrationToolImage_CPU_csharp", &m.set_image);
  Find(handle, "ClearVelostrixUnCalibrationToolImage_CPU", &m.clear_image);
  Find(handle, "RunVelostrixUnCalibration_CPU_uncali", &m.run[0]);
  Find(handle, "RunVelostrixUnCalibration_CPU_cali", &m.run[1]);
  Find(handle, "RunVelostrixUnCalibration_CPU_partrows_uncali", &m.run_partial[0]);
  Find(handle, "RunVelostrixUnCalibration_CPU_partcols_uncali", &m.run_partial[1]);
  Find(handle, "ReleaseVelostrixUnCalibrationToolImage_CPU", &m.release);
  Find(handle, "DestroyImageArrayCPU", &m.destroy_array);
  Find(handle, "DestroyVelostrixUnCalibrationToolPtr_CPU", &m.destroy);
  return m;
}

static void SetImages(const Module* m, UnCalibrationTool* tool) {
  static uint8_t pixels[kHeight * kStride];
  const ImageRecord image = {pixels, kWidth, kHeight, kStride, 0, 1};
  for (int k = 0; k < kImages; ++k) {
    for (int i = 0; i < kHeight * kStride; ++i) pixels[i] = (uint8_t)((i * (k + 7)) % 251);
    EXPECT(m->set_image(tool, &image));
  }
  EXPECT(!m->set_image(tool, &image)); /* one too many */
}

static void UseTool(const Module* m) {
  UnCalibrationTool* stored = NULL;
  UnCalibrationTool* const tool = m->create(&stored);
  EXPECT(tool != NULL && tool == stored);

  UnCalibrationParam param = {0};
  param.image_count = kImages;
  param.width = kWidth;
  param.height = kHeight;
  param.row_step = kWidth;
  param.scale = 1.0;
  param.iteration_cap = 50;
  EXPECT(m->set_param(tool, &param));
  EXPECT(!m->set_roi(tool, 10, 10, 5, 20));
  EXPECT(m->set_roi(tool, 5, 5, 24, 19));
  EXPECT(m->clear_roi(tool, kHeight, kWidth, kWidth) == kHeight * kWidth);
  m->initial(tool);

  /* Without results there is still the light stage; with one asked for, there must be a place. */
  for (int i = 0; i < 2; ++i) {
    SetImages(m, tool);
    EXPECT(m->run[i](tool, NULL, NULL, NULL, NULL, NULL, NULL, NULL, NULL) == 1);
    SetImages(m, tool);
    EXPECT(m->run_partial[i](tool, NULL, NULL, NULL, NULL, NULL, NULL, NULL, NULL, 16) == 1);
  }
  param.output_enable[VELOSTRIX_OUTPUT_HEIGHT] = 1;
  EXPECT(m->set_param(tool, &param));
  EXPECT(m->run[0](tool, NULL, NULL, NULL, NULL, NULL, NULL, NULL, NULL) == 0);

  m->clear_image(tool);
  SetImages(m, tool);
  m->release(tool);
  m->release(tool);
  m->destroy(tool);
}

static void PassNothing(const Module* m) {
  const UnCalibrationParam param = {0};
  const ImageRecord image = {0};
  EXPECT(!m->set_param(NULL, &param));
  EXPECT(!m->set_roi(NULL, 0, 0, 1, 1));
  EXPECT(m->clear_roi(NULL, 1, 1, 1) == 0);
  m->initial(NULL);
  EXPECT(!m->set_image(NULL, &image));
  m->clear_image(NULL);
  EXPECT(m->run[0](NULL, NULL, NULL, NULL, NULL, NULL, NULL, NULL, NULL) == 0);
  EXPECT(m->run[1](NULL, NULL, NULL, NULL, NULL, NULL, NULL, NULL, NULL) == 0);
  EXPECT(m->run_partial[0](NULL, NULL, NULL, NULL, NULL, NULL, NULL, NULL, NULL, 10) == 0);
  EXPECT(m->run_partial[1](NULL, NULL, NULL, NULL, NULL, NULL, NULL, NULL, NULL, 10) == 0);
  m->release(NULL);
  m->destroy_array(NULL);
  m->destroy(NULL);

  UnCalibrationTool* const tool = m->create(NULL);
  EXPECT(tool != NULL);
  EXPECT(!m->set_param(tool, NULL));
  EXPECT(!m->set_image(tool, NULL));
  m->destroy(tool);
}

int main(int argc, char** argv) {
  if (argc != 2) {
    fprintf(stderr, "usage: %s MODULE\n", argv[0]);
    return 2;
  }
  void* const handle = dlopen(argv[1], RTLD_NOW);
  if (handle == NULL) {
    fprintf(stderr, "c_host: %s\n", dlerror());
    return 1;
  }
  const Module module = FindEntries(handle);
  if (failures == 0) {
    UseTool(&module);
    PassNothing(&module);
  }
  return failures == 0 ? 0 : 1;
}
