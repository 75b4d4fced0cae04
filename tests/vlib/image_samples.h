// Random test images in buffers of exactly the bytes an image needs, one
// byte off alignment, so that any read past the last pixel trips the
// address sanitizer and vector paths see unaligned rows.
#ifndef VONET_TESTS_VLIB_IMAGE_SAMPLES_H
#define VONET_TESTS_VLIB_IMAGE_SAMPLES_H

#include <cstdint>
#include <cstring>
#include <random>
#include <vector>

namespace vo_test {

template <typename T>
struct Buffer {
    Buffer(size_t count, T fill = T()) : storage(count + 1, fill) {}
    T* data() { return storage.data() + 1; }
    size_t size() const { return storage.size() - 1; }
    std::vector<T> storage;
};

struct TestImage {
    TestImage(int w, int h, int bytesPerPixel, int extraStride, std::mt19937& rng)
        : width(w), height(h), stride(w * bytesPerPixel + extraStride),
          buffer(size_t(h - 1) * size_t(stride) + size_t(w) * bytesPerPixel) {
        for (size_t i = 0; i < buffer.size(); ++i) buffer.data()[i] = uint8_t(rng());
    }
    uint8_t* data() { return buffer.data(); }
    const uint8_t* row(int y) { return buffer.data() + size_t(y) * stride; }
    int width, height, stride;
    Buffer<uint8_t> buffer;
};

// Bitwise equality of float arrays (0.0 and -0.0 differ).
inline bool same_bits(const float* a, const float* b, size_t n) { return memcmp(a, b, n * sizeof(float)) == 0; }

}  // namespace vo_test

#endif
