/** @file
 * Velostrix for hosts in any language: one object, the reconstructor, behind plain C functions on
 * plain memory. C11 and C++17; a host needs neither OpenCV nor its headers.
 *
 * Calling order
 *   1. VelostrixReconstructorCreate
 *   2. VelostrixSettingsDefaults, then change what should differ; or VelostrixSettingsFromJson
 *   3. perhaps VelostrixFitFlat and VelostrixReconstructorDiagnose, when a station is set up, and
 *      VelostrixReconstructorChooseGains, once for a kind of part
 *   4. VelostrixReconstructorPrepare
 *   5. for each image, as its lamp fires, VelostrixReconstructorSetImage; then
 *      VelostrixReconstructorRun; read the results; repeat for the next part
 *      (or VelostrixReconstructorReconstruct in place of 4 and 5, with all images at once)
 *   6. VelostrixReconstructorDestroy
 *
 * Status. Every function that can fail returns a VelostrixStatus, and no exception leaves it. What
 * was refused and what is expected is a text, the same in every language:
 * VelostrixReconstructorMessage, or the `message` of functions without a reconstructor (which may
 * be null, and is left alone when nothing was refused). A refusal (VELOSTRIX_INVALID_ARGUMENT,
 * VELOSTRIX_WRONG_STATE, VELOSTRIX_BUSY) leaves the reconstructor, its images and its results as
 * they were. After VELOSTRIX_OUT_OF_MEMORY and VELOSTRIX_FAILED it is as after Create: prepare it
 * again. A null pointer, where none is allowed, is VELOSTRIX_INVALID_ARGUMENT.
 *
 * Ownership. A reconstructor owns its working buffers (about 52 + 5 N bytes a pixel), kept from
 * part to part and allocated anew only when number or size of the images, region or scale change.
 * Memory of the host is read or written during the call only.
 *
 * Threads. One reconstructor is used by one thread at a time: a call that meets another one at work
 * returns VELOSTRIX_BUSY at once and does nothing. Separate reconstructors are independent. The
 * height is shared with threads that end before the call does; VelostrixSetThreads sets how many.
 *
 * Records. Layouts are pinned below. Those that may grow begin with struct_size, which the host
 * sets to their sizeof before every call; another size is refused.
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
  VELOSTRIX_WRONG_STATE = 3, /**< not prepared, images are missing, no results yet, ... */
  VELOSTRIX_BUSY = 4,        /**< another thread is using this reconstructor */
  VELOSTRIX_FAILED = 5       /**< none of these; the message has what was reported */
};

/** A text in UTF-8 (file names and other text from the host as given), ends with a zero; one that
 * is longer is cut. */
typedef struct VelostrixMessage {
  char text[1024]; /**< with its zero */
} VelostrixMessage;

/** What a status means in general, such as "out of memory"; for those that come without a message:
 * a failed Create, VELOSTRIX_BUSY. Never null; lives as long as the library. */
VELOSTRIX_HOST_API const char* VelostrixStatusText(VelostrixStatus status);

/** "MAJOR.MINOR.PATCH" of the library that is loaded; lives as long as it. */
VELOSTRIX_HOST_API const char* VelostrixLibraryVersion(void);

/** Whether the library that is loaded fits a host that was made with this version of the headers
 * (VELOSTRIX_VERSION_MAJOR and _MINOR of velostrix/version.h): before 1.0 a minor version may
 * change what hosts see. Else VELOSTRIX_FAILED. */
VELOSTRIX_HOST_API VelostrixStatus VelostrixCheckVersion(int32_t major, int32_t minor,
                                                         VelostrixMessage* message);

/** How many threads the height may use in this process, the caller of a run included: 1 = the
 * caller alone, 0 = one for each core (the default). Negative is refused. This is OpenCV's number
 * of threads (cv::setNumThreads), process-wide, so it holds for all reconstructors and for a host's
 * own OpenCV calls. The bytes of the results do not depend on it. Not while a run is under way. */
