// Image files for vonet detect: decoding into the grey image the detector
// searches, drawing boxes, writing PNG.
#ifndef VONET_TOOLS_IMAGE_IO_H
#define VONET_TOOLS_IMAGE_IO_H

#include <cstdint>
#include <string>
#include <vector>

namespace vo::cli {

struct DecodedImage {
    int width = 0;
    int height = 0;
    int channels = 0;            // as stored in the file: 1 grey, 2 grey + alpha, 3 RGB, 4 RGBA
    std::vector<uint8_t> grey;   // width x height, rows packed
    std::vector<uint8_t> rgb;    // width x height x 3, for drawing on
};

// Decodes a PNG, JPEG, BMP (or another format the decoder knows) file.
// Colour pixels are reordered to B, G, R (alpha dropped) and turned grey
// with bgr2gray, as the file-level detection entry does; a grey file is
// used as it is (its alpha dropped). False with a one-line reason.
bool decode_image(const std::string& path, DecodedImage* image, std::string* error);

// Box outlines in image pixels, clipped to the image; the line width grows
// with the image so that it stays visible.
struct Box {
    int32_t x, y, width, height;
};
void draw_boxes(DecodedImage* image, const std::vector<Box>& boxes);

// Writes image->rgb as an 8-bit RGB PNG. False with a one-line reason.
bool write_png(const std::string& path, const DecodedImage& image, std::string* error);

}  // namespace vo::cli

#endif
