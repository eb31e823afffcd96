/** @file
 * Velostrix for applications in any language: one object, the reconstructor, behind plain C
 * functions on plain memory. C11 and C++17; the application needs neither OpenCV nor its headers.
 *
 * Calling order
 *   1. VelostrixReconstructorCreate
 *   2. VelostrixSettingsDefaults, then change what should differ; or VelostrixSettingsFromJson
 *   3. optional: VelostrixFitFlat and VelostrixReconstructorDiagnose when a station is set up;
 *      VelostrixReconstructorChooseGains once for a kind of part
 *   4. VelostrixReconstructorPrepare
 *   5. for each image, as its lamp fires, VelostrixReconstructorSetImage; then
 *      VelostrixReconstructorRun; read the results; repeat for the next part
 *      (or VelostrixReconstructorReconstruct in place of 4 and 5, with all images at once)
 *   6. VelostrixReconstructorDestroy
 *
 * Status. Every function that can fail returns a VelostrixStatus; no exception leaves it. A text,
 * the same in every language, says what was refused and what is expected:
 * VelostrixReconstructorMessage, or the `message` of functions without a reconstructor (it may be
 * null, and is written only when something is refused). A refusal (VELOSTRIX_INVALID_ARGUMENT,
 * VELOSTRIX_WRONG_STATE, VELOSTRIX_BUSY) leaves the reconstructor, its images and its results
 * unchanged. After VELOSTRIX_OUT_OF_MEMORY and VELOSTRIX_FAILED the reconstructor is as after
 * Create: prepare it again. A null pointer where none is allowed is VELOSTRIX_INVALID_ARGUMENT.
 *
 * Ownership. A reconstructor owns its working buffers (about 52 + 5 N bytes a pixel). It keeps them
 * from part to part and allocates new ones only when number or size of the images, region or scale
 * change. The caller's memory is read or written during the call only.
 *
 * Threads. Use a reconstructor from one thread at a time: while a call is running, another one
 * returns VELOSTRIX_BUSY at once and does nothing. Separate reconstructors are independent. Several
 * threads compute the height; VelostrixSetThreads sets how many. They end before the call does.
 *
 * Records. Layouts are pinned below. Records that may grow begin with struct_size: set it to the
 * record's sizeof before every call. Another size is refused.
 *
 * Pixels, axes and units are those of velostrix/uncalibration.h.
 */
#ifndef VELOSTRIX_HOST_H
#define VELOSTRIX_HOST_H

#include <assert.h>
#include <stddef.h>
#include <stdint.h>

#include "velostrix/records.h"

#if defined(_WIN32)
#if defined(VELOSTRIX_BUILDS_HOST)
#define VELOSTRIX_HOST_API __declspec(dllexport)
#else
#define VELOSTRIX_HOST_API __declspec(dllimport)
#endif
#else
#define VELOSTRIX_HOST_API __attribute__((visibility("default")))
#endif

