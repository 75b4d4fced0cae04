/* Object manager: find objects of one kind in an image file through plain
 * C functions. The handle is opaque; it owns the detector loaded from the
 * model directory (files object_<kind>_anet.dat, object_<kind>_anet_params.dat
 * and so on for each stage).
 *
 * Statuses: 0 success; 4 a detector that cannot be loaded, or an image file
 * that is missing, undecodable, not colour, or of a size the detector
 * cannot search; 7 a missing handle, path or output.
 *
 * Usable from C99 and C++; in C++ it is also included by <vonet/detector.h>.
 */
#ifndef VONET_OBJECT_MANAGER_H
#define VONET_OBJECT_MANAGER_H

#include <stdint.h>

#ifdef __cplusplus
#include <vonet/geometry.h>
#else
/* Top-left pixel and size, as in <vonet/geometry.h>. */
typedef struct VRect {
    int32_t x;
    int32_t y;
    int32_t width;
    int32_t height;
} VRect;
#endif

typedef struct VoDetector VoDetector;

#ifdef __cplusplus
extern "C" {
#endif

/* Loads the detector named "object_<kind>" from `dir`; on failure the
 * handle is left as it was. */
int load_object_manager(const char* dir, const char* kind, VoDetector** manager);

/* Decodes the image file (3 or 4 channels), searches the region of
 * interest, or the whole image when the region is not at least 16 x 16
 * inside it, and hands back boxes in image pixels, normalised to one
 * common square size. *num receives the count; *rects receives a new
 * array (release with free) only when the count is above 0. */
int detect_objects(VoDetector* manager, const char* path, VRect roi, VRect** rects, int* num);

/* Releases the detector and sets the handle to null. */
void release_object_manager(VoDetector** manager);

/* Search parameters: the two size ratios (swapped when given in the wrong
 * order), the window step ratio and the number of pyramid levels. Values
 * are stored as given; a detection refuses values it cannot search. */
void set_detect_params(VoDetector* detector, float minSizeRatio, float maxSizeRatio, float strideRatio,
                       int levels);

#ifdef __cplusplus
}
#endif

#endif
