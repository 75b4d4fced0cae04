// Separable Gaussian smoothing. Borders reflect about the first and last
// sample without repeating it (... 2 1 | 0 1 2 ... n-1 | n-2 ...).
//
// Every output value is k[r] x[0] followed by the symmetric pairs j = 1..r
// in order, each pair summed first: fused into the float accumulator, or
// rounded on its own and added to a saturating 8-bit value in the byte
// form. Rows and columns run the same flat loop over pointer sets, so
// the vector and scalar lanes follow one order of operations.
#include <vonet/image.h>

#include <immintrin.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdlib>

#include "vlib/image_internal.h"

namespace {

// Per-call workspace: the kernel and 2 r + 1 sample pointers per side.
struct Work {
    float* k = nullptr;
    const void** up = nullptr;
    const void** dn = nullptr;
    int r = 0;

    bool init(int ksize, float sigma) {
        r = ksize >> 1;
        void* block = malloc(sizeof(float) * size_t(ksize) + 2 * sizeof(void*) * (size_t(r) + 1));
        if (!block) return false;
        up = static_cast<const void**>(block);
        dn = up + r + 1;
        k = reinterpret_cast<float*>(dn + r + 1);
        generate_gaussian_kernel(k, ksize, sigma);
        return true;
    }
    ~Work() { free(up); }
};

inline int64_t reflect(int64_t i, int64_t n) {
    if (i < 0) return -i;
    if (i > n - 1) return 2 * (n - 1) - i;
    return i;
}

// Byte accumulation: each term rounded on its own, the running value kept
// to 8 bits (saturating rather than wrapping on large kernels).
inline float byte_start(uint8_t v, float kr) { return std::min(255.0f, std::trunc(float(v) * kr + 0.5f)); }
inline float byte_step(float acc, int pairSum, float kj) {
    return std::min(255.0f, std::trunc(acc + std::fma(float(pairSum), kj, 0.5f)));
}

// out[t] for t in [0, count): centre ctr[t], pairs up[j][t] + dn[j][t].
void run_float(const float* ctr, const float* const* up, const float* const* dn, const float* k, int r,
               int64_t count, float* out, bool vector) {
    int64_t t = 0;
    if (vector) {
        const __m256 kr = _mm256_set1_ps(k[r]);
        for (; t + 8 <= count; t += 8) {
            __m256 acc = _mm256_mul_ps(kr, _mm256_loadu_ps(ctr + t));
            for (int j = 1; j <= r; ++j) {
                const __m256 pair = _mm256_add_ps(_mm256_loadu_ps(up[j] + t), _mm256_loadu_ps(dn[j] + t));
                acc = _mm256_fmadd_ps(pair, _mm256_set1_ps(k[r - j]), acc);
            }
            _mm256_storeu_ps(out + t, acc);
        }
    }
    for (; t < count; ++t) {
        float acc = k[r] * ctr[t];
        for (int j = 1; j <= r; ++j) acc = std::fma(up[j][t] + dn[j][t], k[r - j], acc);
        out[t] = acc;
    }
}

inline __m256 load8_bytes(const uint8_t* p) {
    return _mm256_cvtepi32_ps(_mm256_cvtepu8_epi32(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(p))));
}

void run_byte(const uint8_t* ctr, const uint8_t* const* up, const uint8_t* const* dn, const float* k, int r,
              int64_t count, uint8_t* out, bool vector) {
    int64_t t = 0;
    if (vector) {
        const int round = _MM_FROUND_TO_ZERO | _MM_FROUND_NO_EXC;
        const __m256 kr = _mm256_set1_ps(k[r]);
        const __m256 half = _mm256_set1_ps(0.5f);
        const __m256 top = _mm256_set1_ps(255.0f);
        const __m256i order = _mm256_setr_epi32(0, 4, 1, 5, 2, 6, 3, 7);
        for (; t + 8 <= count; t += 8) {
            __m256 acc = _mm256_add_ps(_mm256_mul_ps(load8_bytes(ctr + t), kr), half);
            acc = _mm256_min_ps(top, _mm256_round_ps(acc, round));
            for (int j = 1; j <= r; ++j) {
                // Byte values sum exactly in float (at most 510).
                const __m256 pair = _mm256_add_ps(load8_bytes(up[j] + t), load8_bytes(dn[j] + t));
                const __m256 term = _mm256_fmadd_ps(pair, _mm256_set1_ps(k[r - j]), half);
                acc = _mm256_min_ps(top, _mm256_round_ps(_mm256_add_ps(acc, term), round));
            }
            const __m256i v = _mm256_cvttps_epi32(acc);
            const __m256i w = _mm256_packs_epi32(v, v);
            const __m256i b = _mm256_permutevar8x32_epi32(_mm256_packus_epi16(w, w), order);
            _mm_storel_epi64(reinterpret_cast<__m128i*>(out + t), _mm256_castsi256_si128(b));
        }
    }
    for (; t < count; ++t) {
        float acc = byte_start(ctr[t], k[r]);
        for (int j = 1; j <= r; ++j) acc = byte_step(acc, up[j][t] + dn[j][t], k[r - j]);
        out[t] = uint8_t(acc);
    }
}

