// The blocked float matrix product shared by the vector paths.
//
// Every output element keeps the rounding sequence of the plain algorithm
// (see the notes on exactness): rows inside 4-row blocks accumulate from
// +0.0 and add the prior C once at the end; their last N mod 8 columns
// accumulate in groups of four k; the last M mod 4 rows fuse every product
// straight into C. Within that, the work is packed into panels, blocked for
// the caches and run by a register-blocked micro-kernel. A running value
// carried between k blocks is stored as a float in C, which loses nothing.
#ifndef VONET_KERNELS_GEMM_INTERNAL_H
#define VONET_KERNELS_GEMM_INTERNAL_H

#include <stdint.h>

namespace vo {

// How a tile's accumulators start and how they leave.
enum TileStart { kStartZero = 0, kStartLoad = 1 };
enum TileEnd {
    kEndStore = 0,    // C = acc (running value, or the last rows' final value)
    kEndAdd = 1,      // C = fl(C + acc): C holds the scaled prior C
    kEndAddZero = 2,  // C = fl(acc + 0.0): the prior C was zero and C held acc
};

// An MR x NR tile: c(i, j) at c[i * ldc + j]. `a` is a packed A panel
// (a[k * MR + i]), `b` a packed B panel (b[k * NR + j], 64-byte aligned).
typedef void (*TileKernel)(int kc, const float* a, const float* b, float* c, int64_t ldc, int start, int end);
// The same reading B from its source rows (b[k * ldb + j]) and storing the
// packed panel (64-byte aligned) as it goes.
typedef void (*TilePackKernel)(int kc, const float* a, const float* b, int64_t ldb, float* packed, float* c,
                               int64_t ldc, int start, int end);

// The grouped form of the last N mod 8 columns of block rows: `rows` rows of
// an MR-row A panel against 8 columns of a B panel (b[k * ldb + j], j < 8);
// `cols` (1..7) of them are stored.
typedef void (*GroupedKernel)(int kc, const float* a, int rows, const float* b, int64_t ldb, float* c, int64_t ldc,
                              int cols, int start, int end);

struct GemmPlan {
    int mr, nr;          // micro tile
    int kc;              // k block, a multiple of 4
    int mcPanels;        // A panels per packed A block
    int nc;              // columns per packed B block, a multiple of nr
    TileKernel tile;
    TilePackKernel tilePack;
    GroupedKernel grouped;
};

int gemm_blocked(const GemmPlan& plan, int transA, int transB, int M, int N, int K, float alpha, const float* A,
                 const float* B, float beta, float* C);

}  // namespace vo

#endif
