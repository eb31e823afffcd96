/** @file
 * The exported functions of the module VelostrixUncalibration. C11 and C++17.
 *
 * Photometric stereo: 3 to 8 images of one part, taken by one camera under different lamps, become
 * images of its relief. Print and stains fade; dents, scratches and embossing stand out.
 *
 * Calling order
 *   1. CreateVelostrixUnCalibrationToolPtr_CPU
 *   2. SetVelostrixUnCalibrationToolParam_CPU
 *   3. SetVelostrixUnCalibrationToolROI_CPU, or ClearVelostrixUnCalibrationToolROI_CPU, or neither
 *   4. InitialVelostrixUnCalibrationToolImage_CPU
 *   5. N times SetVelostrixUnCalibrationToolImage_CPU, then one RunVelostrixUnCalibration_CPU_...;
 *      read the results; repeat for the next part
 *   6. ReleaseVelostrixUnCalibrationToolImage_CPU (and back to 2 for another geometry)
 *   7. DestroyVelostrixUnCalibrationToolPtr_CPU
 *
 * Ownership. The application owns the tool from Create to Destroy. The tool owns its working
 * buffers from Initial to Release. Results that are not resized are headers over the tool's planes:
 * they are valid until the next run or Release, whichever comes first; clone what must live longer.
 *
 * Threads. Use a tool from one thread at a time; separate tools are independent. Everything runs on
 * the caller's thread, except the height of larger frames: it is computed by cv::getNumThreads()
 * threads, the caller included, and the others end before the call does. Set their number by
 * cv::setNumThreads(n); 1 means the caller alone. The results are the same bytes for any number. In
 * a process that cannot start threads, or was forked between two calls, the caller works alone.
 *
 * Floating point. Every call computes in the default state and restores the caller's.
 *
 * OpenCV. Images are cv::Mat objects: the application must use the same OpenCV as the module.
 *
 * Pixels and axes. Images are 8-bit single-channel. x runs along a row (columns), y down the rows.
 * Slope P is the change of height from one column to the next, slope Q the change from one row to
 * the next with the opposite sign; height is relative, in units of slope times pixels.
 *
 * Return values. bool is one byte. 1/true: done. 0/false: refused; unless stated otherwise, the
 * tool and the results are unchanged. There are no error codes. Exceptions of OpenCV and of the
 * allocator (cv::Exception, std::bad_alloc) reach the application; a run or setter that ended so
 * may be repeated.
 *
 * Every call refuses a null tool (calls without a return value do nothing). Each function lists
 * what else it refuses.
 *
 * Every function has a second name with _csharp, for managed code: the same function, except that
 * the image setter takes an ImageRecord.
 */
#ifndef VELOSTRIX_UNCALIBRATION_H
#define VELOSTRIX_UNCALIBRATION_H

#include <stdbool.h>
#include <stdint.h>

#include "velostrix/records.h"

#if defined(_WIN32)
#if defined(VELOSTRIX_BUILDS_MODULE)
#define VELOSTRIX_API __declspec(dllexport)
#else
#define VELOSTRIX_API __declspec(dllimport)
#endif
#else
#define VELOSTRIX_API __attribute__((visibility("default")))
#endif

/** The tool; opaque. */
typedef struct UnCalibrationTool UnCalibrationTool;

