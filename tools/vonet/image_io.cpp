#include "image_io.h"

#include <vonet/image.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>

// Debian's stb headers, private to this file (static functions).
#define STB_IMAGE_STATIC
#define STB_IMAGE_IMPLEMENTATION
#define STB_IMAGE_WRITE_STATIC
#define STB_IMAGE_WRITE_IMPLEMENTATION
#include "common/stb_private.h"

namespace vo::cli {
namespace {

// Decoded bytes a file may ask for per byte of its own size (deflate
// expands about 1032 times at most, a palette adds up to 4 per index): a
// header claiming more is not backed by its data.
constexpr int64_t kMaxExpansion = 4096;
// Pixels of one image: the grey and colour copies stay below 1 GiB.
constexpr int64_t kMaxPixels = int64_t(1) << 28;

struct FileCloser {
    void operator()(FILE* f) const { fclose(f); }
};

}  // namespace

bool decode_image(const std::string& path, DecodedImage* image, std::string* error) {
    std::error_code ec;
    if (std::filesystem::is_directory(path, ec)) {
        *error = "cannot read image '" + path + "': it is a directory";
        return false;
    }
    FILE* f = fopen(path.c_str(), "rb");
    if (!f) {
        *error = "cannot open image '" + path + "': " + strerror(errno);
        return false;
    }
    std::unique_ptr<FILE, FileCloser> file(f);
    if (fseek(f, 0, SEEK_END) != 0) {
        *error = "cannot read image '" + path + "': not a seekable file";
        return false;
    }
    const long fileSize = ftell(f);
    rewind(f);
    int w = 0, h = 0, comp = 0;
    if (fileSize <= 0 || !stbi_info_from_file(f, &w, &h, &comp)) {
        *error = "cannot decode image '" + path + "': not a PNG, JPEG, BMP or other known image file";
        return false;
    }
    const int64_t pixels = std::llabs(int64_t(w)) * std::llabs(int64_t(h));
    if (pixels < 1 || pixels > kMaxPixels || pixels * comp > int64_t(fileSize) * kMaxExpansion) {
        *error = "cannot decode image '" + path + "': its header declares " + std::to_string(w) + "x" +
                 std::to_string(h) + " pixels, more than the file can hold or than is supported";
        return false;
    }
    uint8_t* decoded = stbi_load_from_file(f, &w, &h, &comp, 0);
    if (!decoded) {
        *error = "cannot decode image '" + path + "': " + stbi_failure_reason();
        return false;
    }
    if (w < 1 || h < 1 || int64_t(w) * h > pixels || comp < 1 || comp > 4) {
        stbi_image_free(decoded);
        *error = "cannot decode image '" + path + "': unexpected decoded size";
        return false;
    }
    const size_t count = size_t(w) * size_t(h);
    image->width = w;
    image->height = h;
    image->channels = comp;
    image->grey.assign(count, 0);
    image->rgb.assign(count * 3, 0);
    if (comp >= 3) {
        // R, G, B[, A] to B, G, R, then the library's grey conversion.
        std::vector<uint8_t> bgr(count * 3);
        for (size_t i = 0; i < count; ++i) {
            const uint8_t* s = decoded + i * size_t(comp);
            bgr[i * 3 + 0] = s[2];
            bgr[i * 3 + 1] = s[1];
            bgr[i * 3 + 2] = s[0];
            memcpy(&image->rgb[i * 3], s, 3);
        }
        bgr2gray(bgr.data(), w, h, 3 * w, image->grey.data());
    } else {
        for (size_t i = 0; i < count; ++i) {
            const uint8_t v = decoded[i * size_t(comp)];
            image->grey[i] = v;
            image->rgb[i * 3 + 0] = image->rgb[i * 3 + 1] = image->rgb[i * 3 + 2] = v;
        }
    }
    stbi_image_free(decoded);
    return true;
}

void draw_boxes(DecodedImage* image, const std::vector<Box>& boxes) {
    const int64_t w = image->width, h = image->height;
    const int64_t thickness = std::max<int64_t>(2, std::min(w, h) / 240);
    auto fill = [&](int64_t x0, int64_t y0, int64_t x1, int64_t y1) {  // [x0, x1) x [y0, y1), clipped
        x0 = std::max<int64_t>(x0, 0);
        y0 = std::max<int64_t>(y0, 0);
        x1 = std::min(x1, w);
        y1 = std::min(y1, h);
        for (int64_t y = y0; y < y1; ++y)
            for (int64_t x = x0; x < x1; ++x) {
                uint8_t* p = &image->rgb[size_t((y * w + x) * 3)];
                p[0] = 0;
                p[1] = 255;
                p[2] = 0;
            }
    };
    for (const Box& b : boxes) {
        if (b.width < 1 || b.height < 1) continue;
        const int64_t x0 = b.x, y0 = b.y, x1 = int64_t(b.x) + b.width, y1 = int64_t(b.y) + b.height;
        const int64_t t = std::min({thickness, int64_t(b.width), int64_t(b.height)});
        fill(x0, y0, x1, y0 + t);
        fill(x0, y1 - t, x1, y1);
        fill(x0, y0, x0 + t, y1);
        fill(x1 - t, y0, x1, y1);
    }
}

bool write_png(const std::string& path, const DecodedImage& image, std::string* error) {
    stbi_write_png_compression_level = 9;
    errno = 0;
    if (!stbi_write_png(path.c_str(), image.width, image.height, 3, image.rgb.data(), image.width * 3)) {
        *error = "cannot write '" + path + "'" + (errno ? std::string(": ") + strerror(errno) : std::string());
        return false;
    }
    return true;
}

}  // namespace vo::cli