VELOSTRIX_HOST_API VelostrixStatus VelostrixSetThreads(int32_t count);

/** The number in force, at least 1. */
VELOSTRIX_HOST_API int32_t VelostrixThreads(void);

/** The order of file names in which lamps are taken from a folder, numbers by their value (lamp2
 * before lamp10): below 0 when a comes before b, 0 when they are the same, else above 0. */
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

/** What is done about slopes that the runs with unknown lamps find mirrored, turned or with the
 * other sign. The calibrated run, whose signs are known, is left as it is. */
enum VelostrixOrientation {
  VELOSTRIX_ORIENTATION_AS_IS = 0, /**< "as-is": results as they come */
  /** "upright": measured on every part and put right by runs on flipped or transposed images;
   * height, channels and normal are then those of the scene as seen, as far as the slopes and the
   * direction of a lamp tell; the curvature is that of the mirrored slopes where it shows more.
   * Takes the time of one to three runs more, of which none makes the height, and keeps the images.
   * The partial runs and those with `equalise` are not transposed. */
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

/** Coefficients of a flat field, see VelostrixFitFlat. */
#define VELOSTRIX_FLAT_TERMS 15

/** What a run does. 1152 bytes. Number and size of the images are not settings: recipes fit images
 * of any size that contains their region. */
typedef struct VelostrixSettings {
  uint32_t struct_size; /**< sizeof(VelostrixSettings) */
  int32_t run;          /**< VelostrixRun; default uncali */
  int32_t band;         /**< partrows, partcols: rows or columns of a piece; below 10 counts as 10;
                           default 64 */
  uint32_t outputs;   /**< set of outputs to make; normal brings the three channels; default all */
  int32_t has_region; /**< 0: the whole image (default), 1: the region */
  VelostrixRegion region; /**< inside the images, at least 3 x 2 pixels */
  int32_t equalise;       /**< 1: even out the column brightness of every image first; default 0 */
  double scale;        /**< above 0, at most 1 (default). Below 0.99 images are scaled by it, unless
                          that would leave 10 pixels or fewer; results come in full size */
  int32_t difference;  /**< VelostrixDifference; default central; ignored by the partial runs */
  int32_t blur_radius; /**< pixels, 0 (default) to 32767: smoothing of curvature and magnitude */
  int32_t iteration_cap; /**< of the height; default 50, 0 = flat, negative = as many as it takes */
  int32_t bits; /**< in use of 16-bit samples: 8 to 16; 0 (default): not said, and images of
                   16-bit samples are refused */
  double gain[VELOSTRIX_OUTPUT_COUNT]; /**< grey levels per unit of the map; factor: multiplies the
                                          normalised image; normal, height: not read. Finite */
  int32_t offset[VELOSTRIX_OUTPUT_COUNT]; /**< grey level of value 0; factor, normal, height: not
                                             read */
  uint32_t kept_gains;   /**< set of outputs whose gain is given or chosen: ChooseGains leaves gain
                            and offset alone; default none */
  uint32_t kept_offsets; /**< set of outputs whose offset is: it leaves the offset alone */
  int32_t orientation;   /**< VelostrixOrientation; default as-is */
  int32_t lamp; /**< upright: index of an image whose lamp shines from a known direction, which
                   tells bumps from dents; -1 (default): none */
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

/** Fills in the defaults; settings->struct_size must be set. */
VELOSTRIX_HOST_API VelostrixStatus VelostrixSettingsDefaults(VelostrixSettings* settings);

/** Refuses what Prepare would refuse for `count` images of width x height pixels. */
VELOSTRIX_HOST_API VelostrixStatus VelostrixSettingsCheck(const VelostrixSettings* settings,
                                                          int32_t count, int32_t width,
                                                          int32_t height,
                                                          VelostrixMessage* message);

/** The size that is worked on for images of width x height pixels: that of the region, scaled if it
 * is to be. */
VELOSTRIX_HOST_API VelostrixStatus VelostrixWorkingSize(const VelostrixSettings* settings,
                                                        int32_t width, int32_t height,
                                                        int32_t* working_width,
                                                        int32_t* working_height);

/** @} */
/** @addtogroup settings
 * A recipe is settings as a JSON object in UTF-8; all fields but the first may be missing:
 * @verbatim
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
 *   "bits"            integer; 0: not said
 *   "orientation"     "as-is", "upright"
 *   "lamp"            {"image", "degrees"}, the image counted from 0, or null
 *   "white"           integer; 0: as bits say
 *   "flat"            array of the coefficients of each lamp; empty: no flat fields
 *   "gains"           numbers by name of output (not normal, height)
 *   "offsets"         integers by name of output (not factor, normal, height)
 * @endverbatim
 * What is missing has its default. Gains and offsets that are there are kept: their bits are set in
 * kept_gains and kept_offsets. A record that `velostrix reconstruct` wrote, run.json, is read as
 * well: its member "recipe" counts.
 * @{ */

/** Bytes that every recipe fits into, the zero at its end included. */
#define VELOSTRIX_LONGEST_RECIPE 16384

/** Writes the settings as a recipe with a zero at its end to text, which holds `capacity` bytes.
 * *length (may be null) is its length without the zero. Of gains and offsets it has those that are
 * kept, so that a recipe fixes none that nobody gave or chose, and those that are not the default,
 * so that none is lost: these are kept when it is read. Refused: a capacity that is too small;
 * settings that no image would fit. */
VELOSTRIX_HOST_API VelostrixStatus VelostrixSettingsToJson(const VelostrixSettings* settings,
                                                           char* text, int64_t capacity,
                                                           int64_t* length,
                                                           VelostrixMessage* message);

/** Reads a recipe of `length` bytes; settings->struct_size must be set, the rest is overwritten,
 * unless it is refused: what is no JSON, another recipe_version, fields and names that are unknown
 * or stand there twice, values of another type or out of their range. The message names the field.
 */
VELOSTRIX_HOST_API VelostrixStatus VelostrixSettingsFromJson(const char* text, int64_t length,
                                                             VelostrixSettings* settings,
                                                             VelostrixMessage* message);

/** @} */

/** @defgroup reconstructor Reconstructor
 * @{
 */

typedef struct VelostrixReconstructor VelostrixReconstructor; /**< opaque */

/** One image in the host's memory: one channel. 32 bytes. */
typedef struct VelostrixImage {
  const void* data;     /**< first pixel, aligned to the sample */
  int64_t row_stride;   /**< bytes from one row to the next; 0 = rows without gaps */
  int32_t width;        /**< pixels */
  int32_t height;       /**< pixels */
  int32_t sample_bytes; /**< 1: 8-bit; 2: 16-bit in the machine's byte order, with the white level
                           VelostrixSettings::white or 2^bits - 1: level = sample * 255 / white,
                           rounded */
  int32_t reserved;     /**< 0 */
} VelostrixImage;

/** Fits the flat fields of one image of a flat, matt part under each of `count` (3 to 8) lamps, in
 * the order of the images, and stores them in the settings; from then on every image is divided by
 * its lamp's. Evens out light that falls off over the image, and lamps of different brightness. The
 * fields are smooth: stains and dust on the flat part do not come in. Settings: white and bits
 * matter. Refused: references that are saturated or dark. */
VELOSTRIX_HOST_API VelostrixStatus VelostrixFitFlat(const VelostrixImage* references, int32_t count,
                                                    VelostrixSettings* settings,
                                                    VelostrixMessage* message);

/** Makes a reconstructor in *out, which is null after a failure. */
VELOSTRIX_HOST_API VelostrixStatus VelostrixReconstructorCreate(VelostrixReconstructor** out);

/** Gives everything back; null does nothing. Busy: nothing is destroyed. */
VELOSTRIX_HOST_API VelostrixStatus
VelostrixReconstructorDestroy(VelostrixReconstructor* reconstructor);

/** Copies what the latest call that failed, but for VELOSTRIX_BUSY, had to say; empty before the
 * first. May be called at any time, by any thread. */
VELOSTRIX_HOST_API VelostrixStatus VelostrixReconstructorMessage(
    const VelostrixReconstructor* reconstructor, VelostrixMessage* message);

/** Leaves pixels out from here on, those where the mask (8-bit, as large as the images) is 0; null:
 * none. They are black to the runs, so that no lamp's factor has part in them, count for no gain
 * and no diagnosis, and are neutral in the results: 128, in the height 0. Kept until the next call;
 * Prepare comes next. Refused: a mask that leaves no pixel. One of another size than the images is
 * refused with them. */
VELOSTRIX_HOST_API VelostrixStatus
VelostrixReconstructorSetMask(VelostrixReconstructor* reconstructor, const VelostrixImage* mask);

/** The same with the mask of the pixels that no lamp lights, such as a background before black:
 * that have at most 6 percent of the bright levels in all of the images. Of the settings bits
 * matter. *kept (may be null): the share of the pixels (0 to 1) that is not left out. */
VELOSTRIX_HOST_API VelostrixStatus
VelostrixReconstructorMaskUnlit(VelostrixReconstructor* reconstructor, const VelostrixImage* images,
                                int32_t count, const VelostrixSettings* settings, double* kept);

/** Brings the reconstructor to `count` (3 to 8) images of width x height pixels and to the
 * settings, and forgets images and results. */
VELOSTRIX_HOST_API VelostrixStatus
VelostrixReconstructorPrepare(VelostrixReconstructor* reconstructor, int32_t count, int32_t width,
                              int32_t height, const VelostrixSettings* settings);

/** Copies the next image in; the order of the images is that of the lamps. Refused: an image of
 * another size than prepared, a stride below a row, a sample that the bits in use cannot hold, one
 * image more than prepared. */
VELOSTRIX_HOST_API VelostrixStatus
VelostrixReconstructorSetImage(VelostrixReconstructor* reconstructor, const VelostrixImage* image);

/** Forgets the images set so far, to start the part again. */
VELOSTRIX_HOST_API VelostrixStatus
VelostrixReconstructorClearImages(VelostrixReconstructor* reconstructor);

/** Runs on the images, all of which must be set, and forgets them; the results replace those of the
 * run before. */
VELOSTRIX_HOST_API VelostrixStatus VelostrixReconstructorRun(VelostrixReconstructor* reconstructor);

/** Prepare, SetImage for each of `count` images, and Run. */
VELOSTRIX_HOST_API VelostrixStatus VelostrixReconstructorReconstruct(
    VelostrixReconstructor* reconstructor, const VelostrixImage* images, int32_t count,
    const VelostrixSettings* settings);

/** @} */

/** @defgroup results Results
 * @{
 */

/** A result image: that of the region, or of the whole image. 32 bytes. Normal has three channels,
 * 0, 1 and 2, side by side in a pixel; height has samples of 2 bytes; all others are 8-bit. */
typedef struct VelostrixPlane {
  const void* data; /**< first pixel; owned by the reconstructor, valid until its next Prepare, Run,
                       Reconstruct, ChooseGains or Destroy */
  int64_t row_stride;   /**< bytes from one row to the next */
  int32_t width;        /**< pixels */
  int32_t height;       /**< pixels */
  int32_t channels;     /**< 1 or 3 */
  int32_t sample_bytes; /**< 1 or 2 */
} VelostrixPlane;

/** Where the result of an output is. Wrong state: no run since Prepare. Invalid: the run did not
 * make it. */
VELOSTRIX_HOST_API VelostrixStatus VelostrixReconstructorResult(
    VelostrixReconstructor* reconstructor, int32_t output, VelostrixPlane* plane);

/** Copies a result to the host's memory of `capacity` bytes, a row every row_stride bytes (0 =
 * without gaps); bytes between the rows are left alone. Refused as above, and when it does not fit.
 */
VELOSTRIX_HOST_API VelostrixStatus
VelostrixReconstructorCopyResult(VelostrixReconstructor* reconstructor, int32_t output, void* out,
                                 int64_t row_stride, int64_t capacity);

/** How the slopes of the latest part lay on the scene, and what was done. 56 bytes. */
typedef struct VelostrixOrientationFound {
  uint32_t struct_size; /**< sizeof(VelostrixOrientationFound) */
  int32_t is_clear;     /**< 1: the two shares below differ enough to tell */
  int32_t is_mirrored;  /**< 1: slopes were mirrored; the run was made on flipped images */
  int32_t is_turned; /**< 1: by about a quarter; channels changed places, images were transposed */
  int32_t is_inverted; /**< 1: slopes had the opposite sign; height and slopes were negated */
  int32_t
      is_sign_open; /**< 1: no lamp's direction is known: bumps and dents may have changed places */
  int32_t
      has_mirrored_curvature; /**< 1: curvature is that of mirrored slopes, where it shows more */
  int32_t reserved;           /**< 0 */
  /** Of the derivatives of the slopes, as they came and mirrored, the share (0 to 1/2) that is no
   * surface's, however turned: near 0 for slopes of a surface. Negative: not measured, as for runs
   * as-is and calibrated ones. */
  /** @{ */
  double curl_as_is;
  double curl_mirrored;
  double turn; /**< degrees, counterclockwise, that the slopes stay turned by */
  /** @} */
} VelostrixOrientationFound;

/** Fills in *found, whose struct_size must be set. Wrong state: no run since Prepare. */
VELOSTRIX_HOST_API VelostrixStatus VelostrixReconstructorOrientation(
    VelostrixReconstructor* reconstructor, VelostrixOrientationFound* found);

/** @} */
/** @addtogroup results
 * Height. Its levels are relative: 0 is the lowest and 65535 the highest place of this image, its
 * border included, and the range before was not kept. Within an image levels compare: twice the
 * difference is twice the height. Between images they do not, nor have they a unit: a part with
 * half the relief, or a border twice as high, looks the same. To compare parts, take channels and
 * curvature of equal gains.
 * @{ */

/** The smooth surface, fitted by least squares, that a view leaves out. */
enum VelostrixSurface {
  VELOSTRIX_SURFACE_PLANE = 0,    /**< a tilt */
  VELOSTRIX_SURFACE_QUADRATIC = 1 /**< a tilt and a bowl, as lamps near the part leave */
};

/** What the levels of a view mean: heights are levels of the 16-bit image above the surface. */
typedef struct VelostrixHeightView {
  int32_t removed; /**< VelostrixSurface */
  int32_t border;  /**< pixels on each side that neither surface nor range are taken from */
  double black;    /**< the height that level 0 shows */
  double white;    /**< that of level 255 */
} VelostrixHeightView;

/** A height as a picture for eyes: 8 bits, without the surface, so that all but the outermost half
 * percent on each side fill the levels. height: the result, or any 16-bit image. border: pixels at
 * the sides that count for nothing, as 50 iterations leave a strip of 40 to 80 pixels at the top
 * and the left that takes half the range; iteration_cap / scale is a good number, and an eighth of
 * the shorter side is used at most. out: `capacity` bytes, a row every row_stride bytes (0 =
 * without gaps). *view may be null. */
VELOSTRIX_HOST_API VelostrixStatus VelostrixViewHeight(const VelostrixImage* height,
                                                       int32_t removed, int32_t border, void* out,
                                                       int64_t row_stride, int64_t capacity,
                                                       VelostrixHeightView* view,
                                                       VelostrixMessage* message);

/** How long the calls of the latest part took, in milliseconds. 88 bytes. */
typedef struct VelostrixTimes {
  double parameters;                    /**< parameters and region */
  double buffers;                       /**< allocating those in use, perhaps for an earlier part */
  double images[VELOSTRIX_MOST_IMAGES]; /**< setting each image; 0 beyond those set */
  double run;                           /**< the run itself */
} VelostrixTimes;

/** Fills in *times; zeros before the first part. */
VELOSTRIX_HOST_API VelostrixStatus
VelostrixReconstructorTimes(VelostrixReconstructor* reconstructor, VelostrixTimes* times);

/** @} */

/** @defgroup gains_and_diagnostics Gains and diagnostics
 * @{
 */

/** Chooses gain and offset of every output that the settings ask for, but for those kept, for these
 * images, stores them in the settings and marks them there as kept. Without the outermost percent
 * on each side, values fill grey levels 16 to 240 around 128, those of the magnitude 0 to 240;
 * channel 2, when all its values have one sign, fills 0 to 240 too, by a negative gain if need be.
 * A flat map keeps the gain that suits usual relief.
 *
 * Does this by pilot runs without height, 2 or 3 as a rule and 8 at most. Choose once for a kind of
 * part and keep the settings: only under equal gains can parts be compared. Afterwards Prepare
 * comes next. */
VELOSTRIX_HOST_API VelostrixStatus VelostrixReconstructorChooseGains(
    VelostrixReconstructor* reconstructor, const VelostrixImage* images, int32_t count,
    VelostrixSettings* settings);

/** Exposure of one image. 32 bytes. */
typedef struct VelostrixExposure {
  double saturated_share; /**< 0 to 1, of the pixels, at 255 */
  double black_share;     /**< 0 to 1, of the pixels, at 0 */
  double mean_level;      /**< grey levels */
  int32_t is_dead;        /**< 1: dark all over: lamp dead or lens covered */
  int32_t equal_to;       /**< index of the first earlier image with the same pixels; -1: none */
} VelostrixExposure;

/** Whether images are fit for reconstruction. 424 bytes. */
typedef struct VelostrixDiagnostics {
  uint32_t struct_size;                               /**< sizeof(VelostrixDiagnostics) */
  int32_t image_count;                                /**< of the images that were measured */
  VelostrixExposure exposures[VELOSTRIX_MOST_IMAGES]; /**< of each image */
  /** Of the images x pixels matrix, descending, the first scaled to 1. The second and third say how
   * much the lamps differ in one and in two directions; where the third is not above the fourth,
   * it is noise, shadows and gloss. */
  /** @{ */
  double singular_values[VELOSTRIX_MOST_IMAGES];
  /** cali: how much of the images (root mean square share, 0 to 1) no normals under the lamps of
   * the run's ring explain, and how much none under any lamps do, over pixels that are neither
   * saturated nor black. Negative: not told, as for other runs and for 3 images, which lamps
   * anywhere explain.
   */
  /** @{ */
  double unexplained_by_ring;
  double unexplained_by_any;
  int32_t warning_count; /**< of VelostrixReconstructorWarning */
  int32_t last_piece;    /**< partrows, partcols: rows or columns of the last piece; 0: no pieces */
  /** How many pixels each image lies from the place of most: 0 when nothing moved. Negative: not
   * told, as for images without structure. */
  /** @{ */
  double shifts[VELOSTRIX_MOST_IMAGES];
  /** Of the variance of the curvature image, with its blur, the share (0 to 1) that is noise of the
   * camera. Negative: not told, as with a scale below 0.99. */
  double noise_share;
  /** @} */
  /** @} */
  /** @} */
} VelostrixDiagnostics;

/** Measures the region of the images. Settings: region, run, band, scale, blur and bits matter.
 * names: of the images in warnings, such as their files; null: "image 1" and so on. Leaves what is
 * prepared, set and made alone. */
VELOSTRIX_HOST_API VelostrixStatus VelostrixReconstructorDiagnose(
    VelostrixReconstructor* reconstructor, const VelostrixImage* images, int32_t count,
    const VelostrixSettings* settings, const char* const* names, VelostrixDiagnostics* diagnostics);

/** Warning `index` (from 0) of the latest Diagnose: what is wrong and what to do, in plain words.
 */
VELOSTRIX_HOST_API VelostrixStatus VelostrixReconstructorWarning(
    VelostrixReconstructor* reconstructor, int32_t index, VelostrixMessage* warning);

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
/** @} */
