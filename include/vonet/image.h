// Image processing on 8-bit and float images: colour conversion, bilinear
// resizing, affine patches, padding, pixel operations, Gaussian smoothing.
//
// Images are plain pointers with a width, a height and a row stride (bytes
// for 8-bit images, floats for float images), interleaved channels, top row
// first. Interpolation works in 14-bit fixed point; every rounding step is
// part of the contract, since the detector's boxes depend on it. Invalid
// arguments (null pointers, sizes below the minimum) make a call do nothing.
#ifndef VONET_IMAGE_H
#define VONET_IMAGE_H

#include <stdint.h>

#include <vonet/geometry.h>

// Colour to grey, gray = (b0 k0 + b1 k1 + b2 k2 + 8192) >> 14 with the luma
// weights 1867 (blue), 9617 (green), 4897 (red). Destinations are packed.
void bgr2gray(uint8_t* src, int width, int height, int stride, uint8_t* dst);
void bgra2gray(uint8_t* src, int width, int height, int stride, uint8_t* dst);
void rgba2gray(uint8_t* src, int width, int height, int stride, uint8_t* dst);
void bgr2gray_uint82float(uint8_t* src, int width, int height, int stride, float* dst);
// weights[i] applies to byte i of each 3-byte pixel; normalised to sum 1.
void bgr2gray(uint8_t* src, int width, int height, int srcStride, float* weights, uint8_t* dst,
              int dstStride);

// Bilinear resizing with corner-aligned sampling. Source sides must be
// 2..65535 (colour width at most 21845).
void resizer_bilinear_gray(uint8_t* src, int srcWidth, int srcHeight, int srcStride, uint8_t* dst,
                           int dstWidth, int dstHeight, int dstStride);
void resizer_bilinear_color(uint8_t* src, int srcWidth, int srcHeight, int srcStride, uint8_t* dst,
                            int dstWidth, int dstHeight, int dstStride);
void resizer_bilinear_gray_uint2float(uint8_t* src, int srcWidth, int srcHeight, int srcStride,
                                      float* dst, int dstWidth, int dstHeight);

// Rotated and scaled patches: destination pixel (j, i) samples the source
// at srcCenter + R(-angle) ((j, i) - dstCenter) / scale. Samples outside
// the usable source area (including the last column and row) are 0.
void affine_image(uint8_t* src, int srcWidth, int srcHeight, int srcStride, float angle, float scale,
                  VPointf& srcCenter, VPointf& dstCenter, uint8_t* dst, int dstWidth, int dstHeight,
                  int dstStride);
void affine_image_uint82float(uint8_t* src, int srcWidth, int srcHeight, int srcStride, float angle,
                              float scale, VPointf& srcCenter, VPointf& dstCenter, float* dst,
                              int dstWidth, int dstHeight);
void affine_image_color(uint8_t* src, int srcWidth, int srcHeight, int srcStride, float angle,
                        float scale, VPointf& srcCenter, VPointf& dstCenter, uint8_t* dst, int dstWidth,
                        int dstHeight, int dstStride);
// dstStride in floats.
void affine_image_color_uint82float(uint8_t* src, int srcWidth, int srcHeight, int srcStride,
                                    float angle, float scale, VPointf& srcCenter, VPointf& dstCenter,
                                    float* dst, int dstWidth, int dstHeight, int dstStride);
// Planar outputs: channel k of pixel (j, i) at k w h + i w + j.
void split_affine_image(uint8_t* src, int srcWidth, int srcHeight, int srcStride, float angle,
                        float scale, VPointf& srcCenter, VPointf& dstCenter, uint8_t* dst, int dstWidth,
                        int dstHeight);
void split_affine_image_uint82float(uint8_t* src, int srcWidth, int srcHeight, int srcStride,
                                    float angle, float scale, VPointf& srcCenter, VPointf& dstCenter,
                                    float* dst, int dstWidth, int dstHeight);
void split_image(uint8_t* src, int width, int height, int channels, int stride, uint8_t* dst);
void split_image_uint82float(uint8_t* src, int width, int height, int channels, int stride, float* dst);

// Border modes of `padding`: 0 constant `value`, 1 replicate the edge,
// 2 mirror including the edge pixel, 3 wrap around. Planes are packed.
void padding(uint8_t* src, int width, int height, int channels, uint8_t* dst, int ptop, int pbot,
             int plef, int prig, int mode, uint8_t value);
void padding(float* src, int width, int height, int channels, float* dst, int ptop, int pbot, int plef,
             int prig, int mode, float value);

// Pixel operations; `channels` is 1 or 3 where it is asked for.
void equalize_image(uint8_t* src, int width, int height, int stride);
void brightness_adjust(uint8_t* src, int width, int height, int channels, int stride, float strength);
void mosaic(uint8_t* src, int width, int height, int channels, int stride, int blockSize);
void table_map(uint8_t* src, int width, int height, int channels, int stride, uint8_t* table);
// Inclusive sums; dstStride in elements.
void integral_image(uint8_t* src, int width, int height, int stride, unsigned int* dst, int dstStride);
// `width` is the number of bytes of each row to exchange.
void vertical_mirror(uint8_t* src, int width, int height, int stride);
void horizontal_mirror(uint8_t* src, int width, int height, int stride);
// dst receives rect.height rows of rect.width * channels bytes, 0 outside
// the image.
void extract_area_from_image(uint8_t* src, int width, int height, int channels, int stride, uint8_t* dst,
                             VRect& rect);

// Separable Gaussian smoothing with borders reflected about the first and
// last sample. sigma <= 0 derives sigma from ksize. The 2-D filters work in
// place and need an odd ksize below both image sides.
void generate_gaussian_kernel(float* kernel, int ksize, float sigma);
void gaussian_filter1D(float* src, int n, int channels, int ksize, float sigma, float* dst);
void gaussian_filter1D_uint8(uint8_t* src, int n, int channels, int ksize, float sigma, uint8_t* dst);
void gaussian_filter2D(float* src, int width, int height, int channels, int stride, int ksize, float sigma);
void gaussian_filter2D_uint8(uint8_t* src, int width, int height, int channels, int stride, int ksize,
                             float sigma);

#endif
