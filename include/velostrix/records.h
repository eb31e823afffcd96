/** @file
 * The two flat records that an application passes to the module, with pinned layouts. C11 and
 * C++17.
 */
#ifndef VELOSTRIX_RECORDS_H
#define VELOSTRIX_RECORDS_H

#include <assert.h>
#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/** Indices of UnCalibrationParam::output_enable: which result images a run makes. */
enum VelostrixOutput {
  VELOSTRIX_OUTPUT_FACTOR = 0,
  VELOSTRIX_OUTPUT_CURVATURE = 1,
  VELOSTRIX_OUTPUT_MAGNITUDE = 2,
  VELOSTRIX_OUTPUT_HEIGHT = 3,
  VELOSTRIX_OUTPUT_CHANNEL0 = 4,
  VELOSTRIX_OUTPUT_CHANNEL1 = 5,
  VELOSTRIX_OUTPUT_CHANNEL2 = 6,
  VELOSTRIX_OUTPUT_NORMAL = 7, /**< also makes channels 0, 1 and 2 */
  VELOSTRIX_OUTPUT_COUNT = 8
};

/** Limits of images and parameters. */
enum VelostrixLimit {
  VELOSTRIX_FEWEST_IMAGES = 3,
  VELOSTRIX_MOST_IMAGES = 8,
  VELOSTRIX_SMALLEST_WIDTH = 3, /**< pixels of the image or region */
  VELOSTRIX_SMALLEST_HEIGHT = 2,
  VELOSTRIX_SMALLEST_BAND = 10, /**< a smaller band counts as this */
  /** No scaling where a side would come out at this many pixels or fewer. */
  VELOSTRIX_LARGEST_SMALL_SIDE = 10,
  VELOSTRIX_LARGEST_BLUR_RADIUS = 32767
};

/** A scale of this or more leaves images as they are. */
#define VELOSTRIX_SCALED_BELOW 0.99

/** How one float map becomes an 8-bit image: level = saturate(value * gain + offset). */
typedef struct OutputScaling {
  int32_t offset; /**< levels, added after the gain */
  double gain;    /**< levels per unit of the map */
} OutputScaling;

/** Everything that SetVelostrixUnCalibrationToolParam_CPU sets. 200 bytes, natural alignment. Start
 * from an all-zero record, which switches every output off. */
typedef struct UnCalibrationParam {
  int32_t image_count; /**< N, images of one run: 3 to 8 */
  int32_t width;       /**< pixels; at least 3 for the derivative images */
  int32_t height;      /**< pixels; at least 2 for the derivative images */
  int32_t row_step; /**< elements from one row to the next in the tool's planes: at least width */
  int32_t output_enable[VELOSTRIX_OUTPUT_COUNT]; /**< non-zero: make that image */
  double scale; /**< below VELOSTRIX_SCALED_BELOW the tool works on images scaled by it; 1 = full */
  int32_t difference_mode; /**< derivative maps: 1 = forward differences, anything else = central */
  int32_t blur_radius; /**< pixels; k >= 1 smooths with a (2k+1) x (2k+1) Gaussian; at most 32767 */
  int32_t iteration_cap;   /**< height integration: most conjugate-gradient iterations; 50 is usual,
                              0 = flat height, negative = twice the number of pixels */
  int32_t factor_offset;   /**< reserved for the layout; not read */
  double factor_gain;      /**< the factor image is normalised to 0..255, then multiplied by this */
  OutputScaling curvature; /**< of the curvature image */
  OutputScaling magnitude; /**< of the magnitude image */
  OutputScaling channel[3];  /**< of the images of channels 0, 1 and 2 */
  OutputScaling reserved[2]; /**< reserved for the layout; not read */
  int32_t equalise_on;       /**< non-zero: even out the column brightness of every input image */
} UnCalibrationParam;

/** One image in memory, as SetVelostrixUnCalibrationToolImage_CPU_csharp takes it. 32 bytes. */
typedef struct ImageRecord {
  const void* data;   /**< first pixel; owned by the caller, read during the call only */
  int32_t width;      /**< columns */
  int32_t height;     /**< rows */
  int32_t row_stride; /**< bytes from one row to the next; 0 = rows without gaps */
  int32_t unread;     /**< not read */
  int32_t type_code;  /**< 1..4: 8-bit unsigned with 1..4 channels, 5..8: 16-bit unsigned, 9..12:
                         float */
} ImageRecord;

#ifdef __cplusplus
}
#define VELOSTRIX_PIN(condition) static_assert(condition, "record layout")
#else
#define VELOSTRIX_PIN(condition) _Static_assert(condition, "record layout")
#endif

VELOSTRIX_PIN(sizeof(UnCalibrationParam) == 200);
VELOSTRIX_PIN(offsetof(UnCalibrationParam, image_count) == 0);
VELOSTRIX_PIN(offsetof(UnCalibrationParam, width) == 4);
VELOSTRIX_PIN(offsetof(UnCalibrationParam, height) == 8);
VELOSTRIX_PIN(offsetof(UnCalibrationParam, row_step) == 12);
VELOSTRIX_PIN(offsetof(UnCalibrationParam, output_enable) == 16);
VELOSTRIX_PIN(offsetof(UnCalibrationParam, scale) == 48);
VELOSTRIX_PIN(offsetof(UnCalibrationParam, difference_mode) == 56);
VELOSTRIX_PIN(offsetof(UnCalibrationParam, blur_radius) == 60);
VELOSTRIX_PIN(offsetof(UnCalibrationParam, iteration_cap) == 64);
VELOSTRIX_PIN(offsetof(UnCalibrationParam, factor_offset) == 68);
VELOSTRIX_PIN(offsetof(UnCalibrationParam, factor_gain) == 72);
VELOSTRIX_PIN(offsetof(UnCalibrationParam, curvature) == 80);
VELOSTRIX_PIN(offsetof(UnCalibrationParam, magnitude) == 96);
VELOSTRIX_PIN(offsetof(UnCalibrationParam, channel) == 112);
VELOSTRIX_PIN(offsetof(UnCalibrationParam, reserved) == 160);
VELOSTRIX_PIN(offsetof(UnCalibrationParam, equalise_on) == 192);
VELOSTRIX_PIN(sizeof(OutputScaling) == 16);
VELOSTRIX_PIN(offsetof(OutputScaling, gain) == 8);

VELOSTRIX_PIN(sizeof(ImageRecord) == 32);
VELOSTRIX_PIN(offsetof(ImageRecord, data) == 0);
VELOSTRIX_PIN(offsetof(ImageRecord, width) == 8);
VELOSTRIX_PIN(offsetof(ImageRecord, height) == 12);
VELOSTRIX_PIN(offsetof(ImageRecord, row_stride) == 16);
VELOSTRIX_PIN(offsetof(ImageRecord, type_code) == 24);

#undef VELOSTRIX_PIN

#endif /* VELOSTRIX_RECORDS_H */
