/* An application in C: one part from set-up to results, and a refusal. Exit code 0 when all is
 * well. Includes only public headers; OpenCV is not available to it. */
#include <stdio.h>
#include <stdlib.h>
#include <velostrix/uncalibration.h>
#include <velostrix/velostrix_host.h>
#include <velostrix/version.h>

enum { kWidth = 64, kHeight = 48, kLamps = 4 };

static VelostrixReconstructor* reconstructor = NULL;

/* Ends the program, with what the library says, unless the call was done. */
static void Need(VelostrixStatus status) {
  VelostrixMessage message = {""};
  if (status == VELOSTRIX_OK) return;
  VelostrixReconstructorMessage(reconstructor, &message);
  fprintf(stderr, "%s: %s\n", VelostrixStatusText(status), message.text);
  exit(1);
}

/* What a camera sees of a bump while one lamp is on: brighter where the slope faces the lamp. */
static VelostrixImage Grab(int lamp) {
  static uint8_t frames[kLamps][kHeight * kWidth];
  static const int kDirections[kLamps][2] = {{1, 0}, {0, 1}, {-1, 0}, {0, -1}};
  for (int i = 0; i < kHeight; ++i) {
    for (int j = 0; j < kWidth; ++j) {
      const int x = j - kWidth / 2;
      const int y = i - kHeight / 2;
      const int slope = kDirections[lamp][0] * x + kDirections[lamp][1] * y;
      frames[lamp][i * kWidth + j] = (uint8_t)(120 + (x * x + y * y < 400 ? 4 * slope : 0));
    }
  }
  return (VelostrixImage){frames[lamp], 0, kWidth, kHeight, 1, 0};
}

int main(void) {
  VelostrixMessage message = {""};
  VelostrixImage images[kLamps];
  VelostrixPlane height = {0};
  uint8_t curvature[kHeight * kWidth];
  VelostrixSettings settings = {.struct_size = sizeof settings};

  Need(VelostrixCheckVersion(VELOSTRIX_VERSION_MAJOR, VELOSTRIX_VERSION_MINOR, &message));
  Need(VelostrixReconstructorCreate(&reconstructor));
  Need(VelostrixSettingsDefaults(&settings));
  settings.outputs = VELOSTRIX_OUTPUT_BIT(VELOSTRIX_OUTPUT_CURVATURE) |
                     VELOSTRIX_OUTPUT_BIT(VELOSTRIX_OUTPUT_HEIGHT);

  /* Once for a kind of part. */
  for (int k = 0; k < kLamps; ++k) images[k] = Grab(k);
  Need(VelostrixReconstructorChooseGains(reconstructor, images, kLamps, &settings));

  /* For every part. */
  Need(VelostrixReconstructorPrepare(reconstructor, kLamps, kWidth, kHeight, &settings));
  for (int k = 0; k < kLamps; ++k) {
    images[k] = Grab(k);
    Need(VelostrixReconstructorSetImage(reconstructor, &images[k]));
  }
  Need(VelostrixReconstructorRun(reconstructor));
  Need(VelostrixReconstructorCopyResult(reconstructor, VELOSTRIX_OUTPUT_CURVATURE, curvature, 0,
                                        sizeof curvature));
  Need(VelostrixReconstructorResult(reconstructor, VELOSTRIX_OUTPUT_HEIGHT, &height));
  int edge_pixels = 0;
  for (int i = 0; i < kHeight * kWidth; ++i) edge_pixels += curvature[i] < 64 || curvature[i] > 192;
  const VelostrixStatus refused = VelostrixReconstructorSetImage(reconstructor, NULL);
  VelostrixReconstructorMessage(reconstructor, &message);
  printf("%d pixels on edges, height of %d x %d pixels; refused: %s\n", edge_pixels, height.width,
         height.height, message.text);
  Need(VelostrixReconstructorDestroy(reconstructor));
  const int is_bump = edge_pixels > 30 && edge_pixels < 300 && height.sample_bytes == 2;
  return is_bump && refused == VELOSTRIX_INVALID_ARGUMENT && message.text[0] != 0 ? 0 : 1;
}
