// The direct convolution tile and the remainder / batch kernel, written
// once over a vector type V (see conv_direct.h for the layouts and the
// rounding). Included by one source
// file per instruction set; everything here has internal linkage.
#ifndef VONET_KERNELS_CONV_DIRECT_MICRO_H
#define VONET_KERNELS_CONV_DIRECT_MICRO_H

#include <immintrin.h>
#include <stdint.h>
#include <string.h>

#include "kernels/conv_direct.h"

namespace {

// Local (internal linkage): this header is also compiled for AVX-512, and
// a shared standard-library instantiation must not pick up that target.
template <class T>
inline T tile_min(T a, T b) {
    return b < a ? b : a;
}

// Where one tile's rows come from and go to.
struct TileRows {
    int32_t o0;
    const float* w;  // weight (o0, k = 0)
    int64_t kStride;
    int64_t rowStride;
};

// Where the valid lanes of the wide vector at p go: the output index of the
// first valid pixel at or after p, and a bit per valid lane (lanes below
// `lanes` only). Valid pixels are consecutive in the output even where the
// vector wraps over the end of a row, so the lanes are stored compressed.
template <int W>
inline uint32_t valid_lanes(const vo::DirectConv& d, int64_t p, int lanes, int64_t* outIndex) {
    const int64_t y = p / d.wideW, x = p % d.wideW;
    *outIndex = y * d.outW + (x < d.outW ? x : d.outW);
    const uint32_t all = lanes >= 32 ? ~0u : (1u << lanes) - 1u;
    if (x + W <= d.outW) return all;                    // inside one row
    if (x + W <= d.wideW) return ((1u << (x < d.outW ? d.outW - x : 0)) - 1u) & all;  // row end
    uint32_t mask = 0;
    int64_t col = x;
    for (int l = 0; l < lanes; ++l) {
        if (col < d.outW) mask |= 1u << l;
        if (++col == d.wideW) col = 0;
    }
    return mask;
}

// MR rows x NV vectors of wide pixels starting at p0 (a multiple of 8).
// kTail: only `nv` vectors, the last of them with `lanes` lanes.
template <class V, int MR, int NV, bool kTail>
inline void direct_tile(const vo::DirectConv& d, const TileRows& r, int64_t p0, int nv, int lanes) {
    typedef typename V::R R;
    constexpr int W = V::W;
    const typename V::Mask last = V::mask(kTail ? lanes : W);
    R acc[MR][NV];
#pragma GCC unroll 8
    for (int i = 0; i < MR; ++i)
#pragma GCC unroll 8
        for (int j = 0; j < NV; ++j) acc[i][j] = V::zero();
    // Vector j of the tile starts at pixel p0 + j * W.
    const int64_t vs = d.vecStride * (W / 8);
    const float* base = d.in + (p0 / 8) * d.vecStride;
    const float* w = r.w;
    for (int32_t c = 0; c < d.C; ++c) {
        const float* ic = base + c * d.chanStride;
        for (int32_t t = 0; t < d.T; ++t) {
            const float* ip = ic + d.taps[t];
            R x[NV];
#pragma GCC unroll 8
            for (int j = 0; j < NV; ++j) {
                if (!kTail) {
                    x[j] = V::loadu(ip + j * vs);
                } else {
                    x[j] = j < nv - 1 ? V::loadu(ip + j * vs) : j == nv - 1 ? V::maskload(ip + j * vs, last)
                                                                           : V::zero();
                }
            }
#pragma GCC unroll 8
            for (int i = 0; i < MR; ++i) {
                const R wv = V::bcast(w + i * r.rowStride);
#pragma GCC unroll 8
                for (int j = 0; j < NV; ++j) acc[i][j] = V::fma(wv, x[j], acc[i][j]);
            }
            w += r.kStride;
        }
    }
#pragma GCC unroll 8
    for (int i = 0; i < MR; ++i) {
        const int32_t o = r.o0 + i;
        const bool addZero = o < d.Mblk;
        const R b = d.bias ? V::bcast(d.bias + o) : V::zero();
#pragma GCC unroll 8
        for (int j = 0; j < NV; ++j) {
            if (addZero) acc[i][j] = V::add(acc[i][j], V::zero());
            if (d.bias) acc[i][j] = V::add(acc[i][j], b);
        }
    }
    if (d.wideW == d.outW) {
        // Dense output: the wide raster is the output raster.
#pragma GCC unroll 8
        for (int i = 0; i < MR; ++i) {
            float* out = d.out + (r.o0 + i) * d.outStride + p0;
#pragma GCC unroll 8
            for (int j = 0; j < NV; ++j) {
                if (!kTail || j < nv - 1)
                    V::storeu(out + j * W, acc[i][j]);
                else if (j == nv - 1)
                    V::maskstore(out + j * W, last, acc[i][j]);
            }
        }
        return;
    }
#pragma GCC unroll 8
    for (int j = 0; j < NV; ++j) {
        if (kTail && j >= nv) break;
        int64_t at;
        const uint32_t valid = valid_lanes<W>(d, p0 + j * W, kTail && j == nv - 1 ? lanes : W, &at);
#pragma GCC unroll 8
        for (int i = 0; i < MR; ++i) V::compress_store(d.out + (r.o0 + i) * d.outStride + at, valid, acc[i][j]);
    }
}

// One tile row set over the pixels [pBegin, pEnd), pBegin a multiple of W.
template <class V, int MR, int NV>
void direct_rows(const vo::DirectConv& d, const TileRows& r, int64_t pBegin, int64_t pEnd) {
    constexpr int W = V::W;
    int64_t p = pBegin;
    for (; p + NV * W <= pEnd; p += NV * W) direct_tile<V, MR, NV, false>(d, r, p, NV, W);
    if (p < pEnd) {
        const int64_t left = pEnd - p;
        const int nv = int((left + W - 1) / W);
        direct_tile<V, MR, NV, true>(d, r, p, nv, int(left - int64_t(nv - 1) * W));
    }
}

// The whole convolution: pixel blocks that keep their input rows in cache,
// and inside each block every row tile of at most MR rows.
template <class V, int MR, int NV>
void direct_conv_with_tiles(const vo::DirectConv& d) {
    constexpr int W = V::W;
    typedef void (*RowsFn)(const vo::DirectConv&, const TileRows&, int64_t, int64_t);
    static const RowsFn byRows[8] = {direct_rows<V, 1, NV>, direct_rows<V, 2 <= MR ? 2 : 1, NV>,
                                     direct_rows<V, 3 <= MR ? 3 : 1, NV>, direct_rows<V, 4 <= MR ? 4 : 1, NV>,
                                     direct_rows<V, 5 <= MR ? 5 : 1, NV>, direct_rows<V, 6 <= MR ? 6 : 1, NV>,
                                     direct_rows<V, 7 <= MR ? 7 : 1, NV>, direct_rows<V, 8 <= MR ? 8 : 1, NV>};
    const int32_t K = d.C * d.T;
    const int32_t full = d.M / d.MB * d.MB;
    // About 16 KB of output pixels per block and row tile.
    const int64_t block = int64_t(NV) * W * (512 / (NV * W) > 1 ? 512 / (NV * W) : 1);
    for (int64_t pb = 0; pb < d.Nv; pb += block) {
        const int64_t pe = tile_min(d.Nv, pb + block);
        for (int32_t o = 0; o < d.M;) {
            TileRows r;
            r.o0 = o;
            r.w = vo::direct_weight(d.w, d.M, d.MB, K, o);
            int rows;
            if (d.MB > 1 && o < full) {
                rows = tile_min(d.MB - o % d.MB, MR);
                r.kStride = d.MB;
                r.rowStride = 1;
            } else {
                rows = tile_min(d.M - o, MR);
                r.kStride = 1;
                r.rowStride = K;
            }
            byRows[rows - 1](d, r, pb, pe);
            o += rows;
        }
    }
}

// R rows x J pixels (pixels j0 .. j0 + J - 1 of the call) side by side:
// R * J independent chains. Packed: the R rows lie in one interleaved block
// of the weights, so the R weights of one k are adjacent.
template <class V, int R, int J, bool Packed>
void tail_rows(const vo::DirectTail& t, int32_t o0, int32_t j0) {
    typedef typename V::R Vec;
    constexpr int W = V::W;
    const float* w[R];
    int64_t ks[R];
    const int32_t full = t.M / t.MB * t.MB;
#pragma GCC unroll 8
    for (int i = 0; i < R; ++i) {
        w[i] = vo::direct_weight(t.w, t.M, t.MB, t.K, o0 + i);
        ks[i] = (t.MB > 1 && o0 + i < full) ? t.MB : 1;
    }
    const float* block = w[0];
    const int64_t mb = t.MB;
    auto weight = [&](int i, int32_t k) { return Packed ? block + k * mb + i : w[i] + k * ks[i]; };
    const float* b[J];
#pragma GCC unroll 8
    for (int j = 0; j < J; ++j) b[j] = t.b + (j0 + j) * t.bStep;
    // Loop-invariant copies (the compiler cannot tell that the stores below
    // leave `t` alone).
    const int64_t* const koff = t.koff;
    const int32_t K = t.K;
    auto at = [koff](int32_t k) { return koff ? koff[k] : int64_t(k) * W; };
    Vec acc[R][J];
#pragma GCC unroll 8
    for (int i = 0; i < R; ++i)
#pragma GCC unroll 8
        for (int j = 0; j < J; ++j) acc[i][j] = V::zero();
    // Rows of one call are either all below Mblk or all at or above it.
    const bool blockRows = o0 < t.Mblk;
    const bool grouped = blockRows && t.grouped;
    int32_t k = 0;
    if (grouped) {
        for (; k + 4 <= K; k += 4) {
            const int64_t k0 = at(k), k1 = at(k + 1), k2 = at(k + 2), k3 = at(k + 3);
#pragma GCC unroll 8
            for (int j = 0; j < J; ++j) {
                const Vec b0 = V::loadu(b[j] + k0), b1 = V::loadu(b[j] + k1);
                const Vec b2 = V::loadu(b[j] + k2), b3 = V::loadu(b[j] + k3);
#pragma GCC unroll 8
                for (int i = 0; i < R; ++i) {
                    Vec p = V::mul(b1, V::bcast(weight(i, k + 1)));
                    p = V::fma(b0, V::bcast(weight(i, k)), p);
                    p = V::fma(b2, V::bcast(weight(i, k + 2)), p);
                    p = V::fma(b3, V::bcast(weight(i, k + 3)), p);
                    acc[i][j] = V::add(acc[i][j], p);
                }
            }
        }
    }
    for (; k < K; ++k) {
        const int64_t kk = at(k);
        Vec x[J];
#pragma GCC unroll 8
        for (int j = 0; j < J; ++j) x[j] = V::loadu(b[j] + kk);
#pragma GCC unroll 8
        for (int i = 0; i < R; ++i) {
            const Vec wk = V::bcast(weight(i, k));
#pragma GCC unroll 8
            for (int j = 0; j < J; ++j) acc[i][j] = V::fma(x[j], wk, acc[i][j]);
        }
    }
#pragma GCC unroll 8
    for (int i = 0; i < R; ++i) {
        const int32_t o = o0 + i;
#pragma GCC unroll 8
        for (int j = 0; j < J; ++j) {
            Vec v = acc[i][j];
            if (blockRows) v = V::add(V::zero(), v);
            if (t.bias) v = V::add(v, V::bcast(t.bias + o));
            float* out = t.out + o * t.outStride + (j0 + j) * t.outStep;
            if (t.dense) {
                V::storeu(out, v);
                continue;
            }
            float lane[W];
            V::storeu(lane, v);
            for (int l = 0; l < t.lanes; ++l) out[t.pixel[l]] = lane[l];
        }
    }
}

// Rows [o, o + R) for every pixel of the call: plain chains three pixels at
// a time with four rows (12 accumulators) or eight with one row, else one
// pixel at a time.
template <class V, int R, bool Packed>
void tail_pixels(const vo::DirectTail& t, int32_t o) {
    const int32_t pixels = t.pixels;
    int32_t j = 0;
    if (!(o < t.Mblk && t.grouped)) {
        if (R == 4)
            for (; j + 3 <= pixels; j += 3) tail_rows<V, 4, 3, Packed>(t, o, j);
        if (R == 1)
            for (; j + 8 <= pixels; j += 8) tail_rows<V, 1, 8, Packed>(t, o, j);
    }
    for (; j < pixels; ++j) tail_rows<V, R, 1, Packed>(t, o, j);
}

template <class V>
void direct_conv_tail_with(const vo::DirectTail& t) {
    const int32_t full = t.M / t.MB * t.MB;
    for (int32_t o = t.o0; o < t.o1;) {
        // Rows at a time while they stay on one side of Mblk: eight for
        // one pixel (eight chains keep both FMA ports busy), four for runs
        // of plain pixels.
        const int32_t edge = o < t.Mblk ? tile_min(t.Mblk, t.o1) : t.o1;
        const bool plainRun = t.pixels >= 3 && !(o < t.Mblk && t.grouped);
        // Rows [o, o + r) within one interleaved block of the weights.
        auto packed = [&](int32_t r) { return t.MB >= r && o + r <= full && o / t.MB == (o + r - 1) / t.MB; };
        if (o + 8 <= edge && !plainRun) {
            if (packed(8))
                tail_pixels<V, 8, true>(t, o);
            else
                tail_pixels<V, 8, false>(t, o);
            o += 8;
        } else if (o + 4 <= edge) {
            if (packed(4))
                tail_pixels<V, 4, true>(t, o);
            else
                tail_pixels<V, 4, false>(t, o);
            o += 4;
        } else {
            tail_pixels<V, 1, false>(t, o);
            o += 1;
        }
    }
}

}  // namespace

#endif
