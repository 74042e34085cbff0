/** @file
 * Plain C entry points of the image-quality measures and the library's version constants. */
#ifndef KWQIMAGE_KWQ_QUALITY_H
#define KWQIMAGE_KWQ_QUALITY_H

#include <stdint.h>

#include "kwqimage/Export.h"

#ifdef __cplusplus
extern "C" {
#endif

/** @{ */
/** Width, height and size in bytes of the raster the two-pi focus assessment reads. */
#define KWQ_ASSESSMENT_RASTER_WIDTH 640
#define KWQ_ASSESSMENT_RASTER_HEIGHT 480
#define KWQ_ASSESSMENT_RASTER_BYTES 307200
/** @} */

/** Input of ImageAssess: only the raster pointer is read. */
typedef struct ImageAssessSource {
  const uint8_t* raster; /**< 640 x 480 8-bit gray, rows 640 bytes apart */
} ImageAssessSource;

/** Output of ImageAssess. */
typedef struct ImageAssessResult {
  int32_t reserved[16];        /**< neither read nor written */
  int32_t centerSurroundScore; /**< 0..100, centre-surround energy over every block */
  int32_t focusScore;          /**< 0..100, the same energy over blocks free of bright pixels */
  int32_t rowAlternationScore; /**< 0..100, alternating-row energy over every block */
} ImageAssessResult;

/** Scores a 640 x 480 raster; writes the three score fields of `result`. A null source, raster
 *  or result writes nothing. Thread: any. */
KWQ_EXPORT void ImageAssess(const ImageAssessSource* source, ImageAssessResult* result);

/** The focusScore of ImageAssess for `raster` (0..100; 0 for a null raster). The raster is not
 *  freed. Thread: any. */
KWQ_EXPORT int32_t TwoPiFocusAssess(const uint8_t* raster);

/** Mean squared difference between each sampled pixel and the pixel `distance` to its right
 *  (in row-packed order) over `width` x `height` pixels of `bytesPerPixel` bytes, less a border
 *  of `edgePercent` percent, every `step`-th row and column. Samples outside the image (a
 *  negative edgePercent reaches them) and samples whose partner lies outside the width x height
 *  buffer are skipped; a step or bytesPerPixel below 1, a null buffer, sizes no buffer can have
 *  (over 2^56 bytes) or no sample gives 0.0. Thread: any. */
KWQ_EXPORT float CalculateFocusQuality(const uint8_t* data, uint32_t width, uint32_t height,
                                       int32_t bytesPerPixel, int32_t distance, int32_t step,
                                       int32_t edgePercent);

/** @{ */
/** degrees x pi / 180 and radians x 180 / pi. */
KWQ_EXPORT double DegreesToRadians(double degrees);
KWQ_EXPORT double RadiansToDegrees(double radians);
/** @} */

/** 1.0 */
KWQ_EXPORT extern const double KWQImageVersionNumber;
/** "@(#)PROGRAM:KWQImage  PROJECT:KWQImage-1" followed by a line feed. */
KWQ_EXPORT extern const unsigned char KWQImageVersionString[];

/** -90.0: the angle in degrees at which the progress circle's segment starts (the top).
 *  Published for host code; the view's drawing carries the value itself. */
KWQ_EXPORT extern const double kAngleOffset;
/** 8. Published with the progress circle for host code; the view does not read it. */
KWQ_EXPORT extern const int32_t INNER_BORDER_RADIUS_PERCENTAGE;

#ifdef __cplusplus
}
#endif

#endif