#ifdef __cplusplus
extern "C" {
#endif

/** @defgroup status_and_texts Status and texts
 * @{
 */

/** One of the values below. */
typedef int32_t VelostrixStatus;

/** What a call ended with. */
enum {
  VELOSTRIX_OK = 0,
  VELOSTRIX_INVALID_ARGUMENT = 1, /**< an argument or a setting is wrong */
  VELOSTRIX_OUT_OF_MEMORY = 2,
  VELOSTRIX_WRONG_STATE = 3, /**< not prepared, images missing, no results yet, ... */
  VELOSTRIX_BUSY = 4,        /**< another thread is using this reconstructor */
  VELOSTRIX_FAILED = 5       /**< any other failure; the message has its text */
};

/** A text in UTF-8 that ends with a zero; a longer one is cut. File names and other texts of the
 * caller are repeated as given. */
typedef struct VelostrixMessage {
  char text[1024]; /**< with its zero */
} VelostrixMessage;

/** What a status means, such as "out of memory"; for failures without a message: of Create, and
 * VELOSTRIX_BUSY. Never null; valid as long as the library is loaded. */
VELOSTRIX_HOST_API const char* VelostrixStatusText(VelostrixStatus status);

/** "MAJOR.MINOR.PATCH" of the loaded library; valid as long as it is loaded. */
VELOSTRIX_HOST_API const char* VelostrixLibraryVersion(void);

/** VELOSTRIX_OK when the loaded library fits an application built with this version of the headers
 * (VELOSTRIX_VERSION_MAJOR and _MINOR of velostrix/version.h), else VELOSTRIX_FAILED: before 1.0 a
 * minor version may change the interface. */
VELOSTRIX_HOST_API VelostrixStatus VelostrixCheckVersion(int32_t major, int32_t minor,
                                                         VelostrixMessage* message);

/** Sets how many threads the height may use in this process, the caller included: 1 = the caller
 * alone, 0 = one for each core (the default). Negative is refused. This is OpenCV's number of
 * threads (cv::setNumThreads): it holds for the whole process, that is for all reconstructors and
 * for the application's own OpenCV calls. The results are the same bytes for any number. Not to be
 * called during a run. */
VELOSTRIX_HOST_API VelostrixStatus VelostrixSetThreads(int32_t count);

/** The number of threads in force, at least 1. */
VELOSTRIX_HOST_API int32_t VelostrixThreads(void);

/** Compares file names in natural order, in which the images of a folder belong to the lamps:
 * numbers by their value, lamp2 before lamp10. Below 0 when a comes before b, 0 when they are
 * equal, else above 0. */
VELOSTRIX_HOST_API int32_t VelostrixCompareNames(const char* a, const char* b);

/** @} */

/** @defgroup settings Settings
 * @{
 */

/** How surface orientation is recovered; the names are those of recipes and command line. */
enum VelostrixRun {
  VELOSTRIX_RUN_UNCALI = 0,   /**< "uncali": lamps unknown, the whole frame at once */
  VELOSTRIX_RUN_CALI = 1,     /**< "cali": lamps in the fixed ring that follows from their number */
  VELOSTRIX_RUN_PARTROWS = 2, /**< "partrows": lamps unknown, band by band of rows */
  VELOSTRIX_RUN_PARTCOLS = 3  /**< "partcols": lamps unknown, strip by strip of columns */
};

/** How slopes are differentiated in the full-frame runs. */
enum VelostrixDifference {
  VELOSTRIX_DIFFERENCE_CENTRAL = 0, /**< "central": calmer */
  VELOSTRIX_DIFFERENCE_FORWARD = 1  /**< "forward": resolves finer lines */
};

/** How results of runs with unknown lamps are oriented, whose slopes may be mirrored, turned or
 * negated. The calibrated run determines all signs and is left unchanged. */
enum VelostrixOrientation {
  VELOSTRIX_ORIENTATION_AS_IS = 0, /**< "as-is": unchanged */
  /** "upright": measured on every part and corrected by runs on flipped or transposed images.
   * Height, channels and normal are then oriented as the scene, as far as the slopes and the
   * direction of a lamp determine it; the curvature comes from the mirrored slopes where it shows
   * more. Takes one to three more runs, none of which makes the height, and keeps the images.
   * Partial runs and runs with `equalise` are not transposed. */
  VELOSTRIX_ORIENTATION_UPRIGHT = 1
};

/** The bit of an output (VELOSTRIX_OUTPUT_... of velostrix/records.h) in a set of outputs. */
#define VELOSTRIX_OUTPUT_BIT(output) (UINT32_C(1) << (output))

/** The set of all outputs. */
#define VELOSTRIX_ALL_OUTPUTS UINT32_C(0xff)

/** A rectangle in pixels of the images. 16 bytes. */
typedef struct VelostrixRegion {
  int32_t x;      /**< first column */
  int32_t y;      /**< first row */
  int32_t width;  /**< columns */
  int32_t height; /**< rows */
} VelostrixRegion;

/** The number of coefficients of a flat field, see VelostrixFitFlat. */
#define VELOSTRIX_FLAT_TERMS 15

/** What a run does. 1152 bytes. Number and size of the images are not settings: settings fit images
 * of any size that contains their region. */
typedef struct VelostrixSettings {
  uint32_t struct_size; /**< sizeof(VelostrixSettings) */
  int32_t run;          /**< VelostrixRun; default uncali */
  int32_t band;         /**< partrows, partcols: rows or columns of a piece; below 10 counts as 10;
                           default 64 */
  uint32_t outputs;     /**< set of outputs to make; normal also makes the channels; default all */
  int32_t has_region;   /**< 0: the whole image (default), 1: the region */
  VelostrixRegion region; /**< inside the images, at least 3 x 2 pixels */
  int32_t equalise;       /**< 1: even out the column brightness of every image first; default 0 */
  double scale;        /**< above 0, at most 1 (default). Below 0.99 images are scaled by it, unless
                          that would leave 10 pixels or fewer; results have full size */
  int32_t difference;  /**< VelostrixDifference; default central; ignored by the partial runs */
  int32_t blur_radius; /**< pixels, 0 (default) to 32767: smoothing of curvature and magnitude */
  int32_t iteration_cap; /**< of the height; default 50, 0 = flat, negative = until it converges */
  int32_t bits; /**< bits in use of 16-bit samples: 8 to 16; 0 (default): not given, and 16-bit
                   images are refused unless white is given */
  double gain[VELOSTRIX_OUTPUT_COUNT]; /**< grey levels per unit of the map; factor: multiplies the
                                          normalised image; normal, height: not read. Finite */
  int32_t offset[VELOSTRIX_OUTPUT_COUNT]; /**< grey level of value 0; factor, normal, height: not
                                             read */
  uint32_t kept_gains;   /**< set of outputs whose gain and offset ChooseGains leaves alone, as they
                            were given or chosen; default none */
  uint32_t kept_offsets; /**< set of outputs whose offset ChooseGains leaves alone; default none */
  int32_t orientation;   /**< VelostrixOrientation; default as-is */
  int32_t lamp; /**< upright: index of an image whose lamp shines from a known direction, which
                   determines the sign of the height; -1 (default): none */
  double lamp_degrees; /**< where it shines from in the images, roughly: 0 from the right, 90 from
                          above, 180 from the left, 270 from below */
  int32_t white;       /**< the sample of 16-bit images that is white, 1 to 65535: level = sample *
                          255 / white, at most 255; 0 (default): 2^bits - 1, and larger samples
                          are refused */
  int32_t flat_count;  /**< lamps with a flat field: 0 (default), or as many as images */
  double flat[VELOSTRIX_MOST_IMAGES][VELOSTRIX_FLAT_TERMS]; /**< of each lamp, what its images are
                            divided by: coefficients of x^i y^j with i + j <= 4, in the order 1, y,
                            .., y^4, x, x y, .., x^4; x, y: -1 to 1 across the image */
} VelostrixSettings;

/** Writes the defaults; settings->struct_size must be set. */
VELOSTRIX_HOST_API VelostrixStatus VelostrixSettingsDefaults(VelostrixSettings* settings);

/** Refuses what Prepare would refuse for `count` images of width x height pixels. */
VELOSTRIX_HOST_API VelostrixStatus VelostrixSettingsCheck(const VelostrixSettings* settings,
                                                          int32_t count, int32_t width,
                                                          int32_t height,
                                                          VelostrixMessage* message);

/** The working size for images of width x height pixels: the region's, scaled where images are. */
VELOSTRIX_HOST_API VelostrixStatus VelostrixWorkingSize(const VelostrixSettings* settings,
                                                        int32_t width, int32_t height,
                                                        int32_t* working_width,
                                                        int32_t* working_height);

/** @} */
/** @addtogroup settings
 * A recipe is settings as a JSON object in UTF-8; all fields but the first may be missing:
 * @code{.unparsed}
 *   "recipe_version"  1
 *   "run"             "uncali", "cali", "partrows", "partcols"
 *   "band"            integer
 *   "outputs"         array of names: "factor", "curvature", "magnitude", "channel0", "channel1",
 *                     "channel2", "normal", "height"
 *   "region"          {"x", "y", "width", "height"}, or null for the whole image
 *   "scale"           number
 *   "equalise"        true, false
 *   "difference"      "central", "forward"
 *   "blur_radius"     integer
 *   "iteration_cap"   integer
 *   "bits"            integer; 0: not given
 *   "orientation"     "as-is", "upright"
 *   "lamp"            {"image", "degrees"}, the image counted from 0, or null
 *   "white"           integer; 0: 2^bits - 1
 *   "flat"            array of the coefficients of each lamp; empty: no flat fields
 *   "gains"           numbers by name of output (not normal, height)
 *   "offsets"         integers by name of output (not factor, normal, height)
 * @endcode
 * A missing field has its default. Gains and offsets in a recipe are kept: their bits are set in
 * kept_gains and kept_offsets. The run.json that `velostrix reconstruct` writes is read as well:
 * its member "recipe" is the recipe.
 * @{ */

/** Every recipe fits into this number of bytes, including the zero at its end. */
#define VELOSTRIX_LONGEST_RECIPE 16384

/** Writes the settings as a recipe, with a zero at its end, to text, which has room for `capacity`
 * bytes. *length (may be null) is its length without the zero. The recipe has the gains and offsets
 * that are kept or not the default; all of them are kept when it is read. Refused: a capacity that
 * is too small; settings that fit no images. */
VELOSTRIX_HOST_API VelostrixStatus VelostrixSettingsToJson(const VelostrixSettings* settings,
                                                           char* text, int64_t capacity,
                                                           int64_t* length,
                                                           VelostrixMessage* message);

/** Reads a recipe of `length` bytes; settings->struct_size must be set, the rest is overwritten.
 * Refused, with a message that names the field and unchanged settings: text that is not JSON,
 * another recipe_version, unknown or repeated names, values of another type or out of range. */
VELOSTRIX_HOST_API VelostrixStatus VelostrixSettingsFromJson(const char* text, int64_t length,
                                                             VelostrixSettings* settings,
                                                             VelostrixMessage* message);

/** @} */

/** @defgroup reconstructor Reconstructor
 * @{
 */

typedef struct VelostrixReconstructor VelostrixReconstructor; /**< opaque */

/** One single-channel image in the caller's memory. 32 bytes. */
typedef struct VelostrixImage {
  const void* data;     /**< first pixel, aligned to the sample */
  int64_t row_stride;   /**< bytes from one row to the next; 0 = rows without gaps */
  int32_t width;        /**< pixels */
  int32_t height;       /**< pixels */
  int32_t sample_bytes; /**< 1: 8-bit; 2: 16-bit in the machine's byte order, level = sample * 255 /
                           white, rounded, with white = VelostrixSettings::white or 2^bits - 1 */
  int32_t reserved;     /**< 0 */
} VelostrixImage;

/** Fits flat fields and stores them in the settings: every image is then divided by the field of
 * its lamp. This evens out light that falls off across the image, and lamps of different
 * brightness. references: `count` (3 to 8) images of a flat, matt part, one under each lamp, in the
 * order of the images. The fields are smooth: stains and dust on the flat part have no effect. Of
 * the settings only white and bits are used. Refused: references that are saturated or dark. */
VELOSTRIX_HOST_API VelostrixStatus VelostrixFitFlat(const VelostrixImage* references, int32_t count,
                                                    VelostrixSettings* settings,
                                                    VelostrixMessage* message);

/** Makes a reconstructor in *out, which is null after a failure. */
VELOSTRIX_HOST_API VelostrixStatus VelostrixReconstructorCreate(VelostrixReconstructor** out);

/** Frees the reconstructor and its memory; null does nothing. When busy, nothing is freed. */
VELOSTRIX_HOST_API VelostrixStatus
VelostrixReconstructorDestroy(VelostrixReconstructor* reconstructor);

/** Copies the message of the latest call that failed other than by VELOSTRIX_BUSY; empty before the
 * first failure. May be called at any time, from any thread. */
VELOSTRIX_HOST_API VelostrixStatus VelostrixReconstructorMessage(
    const VelostrixReconstructor* reconstructor, VelostrixMessage* message);

/** From now on leaves out the pixels where the mask (8-bit, as large as the images) is 0; null: no
 * pixel is left out. Runs take these pixels as black, so that they do not contribute to the
 * factorisation; they do not count for gains and diagnostics; in the results they are 128, in the
 * height 0. The mask is in force until the next call; Prepare comes next. Refused: a mask that
 * leaves no pixel. A mask of another size than the images is refused together with the images. */
VELOSTRIX_HOST_API VelostrixStatus
VelostrixReconstructorSetMask(VelostrixReconstructor* reconstructor, const VelostrixImage* mask);

/** Leaves out the pixels that no lamp lights, such as a black background: those with at most 6
 * percent of the bright level in every image. Of the settings only white, bits and flat fields are
 * used. *kept (may be null): the share of the pixels (0 to 1) that is not left out. */
VELOSTRIX_HOST_API VelostrixStatus
VelostrixReconstructorMaskUnlit(VelostrixReconstructor* reconstructor, const VelostrixImage* images,
                                int32_t count, const VelostrixSettings* settings, double* kept);

/** Prepares the reconstructor for `count` (3 to 8) images of width x height pixels and for the
 * settings; forgets images and results. */
VELOSTRIX_HOST_API VelostrixStatus
VelostrixReconstructorPrepare(VelostrixReconstructor* reconstructor, int32_t count, int32_t width,
                              int32_t height, const VelostrixSettings* settings);

/** Copies the next image; the images come in the order of the lamps. Refused: an image of another
 * size than prepared, a stride shorter than a row, a sample that needs more than `bits` bits, one
 * image more than prepared. */
VELOSTRIX_HOST_API VelostrixStatus
VelostrixReconstructorSetImage(VelostrixReconstructor* reconstructor, const VelostrixImage* image);

/** Forgets the images set so far, to start the part again. */
VELOSTRIX_HOST_API VelostrixStatus
VelostrixReconstructorClearImages(VelostrixReconstructor* reconstructor);

/** Runs on the images, all of which must be set, and forgets them. New results replace the old. */
VELOSTRIX_HOST_API VelostrixStatus VelostrixReconstructorRun(VelostrixReconstructor* reconstructor);

/** Prepare, SetImage for each of `count` images, and Run. */
VELOSTRIX_HOST_API VelostrixStatus VelostrixReconstructorReconstruct(
    VelostrixReconstructor* reconstructor, const VelostrixImage* images, int32_t count,
    const VelostrixSettings* settings);

/** @} */

/** @defgroup results Results
 * @{
 */

/** A result image, as large as the region or the whole image. 32 bytes. In normal, every pixel has
 * channels 0, 1 and 2; height has samples of 2 bytes; all others are 8-bit with one channel. */
typedef struct VelostrixPlane {
  const void* data; /**< first pixel; owned by the reconstructor, valid until its next Prepare, Run,
                       Reconstruct, ChooseGains or Destroy */
  int64_t row_stride;   /**< bytes from one row to the next */
  int32_t width;        /**< pixels */
  int32_t height;       /**< pixels */
  int32_t channels;     /**< 1 or 3 */
  int32_t sample_bytes; /**< 1 or 2 */
} VelostrixPlane;

/** Where a result is in memory. VELOSTRIX_WRONG_STATE: no run since Prepare.
 * VELOSTRIX_INVALID_ARGUMENT: the run did not make this output. */
VELOSTRIX_HOST_API VelostrixStatus VelostrixReconstructorResult(
    VelostrixReconstructor* reconstructor, int32_t output, VelostrixPlane* plane);

/** Copies a result to the caller's memory of `capacity` bytes, a row every row_stride bytes (0 =
 * without gaps). Bytes between the rows are not written. Refused as by
 * VelostrixReconstructorResult, and when the result does not fit. */
VELOSTRIX_HOST_API VelostrixStatus
VelostrixReconstructorCopyResult(VelostrixReconstructor* reconstructor, int32_t output, void* out,
                                 int64_t row_stride, int64_t capacity);

/** The orientation of the latest part's slopes, and how results were corrected. 56 bytes. */
typedef struct VelostrixOrientationFound {
  uint32_t struct_size; /**< sizeof(VelostrixOrientationFound) */
  int32_t is_clear;     /**< 1: curl_as_is and curl_mirrored differ enough to decide */
  int32_t is_mirrored;  /**< 1: slopes were mirrored; the run was made on flipped images */
  int32_t is_turned;    /**< 1: by about a quarter turn; images were transposed, channels swapped */
  int32_t is_inverted;  /**< 1: slopes had the opposite sign; height and slopes were negated */
  int32_t is_sign_open; /**< 1: no lamp's direction is known: bumps may appear as dents */
  /** 1: curvature comes from mirrored slopes, where it shows more. */
  int32_t has_mirrored_curvature;
  int32_t reserved; /**< 0 */
  /** The share (0 to 1/2) of the slopes' derivatives that fits no surface, whatever the turn: near
   * 0 for the slopes of a surface. For slopes as they were, and mirrored. Negative: not measured,
   * as for as-is and calibrated runs. */
  /** @{ */
  double curl_as_is;
  double curl_mirrored;
  /** @} */
  double turn; /**< degrees, counterclockwise, by which the slopes remain turned */
} VelostrixOrientationFound;

/** Writes *found, whose struct_size must be set. VELOSTRIX_WRONG_STATE: no run since Prepare. */
VELOSTRIX_HOST_API VelostrixStatus VelostrixReconstructorOrientation(
    VelostrixReconstructor* reconstructor, VelostrixOrientationFound* found);

/** @} */
/** @addtogroup results
 * Height. Its levels are relative: 0 is the lowest and 65535 the highest place of this image, its
 * border included; the original range is not kept. Levels of one image can be compared: twice the
 * difference is twice the height. Levels of two images cannot, and they have no unit: a part with
 * half the relief looks the same. To compare parts, use channels and curvature with equal gains.
 * @{ */

/** The surface, fitted by least squares, that a view subtracts. */
enum VelostrixSurface {
  VELOSTRIX_SURFACE_PLANE = 0,    /**< a tilt */
  VELOSTRIX_SURFACE_QUADRATIC = 1 /**< a tilt and a bowl, as lamps near the part cause */
};

/** What the levels of a view mean. Unit of heights: levels of the 16-bit image above the surface.
 */
typedef struct VelostrixHeightView {
  int32_t removed; /**< VelostrixSurface */
  int32_t border;  /**< pixels on each side that surface and range were measured without */
  double black;    /**< the height that level 0 shows */
  double white;    /**< the height that level 255 shows */
} VelostrixHeightView;

/** Makes a view of a height for display: 8 bits, with the surface subtracted; all but the outermost
 * half percent on each side fill the levels. height: the result, or any 16-bit image. border:
 * pixels on each side that surface and range are measured without, at most an eighth of the shorter
 * side is used. iteration_cap / scale is a good number: 50 iterations leave a strip of 40 to 80
 * pixels at the top and the left that takes half the range. mask: 8-bit, as large; pixels where it
 * is 0 are left out of surface and range, and black; null: none. out: `capacity` bytes, a row every
 * row_stride bytes (0 = without gaps). *view may be null. */
VELOSTRIX_HOST_API VelostrixStatus VelostrixViewHeight(const VelostrixImage* height,
                                                       int32_t removed, int32_t border,
                                                       const VelostrixImage* mask, void* out,
                                                       int64_t row_stride, int64_t capacity,
                                                       VelostrixHeightView* view,
                                                       VelostrixMessage* message);

/** How long the calls of the latest part took, in milliseconds. 88 bytes. */
typedef struct VelostrixTimes {
  double parameters;                    /**< parameters and region */
  double buffers;                       /**< allocating the buffers, perhaps for an earlier part */
  double images[VELOSTRIX_MOST_IMAGES]; /**< setting each image; 0 beyond those set */
  double run;                           /**< the run itself */
} VelostrixTimes;

/** Writes *times; zeros before the first part. */
VELOSTRIX_HOST_API VelostrixStatus
VelostrixReconstructorTimes(VelostrixReconstructor* reconstructor, VelostrixTimes* times);

/** @} */

/** @defgroup gains_and_diagnostics Gains and diagnostics
 * @{
 */

/** Chooses gain and offset for these images, for every output that the settings enable and that is
 * not kept; stores them in the settings and marks them as kept. Without the outermost percent on
 * each side, the values fill grey levels 16 to 240 around 128; those of the magnitude fill 0 to
 * 240. So does channel 2 when all its values have one sign (a brightness), by a negative gain if
 * necessary. A flat map gets the gain that suits usual relief.
 *
 * Makes pilot runs without height: 2 or 3 as a rule, 8 at most. Choose once for a kind of part and
 * keep the settings: only results with equal gains can be compared. Prepare comes next. */
VELOSTRIX_HOST_API VelostrixStatus VelostrixReconstructorChooseGains(
    VelostrixReconstructor* reconstructor, const VelostrixImage* images, int32_t count,
    VelostrixSettings* settings);

/** Exposure of one image. 32 bytes. */
typedef struct VelostrixExposure {
  double saturated_share; /**< share of the pixels (0 to 1) at level 255 */
  double black_share;     /**< share of the pixels (0 to 1) at level 0 */
  double mean_level;      /**< mean grey level */
  int32_t is_dead;        /**< 1: dark all over: lamp dead or lens covered */
  int32_t equal_to;       /**< index of the first earlier image with the same pixels; -1: none */
} VelostrixExposure;

/** Whether images are fit for reconstruction. 424 bytes. */
typedef struct VelostrixDiagnostics {
  uint32_t struct_size;                               /**< sizeof(VelostrixDiagnostics) */
  int32_t image_count;                                /**< number of images measured */
  VelostrixExposure exposures[VELOSTRIX_MOST_IMAGES]; /**< of each image */
  /** Singular values of the images x pixels matrix, descending, the first scaled to 1. The second
   * and third say how much the lamps differ in one and in two directions. A third that is not above
   * the fourth is noise, shadows and gloss. */
  double singular_values[VELOSTRIX_MOST_IMAGES];
  /** cali: the share of the images (root mean square, 0 to 1) that cannot be explained: by normals
   * under the lamps of the run's ring, and by normals under lamps anywhere. Over pixels that are
   * neither saturated nor black. Negative: not measured, as for other runs, and for 3 images, which
   * lamps anywhere always explain. */
  /** @{ */
  double unexplained_by_ring;
  double unexplained_by_any;
  /** @} */
  int32_t warning_count; /**< number of warnings, see VelostrixReconstructorWarning */
  int32_t last_piece;    /**< partrows, partcols: rows or columns of the last piece; 0: no pieces */
  /** How many pixels each image is shifted against most of the images: 0 when nothing moved.
   * Negative: not measured, as for images without structure. */
  double shifts[VELOSTRIX_MOST_IMAGES];
  /** The share (0 to 1) of the variance of the curvature image, with its blur, that is noise of the
   * camera. Negative: not measured, as with a scale below 0.99. */
  double noise_share;
} VelostrixDiagnostics;

/** Measures the region of the images. Of the settings only region, run, band, scale, blur, bits,
 * white and flat fields are used. names: what warnings call the images, such as file names; null:
 * "image 1" and so on. Images, results and what was prepared are unchanged. */
VELOSTRIX_HOST_API VelostrixStatus VelostrixReconstructorDiagnose(
    VelostrixReconstructor* reconstructor, const VelostrixImage* images, int32_t count,
    const VelostrixSettings* settings, const char* const* names, VelostrixDiagnostics* diagnostics);

/** Warning `index` (from 0) of the latest Diagnose: what is wrong and what to do. */
VELOSTRIX_HOST_API VelostrixStatus VelostrixReconstructorWarning(
    VelostrixReconstructor* reconstructor, int32_t index, VelostrixMessage* warning);

/** @} */

#ifdef __cplusplus
}
#define VELOSTRIX_PIN(condition) static_assert(condition, "record layout")
#else
#define VELOSTRIX_PIN(condition) _Static_assert(condition, "record layout")
#endif

