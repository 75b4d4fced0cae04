#include <vonet/vonet.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <random>
#include <vector>

#include "test_util.h"

namespace {

using vo_test::Buffer;

int reflect(int i, int n) { return i < 0 ? -i : i > n - 1 ? 2 * (n - 1) - i : i; }

// One output value along a line of n samples, `step` elements apart.
float ref_float(const float* line, int n, int step, int x, const std::vector<float>& k) {
    const int r = int(k.size()) >> 1;
    float acc = k[r] * line[x * step];
    for (int j = 1; j <= r; ++j)
        acc = std::fma(line[reflect(x - j, n) * step] + line[reflect(x + j, n) * step], k[r - j], acc);
    return acc;
}

uint8_t ref_byte(const uint8_t* line, int n, int step, int x, const std::vector<float>& k) {
    const int r = int(k.size()) >> 1;
    float acc = std::min(255.0f, std::trunc(float(line[x * step]) * k[r] + 0.5f));
    for (int j = 1; j <= r; ++j) {
        const int pair = line[reflect(x - j, n) * step] + line[reflect(x + j, n) * step];
        acc = std::min(255.0f, std::trunc(acc + std::fma(float(pair), k[r - j], 0.5f)));
    }
    return uint8_t(acc);
}

std::vector<float> kernel(int ksize, float sigma) {
    std::vector<float> k(ksize);
    generate_gaussian_kernel(k.data(), ksize, sigma);
    return k;
}

TEST(Gaussian, Kernel) {
    const std::vector<float> k3 = kernel(3, 0.0f), k5 = kernel(5, 0.0f);
    EXPECT_NEAR(k3[0], 0.23899f, 1e-5f);
    EXPECT_NEAR(k3[1], 0.52201f, 1e-5f);
    const float want5[5] = {0.07077f, 0.24446f, 0.36955f, 0.24446f, 0.07077f};
    for (int i = 0; i < 5; ++i) EXPECT_NEAR(k5[i], want5[i], 1e-5f);
    for (int ksize : {1, 7, 31, 101}) {
        const std::vector<float> k = kernel(ksize, ksize == 31 ? 4.0f : 0.0f);
        double sum = 0;
        for (int i = 0; i < ksize; ++i) {
            EXPECT_EQ(k[i], k[ksize - 1 - i]);
            sum += k[i];
        }
        EXPECT_NEAR(sum, 1.0, 1e-5);
    }
}

TEST(Gaussian, RowsMatchFormula) {
    std::mt19937 rng(31);
    std::uniform_real_distribution<float> u(-100.0f, 300.0f);
    for (int ksize : {1, 3, 5, 7, 9, 2}) {
        for (int ch : {1, 3, 2}) {
            for (int n = std::max(1, ksize / 2 + 1); n <= 40; ++n) {
                const float sigma = rng() % 2 ? 0.0f : 1.7f;
                const std::vector<float> k = kernel(ksize, sigma);
                Buffer<float> f(size_t(n) * ch), fo(size_t(n) * ch);
                Buffer<uint8_t> b(size_t(n) * ch), bo(size_t(n) * ch);
                for (size_t i = 0; i < f.size(); ++i) {
                    f.data()[i] = u(rng);
                    b.data()[i] = uint8_t(rng());
                }
                gaussian_filter1D(f.data(), n, ch, ksize, sigma, fo.data());
                gaussian_filter1D_uint8(b.data(), n, ch, ksize, sigma, bo.data());
                for (int x = 0; x < n; ++x)
                    for (int c = 0; c < ch; ++c) {
                        const float want = ref_float(f.data() + c, n, ch, x, k);
                        ASSERT_TRUE(vo_test::same_bits(&fo.data()[x * ch + c], &want, 1))
                            << "ksize " << ksize << " n " << n << " x " << x;
                        ASSERT_EQ(bo.data()[x * ch + c], ref_byte(b.data() + c, n, ch, x, k))
                            << "ksize " << ksize << " n " << n << " x " << x;
                    }
            }
        }
    }

    // Worked values: the right end reflects onto samples n-2, n-3.
    float step[6] = {0, 0, 0, 0, 0, 1}, out[6];
    const std::vector<float> k5 = kernel(5, 0.0f);
    gaussian_filter1D(step, 6, 1, 5, 0.0f, out);
    EXPECT_EQ(out[5], k5[2]);
    EXPECT_EQ(out[4], k5[1]);
    uint8_t white[4] = {255, 255, 255, 255}, wout[4];
    gaussian_filter1D_uint8(white, 4, 1, 3, 0.0f, wout);
    for (uint8_t v : wout) EXPECT_EQ(v, 255);
}

template <typename T>
void check_2d(int w, int h, int ch, int ksize, float sigma, int extra, std::mt19937& rng) {
    const int stride = w * ch + extra;
    Buffer<T> img(size_t(h - 1) * stride + size_t(w) * ch);
    for (size_t i = 0; i < img.size(); ++i) img.data()[i] = T(rng() % 256);
    std::vector<T> before(img.data(), img.data() + img.size());
    const std::vector<float> k = kernel(ksize, sigma);
    // Rows into a packed image, then columns.
    std::vector<T> rows(size_t(w) * h * ch);
    for (int y = 0; y < h; ++y)
        for (int t = 0; t < w * ch; ++t) {
            const T* line = before.data() + size_t(y) * stride + t % ch;
            if constexpr (sizeof(T) == 1)
                rows[size_t(y) * w * ch + t] = ref_byte(line, w, ch, t / ch, k);
            else
                rows[size_t(y) * w * ch + t] = ref_float(line, w, ch, t / ch, k);
        }
    if constexpr (sizeof(T) == 1)
        gaussian_filter2D_uint8(img.data(), w, h, ch, stride, ksize, sigma);
    else
        gaussian_filter2D(img.data(), w, h, ch, stride, ksize, sigma);
    for (int y = 0; y < h; ++y) {
        for (int t = 0; t < w * ch; ++t) {
            T want;
            if constexpr (sizeof(T) == 1)
                want = ref_byte(rows.data() + t, h, w * ch, y, k);
            else
                want = ref_float(rows.data() + t, h, w * ch, y, k);
            const T got = img.data()[size_t(y) * stride + t];
            ASSERT_EQ(memcmp(&got, &want, sizeof(T)), 0) << w << "x" << h << " ksize " << ksize << " at " << t << "," << y;
        }
        // The gap between rows is not touched.
        for (int t = w * ch; t < stride && y < h - 1; ++t)
            ASSERT_EQ(img.data()[size_t(y) * stride + t], before[size_t(y) * stride + t]);
    }
}

TEST(Gaussian, ImagesMatchFormula) {
    std::mt19937 rng(41);
    for (int ksize : {3, 5, 7}) {
        for (int w = ksize + 1; w <= 40; ++w) {
            const int h = ksize + 1 + int(rng() % 6), ch = rng() % 2 ? 3 : 1, extra = int(rng() % 3);
            check_2d<float>(w, h, ch, ksize, 0.0f, extra, rng);
            check_2d<uint8_t>(w, h, ch, ksize, 1.3f, extra, rng);
        }
    }
    check_2d<float>(640, 48, 1, 5, 0.0f, 0, rng);
    check_2d<uint8_t>(130, 110, 3, 101, 0.0f, 5, rng);  // far beyond 64 taps
}

TEST(Gaussian, SaturatesAndRejects) {
    // Nine nearly equal taps on white: 28 + 4 x 57 = 256 before the
    // saturation, which must hold at 255 rather than wrap to 0.
    std::vector<uint8_t> white(20 * 20, 255);
    gaussian_filter2D_uint8(white.data(), 20, 20, 1, 20, 9, 1e4f);
    for (uint8_t v : white) ASSERT_EQ(v, 255);
    std::vector<uint8_t> line(20, 255), lineOut(20, 0);
    gaussian_filter1D_uint8(line.data(), 20, 1, 9, 1e4f, lineOut.data());
    for (uint8_t v : lineOut) ASSERT_EQ(v, 255);

    std::vector<float> img(36);
    for (size_t i = 0; i < img.size(); ++i) img[i] = float(i);
    const std::vector<float> before = img;
    gaussian_filter2D(img.data(), 6, 6, 1, 6, 4, 0.0f);  // even
    gaussian_filter2D(img.data(), 6, 6, 1, 6, 7, 0.0f);  // not below the sides
    gaussian_filter2D(img.data(), 6, 6, 1, 6, -3, 0.0f);
    EXPECT_EQ(img, before);
}

}  // namespace
