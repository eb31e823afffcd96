/* cv::Mat for hosts without OpenCV: make, wrap, inspect, copy and destroy images by plain C calls.
 * C11 and C++17.
 *
 * The runs of the module write their results to cv::Mat objects that the host owns. A host in C,
 * C#, Python or any language that calls C gets such objects here. No function throws: one that
 * cannot do what it is asked returns null or false and changes nothing. Functions with different
 * images may be called from different threads.
 */
#ifndef VELOSTRIX_MAT_H
#define VELOSTRIX_MAT_H

#include <stdbool.h>
#include <stdint.h>

#include "velostrix/uncalibration.h"

#if defined(_WIN32)
#if defined(VELOSTRIX_BUILDS_MAT)
#define VELOSTRIX_MAT_API __declspec(dllexport)
#else
#define VELOSTRIX_MAT_API __declspec(dllimport)
#endif
#else
#define VELOSTRIX_MAT_API __attribute__((visibility("default")))
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* OpenCV's numbers of the pixel types that the module takes and gives. Any other number of OpenCV
 * with 1 to 4 channels is accepted as well. */
enum VelostrixMatType {
  VELOSTRIX_MAT_8U = 0,    /* 8-bit unsigned, one channel */
  VELOSTRIX_MAT_16U = 2,   /* 16-bit unsigned, one channel: the height */
  VELOSTRIX_MAT_8U_C3 = 16 /* 8-bit unsigned, three channels: the normal image */
};

/* What an image is. 40 bytes, natural alignment. */
typedef struct VelostrixMatInfo {
  void* data;          /* first pixel; null for an empty image */
  int64_t step;        /* bytes from one row to the next */
  int32_t rows;        /* 0 for an empty image */
  int32_t cols;        /* 0 for an empty image */
  int32_t type;        /* OpenCV's number of the pixel type */
  int32_t pixel_bytes; /* bytes of one pixel, all channels */
  int32_t owns_pixels; /* 1: the pixels live as long as the image; 0: they are someone else's, as
                          those of a result that is not resized are the tool's */
  int32_t unused;      /* 0 */
} VelostrixMatInfo;

/* A new image without pixels: what a run takes as a result. Null when memory runs out. */
VELOSTRIX_MAT_API VelostrixMat* VelostrixMatNew(void);

/* A new image of rows x cols pixels, all zero. Null for rows or cols below 1, a type that is no
 * type of 1 to 4 channels, or when memory runs out. */
VELOSTRIX_MAT_API VelostrixMat* VelostrixMatNewSized(int32_t rows, int32_t cols, int32_t type);

/* A new image over the host's pixels, which are not copied and must outlive it. step: bytes from
 * one row to the next; 0 = rows without gaps. Null as above, and for null data, or a step that is
 * shorter than a row or not a multiple of one channel of a pixel. */
VELOSTRIX_MAT_API VelostrixMat* VelostrixMatWrap(void* data, int32_t rows, int32_t cols,
                                                 int32_t type, int64_t step);

/* Fills *info; an empty image has all fields zero. False for null, or an image of more than two
 * dimensions. */
VELOSTRIX_MAT_API bool VelostrixMatInspect(const VelostrixMat* mat, VelostrixMatInfo* info);

/* Copies the pixels to out, row after row without gaps: rows * cols * pixel_bytes bytes. False for
 * null, an empty image, or out_bytes not exactly that number. */
VELOSTRIX_MAT_API bool VelostrixMatCopyTo(const VelostrixMat* mat, void* out, int64_t out_bytes);

/* Destroys one image of VelostrixMatNew, ...NewSized or ...Wrap; null does nothing. Not for
 * elements of an array. */
VELOSTRIX_MAT_API void VelostrixMatDelete(VelostrixMat* mat);

/* A new array of count images without pixels, made by new[]; returns its first element. Null for a
 * count below 1 or when memory runs out. Destroy it by DestroyImageArrayCPU of the module or by
 * VelostrixMatDeleteArray, which do the same. */
VELOSTRIX_MAT_API VelostrixMat* VelostrixMatNewArray(int32_t count);

/* Element index of an array, or null for a null array or an index outside it. Belongs to the array.
 */
VELOSTRIX_MAT_API VelostrixMat* VelostrixMatAt(VelostrixMat* first, int32_t count, int32_t index);

/* Makes *to the same image as *from: pixels that `from` owns are shared, not copied, and live until
 * the last image with them is gone. Puts images into arrays. False for null. */
VELOSTRIX_MAT_API bool VelostrixMatAssign(VelostrixMat* to, const VelostrixMat* from);

/* Destroys an array, given its first element; null does nothing. */
VELOSTRIX_MAT_API void VelostrixMatDeleteArray(VelostrixMat* first);

#ifdef __cplusplus
}
#endif

#endif /* VELOSTRIX_MAT_H */