inline void run(const float* ctr, const void* const* up, const void* const* dn, const float* k, int r,
                int64_t count, float* out, bool vector) {
    run_float(ctr, reinterpret_cast<const float* const*>(up), reinterpret_cast<const float* const*>(dn), k, r,
              count, out, vector);
}
inline void run(const uint8_t* ctr, const void* const* up, const void* const* dn, const float* k, int r,
                int64_t count, uint8_t* out, bool vector) {
    run_byte(ctr, reinterpret_cast<const uint8_t* const*>(up), reinterpret_cast<const uint8_t* const*>(dn), k, r,
             count, out, vector);
}

// One row of n samples with `channels` values each; requires r <= n - 1.
// Only the r samples at each end reflect; the interior is one flat run.
template <typename T>
void filter_row(const T* src, int n, int channels, Work& w, T* dst, bool vector) {
    const int r = w.r;
    const int64_t ch = channels;
    const int lo = std::min(r, n);
    const int hi = std::max(lo, n - r);
    auto edge = [&](int x) {
        for (int c = 0; c < channels; ++c) {
            for (int j = 1; j <= r; ++j) {
                w.up[j] = src + reflect(x - j, n) * ch + c;
                w.dn[j] = src + reflect(x + j, n) * ch + c;
            }
            run(src + x * ch + c, w.up, w.dn, w.k, r, 1, dst + x * ch + c, false);
        }
    };
    for (int x = 0; x < lo; ++x) edge(x);
    if (hi > lo) {
        for (int j = 1; j <= r; ++j) {
            w.up[j] = src + (lo - j) * ch;
            w.dn[j] = src + (lo + j) * ch;
        }
        run(src + lo * ch, w.up, w.dn, w.k, r, (hi - lo) * ch, dst + lo * ch, vector);
    }
    for (int x = hi; x < n; ++x) edge(x);
}

template <typename T>
void filter_1d(const T* src, int n, int channels, int ksize, float sigma, T* dst) {
    if (!src || !dst || n < 1 || channels < 1 || ksize < 1 || (ksize >> 1) > n - 1) return;
    Work w;
    if (!w.init(ksize, sigma)) return;
    filter_row(src, n, channels, w, dst, true);
}

}  // namespace

namespace vo {

// Rows into a packed scratch image, then columns back into the source.
template <typename T>
void gaussian_2d(T* src, int width, int height, int channels, int stride, int ksize, float sigma, bool vector) {
    if (!src || channels < 1 || ksize < 1 || ksize % 2 == 0 || ksize >= height || ksize >= width) return;
    Work w;
    if (!w.init(ksize, sigma)) return;
    const int64_t rowLen = int64_t(width) * channels;
    T* scratch = static_cast<T*>(malloc(sizeof(T) * size_t(rowLen) * size_t(height)));
    if (!scratch) return;
    for (int y = 0; y < height; ++y)
        filter_row<T>(src + int64_t(y) * stride, width, channels, w, scratch + y * rowLen, vector);
    const int r = w.r;
    for (int y = 0; y < height; ++y) {
        for (int j = 1; j <= r; ++j) {
            w.up[j] = scratch + reflect(y - j, height) * rowLen;
            w.dn[j] = scratch + reflect(y + j, height) * rowLen;
        }
        run(scratch + y * rowLen, w.up, w.dn, w.k, r, rowLen, src + int64_t(y) * stride, vector);
    }
    free(scratch);
}

template void gaussian_2d<float>(float*, int, int, int, int, int, float, bool);
template void gaussian_2d<uint8_t>(uint8_t*, int, int, int, int, int, float, bool);

}  // namespace vo

void generate_gaussian_kernel(float* kernel, int ksize, float sigma) {
    if (!kernel || ksize < 1) return;
    const double s = sigma > 0 ? double(sigma) : ((ksize - 1) * 0.5 - 1) * 0.3 + 0.8;
    const double a = -0.5 / (s * s);
    double sum = 0.0;
    for (int i = 0; i < ksize; ++i) {
        const double x = i - (ksize - 1) * 0.5;
        const double w = std::exp(x * a * x);
        kernel[i] = float(w);
        sum += w;
    }
    const double scale = 1.0 / sum;
    for (int i = 0; i < ksize; ++i) kernel[i] = float(double(kernel[i]) * scale);
}

void gaussian_filter1D(float* src, int n, int channels, int ksize, float sigma, float* dst) {
    filter_1d<float>(src, n, channels, ksize, sigma, dst);
}

void gaussian_filter1D_uint8(uint8_t* src, int n, int channels, int ksize, float sigma, uint8_t* dst) {
    filter_1d<uint8_t>(src, n, channels, ksize, sigma, dst);
}

void gaussian_filter2D(float* src, int width, int height, int channels, int stride, int ksize, float sigma) {
    vo::gaussian_2d<float>(src, width, height, channels, stride, ksize, sigma, true);
}

void gaussian_filter2D_uint8(uint8_t* src, int width, int height, int channels, int stride, int ksize,
                             float sigma) {
    vo::gaussian_2d<uint8_t>(src, width, height, channels, stride, ksize, sigma, true);
}