/** An image: OpenCV's cv::Mat; opaque to C. */
#ifdef __cplusplus
namespace cv {
class Mat;
}
typedef cv::Mat VelostrixMat;
extern "C" {
#else
typedef struct VelostrixMat VelostrixMat;
#endif

/** @defgroup create Create
 * @{
 */

/** Makes a tool with no geometry, no buffers, every output off, scale 1 and iteration cap 50.
 * Stores it in *out (when out is not null) and returns it. Refuses nothing. Out of memory:
 * std::bad_alloc.
 */
VELOSTRIX_API UnCalibrationTool* CreateVelostrixUnCalibrationToolPtr_CPU(UnCalibrationTool** out);
/** @copydoc CreateVelostrixUnCalibrationToolPtr_CPU */
VELOSTRIX_API UnCalibrationTool* CreateVelostrixUnCalibrationToolPtr_CPU_csharp(
    UnCalibrationTool** out);

/** @} */

/** @defgroup parameters_and_region Parameters and region
 * @{
 */

/** Copies the record into the tool. Refused: a null record. Sets image count, geometry (working and
 * result size: width x height, row stride row_step), switches, gains and offsets. Leaves the
 * region, the buffers and the count of set images unchanged: after a change of geometry or image
 * count, call Release and Initial. A scale below 0.99 switches scaling on. A later scale of 0.99 or
 * more does not switch it off; only SetROI does, when the scaled region would be too small. NaN
 * counts as not below 0.99. */
VELOSTRIX_API bool SetVelostrixUnCalibrationToolParam_CPU(UnCalibrationTool* tool,
                                                          const UnCalibrationParam* param);
/** @copydoc SetVelostrixUnCalibrationToolParam_CPU */
VELOSTRIX_API bool SetVelostrixUnCalibrationToolParam_CPU_csharp(UnCalibrationTool* tool,
                                                                 const UnCalibrationParam* param);

/** Restricts the tool to the rectangle with the inclusive corners (x1, y1) and (x2, y2), in pixels
 * of the input images, clamped to the current working size. A second region is therefore clamped
 * by the first; set the parameters again before it. With scaling on and more than 10 scaled pixels
 * in both directions, the working size becomes region x scale, truncated; otherwise scaling is
 * switched off and the working size is the region's. False leaves the geometry unchanged. Refused:
 * - a rectangle that is empty after clamping; no region is in force then
 * - with scaling on, a region that scales to a size that no image can have */
VELOSTRIX_API bool SetVelostrixUnCalibrationToolROI_CPU(UnCalibrationTool* tool, int32_t x1,
                                                        int32_t y1, int32_t x2, int32_t y2);
/** @copydoc SetVelostrixUnCalibrationToolROI_CPU */
VELOSTRIX_API bool SetVelostrixUnCalibrationToolROI_CPU_csharp(UnCalibrationTool* tool, int32_t x1,
                                                               int32_t y1, int32_t x2, int32_t y2);

/** Removes the region and sets the working size: rows x cols with row_step elements from row to row
 * (note the order). Returns rows x row_step; 0 for a null tool. With scaling on, Initial computes
 * the working size again from the result size. */
VELOSTRIX_API int64_t ClearVelostrixUnCalibrationToolROI_CPU(UnCalibrationTool* tool, int32_t rows,
                                                             int32_t cols, int32_t row_step);
/** @copydoc ClearVelostrixUnCalibrationToolROI_CPU */
VELOSTRIX_API int64_t ClearVelostrixUnCalibrationToolROI_CPU_csharp(UnCalibrationTool* tool,
                                                                    int32_t rows, int32_t cols,
                                                                    int32_t row_step);

/** @} */

/** @defgroup buffers_and_images Buffers and images
 * @{
 */

/** Allocates the working buffers for the current geometry and image count (about 52 + 5 N bytes a
 * pixel, zero-filled). When memory runs out, images and runs are refused until Release and Initial.
 * Does not free the buffers of an earlier call: Release first. Allocates nothing for
 * - an image count outside 3 to 8
 * - a frame without pixels, or a row_step below its width
 * - with scaling on and no region, a scaled size that no image can have */
VELOSTRIX_API void InitialVelostrixUnCalibrationToolImage_CPU(UnCalibrationTool* tool);
/** @copydoc InitialVelostrixUnCalibrationToolImage_CPU */
VELOSTRIX_API void InitialVelostrixUnCalibrationToolImage_CPU_csharp(UnCalibrationTool* tool);

/** Copies the next image into the tool: cut to the region if one is set, resized to the working
 * size when scaling is on, equalised when the parameters ask for it. The image must be 8-bit
 * single-channel and, without scaling, of the region's or working size. True: stored, the count of
 * set images has grown by one. Refused:
 * - a null or empty image, or one of more than two dimensions
 * - one image more than the image count
 * - no buffers, or buffers too small for the geometry or for one more image
 * - with a region: an image that, cut and resized, does not have the working size with rows of
 *   row_step bytes (after new parameters, set the region again)
 * - without a region: an image with fewer bytes than the working size
 * - with equalisation: an image of more than one channel
 *
 * cv::Exception: the image does not contain the region; scaling or equalisation of a pixel type
 * that OpenCV cannot resize or average. */
VELOSTRIX_API bool SetVelostrixUnCalibrationToolImage_CPU(UnCalibrationTool* tool,
                                                          const VelostrixMat* image);

/** The same for an image in plain memory. Also refused:
 * - a null record, a type code outside 1 to 12, no data, a width or height below 1
 * - a row stride, other than 0, shorter than a row or not a multiple of the sample's size */
VELOSTRIX_API bool SetVelostrixUnCalibrationToolImage_CPU_csharp(UnCalibrationTool* tool,
                                                                 const ImageRecord* image);

/** Forgets the images set so far; frees nothing. */
VELOSTRIX_API void ClearVelostrixUnCalibrationToolImage_CPU(UnCalibrationTool* tool);
/** @copydoc ClearVelostrixUnCalibrationToolImage_CPU */
VELOSTRIX_API void ClearVelostrixUnCalibrationToolImage_CPU_csharp(UnCalibrationTool* tool);

/** @} */

/** @defgroup runs Runs
 *
 * Each run turns the N stored images into the result images that output_enable selects. A result
 * whose switch is off is not touched and may be null; normal switches channels 0, 1 and 2 on. All
 * results are 8-bit single-channel, except normal (three 8-bit channels: channels 0, 1, 2; owns its
 * memory) and height (16-bit single-channel). They have the working size. With scaling on they have
 * the region's size: they are resized and own their memory, unless both sizes are equal. The run
 * does not check that all N images were set.
 *
 * Returns 1: done; the count of set images is 0 again. After an exception some results may have
 * been replaced. Returns 0: refused; results and the count of set images are unchanged, so call
 * ClearImage before setting images again. Refused:
 * - an image count outside 3 to 8
 * - no buffers, or a geometry or an image count that they do not hold
 * - an enabled result that is null; normal enables channels 0, 1 and 2
 * - curvature or magnitude with a blur radius above 32767
 * - any result with scaling on and a result size without pixels
 * - uncalibrated runs: a frame or a piece of fewer than three pixels
 * - part columns: fewer than two rows
 *
 * @code{.unparsed}
 *   result     content                                                  uncalibrated    calibrated
 *   factor     factor map, normalised to 0..255, times factor_gain      brightness      albedo
 *   curvature  dP/dx + dQ/dy, curvature gain and offset
 *   magnitude  full frame: 2 |dQ/dy|, partial: |dP/dx + dQ/dy|, magnitude gain and offset
 *   channel0   slope map P, channel[0] gain and offset                  slope P         normal x
 *   channel1   slope map Q, channel[1] gain and offset                  slope Q         normal y
 *   channel2   gated factor map, channel[2] gain and offset             brightness      normal z
 *   normal     channels 0, 1, 2 merged
 *   height     integrated slopes, 0..65535 over the range; a flat map gives 0
 * @endcode
 * @{ */

/** Unknown lamps, whole frame at once. */
VELOSTRIX_API int32_t RunVelostrixUnCalibration_CPU_uncali(
    UnCalibrationTool* tool, VelostrixMat* factor, VelostrixMat* curvature, VelostrixMat* magnitude,
    VelostrixMat* channel0, VelostrixMat* channel1, VelostrixMat* channel2, VelostrixMat* normal,
    VelostrixMat* height);
/** @copydoc RunVelostrixUnCalibration_CPU_uncali */
VELOSTRIX_API int32_t RunVelostrixUnCalibration_CPU_csharp_uncali(
    UnCalibrationTool* tool, VelostrixMat* factor, VelostrixMat* curvature, VelostrixMat* magnitude,
    VelostrixMat* channel0, VelostrixMat* channel1, VelostrixMat* channel2, VelostrixMat* normal,
    VelostrixMat* height);

/** Lamps in the fixed ring that follows from the image count. */
VELOSTRIX_API int32_t RunVelostrixUnCalibration_CPU_cali(
    UnCalibrationTool* tool, VelostrixMat* factor, VelostrixMat* curvature, VelostrixMat* magnitude,
    VelostrixMat* channel0, VelostrixMat* channel1, VelostrixMat* channel2, VelostrixMat* normal,
    VelostrixMat* height);
/** @copydoc RunVelostrixUnCalibration_CPU_cali */
VELOSTRIX_API int32_t RunVelostrixUnCalibration_CPU_csharp_cali(
    UnCalibrationTool* tool, VelostrixMat* factor, VelostrixMat* curvature, VelostrixMat* magnitude,
    VelostrixMat* channel0, VelostrixMat* channel1, VelostrixMat* channel2, VelostrixMat* normal,
    VelostrixMat* height);

/** Unknown lamps, strips of `band` columns, their signs aligned from strip to strip. A band below
 * 10 counts as 10. The factor map is mirrored about the middle of its range. */
VELOSTRIX_API int32_t RunVelostrixUnCalibration_CPU_partcols_uncali(
    UnCalibrationTool* tool, VelostrixMat* factor, VelostrixMat* curvature, VelostrixMat* magnitude,
    VelostrixMat* channel0, VelostrixMat* channel1, VelostrixMat* channel2, VelostrixMat* normal,
    VelostrixMat* height, int32_t band);
/** @copydoc RunVelostrixUnCalibration_CPU_partcols_uncali */
VELOSTRIX_API int32_t RunVelostrixUnCalibration_CPU_partcols_csharp_uncali(
    UnCalibrationTool* tool, VelostrixMat* factor, VelostrixMat* curvature, VelostrixMat* magnitude,
    VelostrixMat* channel0, VelostrixMat* channel1, VelostrixMat* channel2, VelostrixMat* normal,
    VelostrixMat* height, int32_t band);

/** Unknown lamps, bands of `band` rows, each with its own signs. A band below 10 counts as 10. The
 * factor map is mirrored about the middle of its range. */
VELOSTRIX_API int32_t RunVelostrixUnCalibration_CPU_partrows_uncali(
    UnCalibrationTool* tool, VelostrixMat* factor, VelostrixMat* curvature, VelostrixMat* magnitude,
    VelostrixMat* channel0, VelostrixMat* channel1, VelostrixMat* channel2, VelostrixMat* normal,
    VelostrixMat* height, int32_t band);
/** @copydoc RunVelostrixUnCalibration_CPU_partrows_uncali */
VELOSTRIX_API int32_t RunVelostrixUnCalibration_CPU_partrows_csharp_uncali(
    UnCalibrationTool* tool, VelostrixMat* factor, VelostrixMat* curvature, VelostrixMat* magnitude,
    VelostrixMat* channel0, VelostrixMat* channel1, VelostrixMat* channel2, VelostrixMat* normal,
    VelostrixMat* height, int32_t band);

/** @} */

/** @defgroup release Release
 * @{
 */

/** Frees the working buffers and forgets the images; a second call does nothing. Results over the
 * tool's planes are invalid from here on. */
VELOSTRIX_API void ReleaseVelostrixUnCalibrationToolImage_CPU(UnCalibrationTool* tool);
/** @copydoc ReleaseVelostrixUnCalibrationToolImage_CPU */
VELOSTRIX_API void ReleaseVelostrixUnCalibrationToolImage_CPU_csharp(UnCalibrationTool* tool);

/** Destroys an array of cv::Mat made with new[], given its first element; null does nothing. */
VELOSTRIX_API void DestroyImageArrayCPU(VelostrixMat* first);
/** @copydoc DestroyImageArrayCPU */
VELOSTRIX_API void DestroyImageArrayCPU_csharp(VelostrixMat* first);

/** Destroys the tool; null does nothing. Does not free the working buffers: Release first. */
VELOSTRIX_API void DestroyVelostrixUnCalibrationToolPtr_CPU(UnCalibrationTool* tool);
/** @copydoc DestroyVelostrixUnCalibrationToolPtr_CPU */
VELOSTRIX_API void DestroyVelostrixUnCalibrationToolPtr_CPU_csharp(UnCalibrationTool* tool);

/** @} */

#ifdef __cplusplus
}
#endif

#endif /* VELOSTRIX_UNCALIBRATION_H */