VELOSTRIX_PIN(sizeof(VelostrixMessage) == 1024);
VELOSTRIX_PIN(sizeof(VelostrixRegion) == 16);
VELOSTRIX_PIN(sizeof(VelostrixSettings) == 1152);
VELOSTRIX_PIN(offsetof(VelostrixSettings, struct_size) == 0);
VELOSTRIX_PIN(offsetof(VelostrixSettings, run) == 4);
VELOSTRIX_PIN(offsetof(VelostrixSettings, band) == 8);
VELOSTRIX_PIN(offsetof(VelostrixSettings, outputs) == 12);
VELOSTRIX_PIN(offsetof(VelostrixSettings, has_region) == 16);
VELOSTRIX_PIN(offsetof(VelostrixSettings, region) == 20);
VELOSTRIX_PIN(offsetof(VelostrixSettings, equalise) == 36);
VELOSTRIX_PIN(offsetof(VelostrixSettings, scale) == 40);
VELOSTRIX_PIN(offsetof(VelostrixSettings, difference) == 48);
VELOSTRIX_PIN(offsetof(VelostrixSettings, blur_radius) == 52);
VELOSTRIX_PIN(offsetof(VelostrixSettings, iteration_cap) == 56);
VELOSTRIX_PIN(offsetof(VelostrixSettings, bits) == 60);
VELOSTRIX_PIN(offsetof(VelostrixSettings, gain) == 64);
VELOSTRIX_PIN(offsetof(VelostrixSettings, offset) == 128);
VELOSTRIX_PIN(offsetof(VelostrixSettings, kept_gains) == 160);
VELOSTRIX_PIN(offsetof(VelostrixSettings, kept_offsets) == 164);
VELOSTRIX_PIN(offsetof(VelostrixSettings, orientation) == 168);
VELOSTRIX_PIN(offsetof(VelostrixSettings, lamp) == 172);
VELOSTRIX_PIN(offsetof(VelostrixSettings, lamp_degrees) == 176);
VELOSTRIX_PIN(offsetof(VelostrixSettings, white) == 184);
VELOSTRIX_PIN(offsetof(VelostrixSettings, flat) == 192);

VELOSTRIX_PIN(sizeof(VelostrixImage) == 32);
VELOSTRIX_PIN(offsetof(VelostrixImage, row_stride) == 8);
VELOSTRIX_PIN(offsetof(VelostrixImage, width) == 16);
VELOSTRIX_PIN(offsetof(VelostrixImage, sample_bytes) == 24);

VELOSTRIX_PIN(sizeof(VelostrixPlane) == 32);
VELOSTRIX_PIN(offsetof(VelostrixPlane, row_stride) == 8);
VELOSTRIX_PIN(offsetof(VelostrixPlane, width) == 16);
VELOSTRIX_PIN(offsetof(VelostrixPlane, channels) == 24);

VELOSTRIX_PIN(sizeof(VelostrixOrientationFound) == 56);
VELOSTRIX_PIN(offsetof(VelostrixOrientationFound, curl_as_is) == 32);
VELOSTRIX_PIN(offsetof(VelostrixOrientationFound, turn) == 48);

VELOSTRIX_PIN(sizeof(VelostrixTimes) == 88);
VELOSTRIX_PIN(offsetof(VelostrixTimes, images) == 16);
VELOSTRIX_PIN(offsetof(VelostrixTimes, run) == 80);

VELOSTRIX_PIN(sizeof(VelostrixExposure) == 32);
VELOSTRIX_PIN(offsetof(VelostrixExposure, is_dead) == 24);
VELOSTRIX_PIN(sizeof(VelostrixDiagnostics) == 424);
VELOSTRIX_PIN(offsetof(VelostrixDiagnostics, exposures) == 8);
VELOSTRIX_PIN(offsetof(VelostrixDiagnostics, singular_values) == 264);
VELOSTRIX_PIN(offsetof(VelostrixDiagnostics, unexplained_by_ring) == 328);
VELOSTRIX_PIN(offsetof(VelostrixDiagnostics, warning_count) == 344);
VELOSTRIX_PIN(offsetof(VelostrixDiagnostics, shifts) == 352);
VELOSTRIX_PIN(offsetof(VelostrixDiagnostics, noise_share) == 416);

#undef VELOSTRIX_PIN

#endif /* VELOSTRIX_HOST_H */
