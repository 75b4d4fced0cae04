// The float matrix product: public entry points and the blocked driver.
#include <vonet/kernels.h>

#include <immintrin.h>

#include <algorithm>
#include <cstdint>
#include <cstring>

#include "kernels/gemm.h"
#include "kernels/gemm_internal.h"
#include "kernels/isa.h"
#include "kernels/scratch.h"

namespace vo {

int gemm_checked(int transA, int transB, int M, int N, int K, float alpha, const float* A, const float* B, float beta,
                 float* C) {
    if (M <= 0 || N <= 0) return 0;
    if (K < 0) K = 0;
    return kernels().gemm(transA, transB, M, N, K, alpha, A, B, beta, C);
}

namespace {

// Packs rows [row0, row0 + rows) of op(A), k in [k0, k0 + kc), as an
// MR-row panel a[k * MR + i]; missing rows are zero. alpha scales the
// packed copy (one rounding per element, as a separate pass would).
template <bool kScale>
void pack_a_rows(float* dst, int mr, int transA, int M, int K, const float* A, int row0, int rows, int k0, int kc,
                 float alpha) {
    if (transA == 1) {
        // Stored K x M: each k gives `rows` consecutive values.
        const float* s = A + int64_t(k0) * M + row0;
        for (int k = 0; k < kc; ++k, s += M, dst += mr)
            for (int i = 0; i < rows; ++i) dst[i] = kScale ? alpha * s[i] : s[i];
        return;
    }
    // Stored M x K: `rows` streams read side by side, writes in order.
    const float* s = A + int64_t(row0) * K + k0;
    for (int k = 0; k < kc; ++k, dst += mr)
        for (int i = 0; i < rows; ++i) dst[i] = kScale ? alpha * s[int64_t(i) * K + k] : s[int64_t(i) * K + k];
}

void pack_a_panel(float* dst, int mr, int transA, int M, int K, const float* A, int row0, int rows, int k0, int kc,
                  float alpha) {
    if (rows < mr) memset(dst, 0, sizeof(float) * size_t(mr) * size_t(kc));
    if (alpha != 1.0f) pack_a_rows<true>(dst, mr, transA, M, K, A, row0, rows, k0, kc, alpha);
    else pack_a_rows<false>(dst, mr, transA, M, K, A, row0, rows, k0, kc, alpha);
}

// Packs columns [col0, col0 + nc) of op(B), k in [k0, k0 + kc), as panels
// of nr columns, b[k * nr + j] each (panel p at dst + p * kc * nr); columns
// past N are zero. Panel by panel, so that each panel's reads form a few
// regular streams the hardware prefetches well.
void pack_b_block(float* dst, int nr, int transB, int N, int K, const float* B, int col0, int nc, int k0, int kc) {
    const int panels = (nc + nr - 1) / nr;
    for (int p = 0; p < panels; ++p) {
        const int c0 = col0 + p * nr;
        const int cols = std::min(nr, N - c0);
        float* d = dst + int64_t(p) * kc * nr;
        if (transB == 1) {
            if (cols < nr)
                for (int k = 0; k < kc; ++k) memset(d + int64_t(k) * nr + cols, 0, sizeof(float) * size_t(nr - cols));
            for (int j = 0; j < cols; ++j) {
                const float* s = B + int64_t(c0 + j) * K + k0;
                for (int k = 0; k < kc; ++k) d[int64_t(k) * nr + j] = s[k];
            }
            continue;
        }
        const float* s = B + int64_t(k0) * N + c0;
        if (cols == nr) {
            for (int k = 0; k < kc; ++k, s += N, d += nr) {
                _mm_prefetch(reinterpret_cast<const char*>(s + 8 * int64_t(N)), _MM_HINT_T0);
                for (int t = 0; t < nr; t += 8) _mm256_store_ps(d + t, _mm256_loadu_ps(s + t));
            }
        } else {
            for (int k = 0; k < kc; ++k, s += N, d += nr) {
                memcpy(d, s, sizeof(float) * size_t(cols));
                memset(d + cols, 0, sizeof(float) * size_t(nr - cols));
            }
        }
    }
}

// Runs a tile that may extend past the valid rows or columns through a
// local copy, so that nothing outside C is read or written.
void run_tile(const GemmPlan& plan, int kc, const float* a, const float* b, float* c, int64_t ldc, int rows,
              int cols, int start, int end) {
    if (rows == plan.mr && cols == plan.nr) {
        plan.tile(kc, a, b, c, ldc, start, end);
        return;
    }
    alignas(64) float local[16 * 64];
    const int nr = plan.nr;
    memset(local, 0, sizeof(float) * size_t(plan.mr) * size_t(nr));
    if (start == kStartLoad || end == kEndAdd)
        for (int i = 0; i < rows; ++i) memcpy(local + i * nr, c + i * ldc, sizeof(float) * size_t(cols));
    plan.tile(kc, a, b, local, nr, start, end);
    for (int i = 0; i < rows; ++i) memcpy(c + i * ldc, local + i * nr, sizeof(float) * size_t(cols));
}

}  // namespace

int gemm_blocked(const GemmPlan& plan, int transA, int transB, int M, int N, int K, float alpha, const float* A,
                 const float* B, float beta, float* C) {
    if (M <= 0 || N <= 0) return 0;
    const int mr = plan.mr, nr = plan.nr;
    const int M4 = M & ~3, N8 = N & ~7;
    const int64_t MN = int64_t(M) * N;

    if (K <= 0) {
        // No products: block rows still add their +0.0 accumulator, which
        // turns a prior -0.0 into +0.0; the last rows keep the prior C.
        if (beta == 0.0f) {
            memset(C, 0, sizeof(float) * size_t(MN));
            return 0;
        }
        for (int64_t i = 0; i < MN; ++i) C[i] = beta * C[i];
        for (int64_t i = 0; i < int64_t(M4) * N; ++i) C[i] = C[i] + 0.0f;
        return 0;
    }

    // Carrying running sums in C needs a zero prior C; otherwise C holds the
    // scaled prior value and the whole k range runs in one block.
    const bool blockK = beta == 0.0f && K > plan.kc;
    const int KC = blockK ? plan.kc : K;
    int NC = plan.nc;
    if (!blockK) {
        // Keep the packed B block near the size the plan intended.
        int64_t cap = int64_t(plan.kc) * plan.nc / KC;
        NC = int(std::max<int64_t>(nr, cap / nr * nr));
    }
    NC = int(std::min<int64_t>(NC, (int64_t(N) + nr - 1) / nr * nr));
    const int blockPanels = (M4 + mr - 1) / mr;
    const int panels = blockPanels + (M > M4 ? 1 : 0);
    // A k range longer than planned gets proportionally fewer A panels.
    const int mcPanels = std::min<int64_t>(std::max<int64_t>(1, int64_t(plan.mcPanels) * plan.kc / KC), panels);

    float* packB = scratch_floats(kScratchPackB, size_t(KC) * size_t(NC));
    float* packA = packB ? scratch_floats(kScratchPackA, size_t(KC) * size_t(mr) * size_t(mcPanels)) : nullptr;
    if (!packA || !packB) return 5;

    // The prior C: cleared, or scaled by beta.
    if (beta == 0.0f) {
        if (!blockK) memset(C, 0, sizeof(float) * size_t(MN));
        else if (M > M4) memset(C + int64_t(M4) * N, 0, sizeof(float) * size_t(int64_t(M - M4) * N));
    } else {
        for (int64_t i = 0; i < MN; i += INT32_MAX / 2)
            kernels().mul_scalar(C + i, int32_t(std::min<int64_t>(MN - i, INT32_MAX / 2)), beta);
    }

    for (int jc = 0; jc < N; jc += NC) {
        const int nc = std::min(NC, N - jc);
        const int colPanels = (nc + nr - 1) / nr;
        for (int pc = 0; pc < K; pc += KC) {
            const int kc = std::min(KC, K - pc);
            const bool first = pc == 0, last = pc + kc == K;
            const int start = first ? kStartZero : kStartLoad;
            const int end = !last ? kEndStore : (first ? kEndAdd : kEndAddZero);
            // Untransposed B is packed panel by panel inside the first A
            // chunk, fused into its first tile where that tile is whole.
            const bool packLater = transB != 1;
            if (!packLater) pack_b_block(packB, nr, transB, N, K, B, jc, nc, pc, kc);

            for (int p0 = 0; p0 < panels; p0 += mcPanels) {
                const int pn = std::min(mcPanels, panels - p0);
                for (int p = 0; p < pn; ++p) {
                    const int panel = p0 + p;
                    const int row0 = panel * mr;
                    const int rows = panel < blockPanels ? std::min(mr, M4 - row0) : M - M4;
                    pack_a_panel(packA + int64_t(p) * kc * mr, mr, transA, M, K, A,
                                 panel < blockPanels ? row0 : M4, rows, pc, kc, alpha);
                }
                for (int j = 0; j < colPanels; ++j) {
                    const int col0 = jc + j * nr;
                    float* bp = packB + int64_t(j) * kc * nr;
                    const int mainEnd = std::min(std::min(col0 + nr, jc + nc), N8);
                    bool fuse = false;
                    if (packLater && p0 == 0) {
                        fuse = blockPanels > 0 && M4 >= mr && mainEnd - col0 == nr;
                        if (!fuse) pack_b_block(bp, nr, transB, N, K, B, col0, std::min(nr, jc + nc - col0), pc, kc);
                    }
                    for (int p = 0; p < pn; ++p) {
                        const int panel = p0 + p;
                        const float* ap = packA + int64_t(p) * kc * mr;
                        if (panel < blockPanels) {
                            const int row0 = panel * mr;
                            const int rows = std::min(mr, M4 - row0);
                            float* c = C + int64_t(row0) * N;
                            if (fuse && p == 0)
                                plan.tilePack(kc, ap, B + int64_t(pc) * N + col0, N, bp, c + col0, N, start, end);
                            else if (mainEnd > col0)
                                run_tile(plan, kc, ap, bp, c + col0, N, rows, mainEnd - col0, start, end);
                            if (N8 < N && N8 >= col0 && N8 < col0 + nr)
                                plan.grouped(kc, ap, rows, bp + (N8 - col0), nr, c + N8, N, N - N8, start, end);
                        } else {
                            // The last M mod 4 rows: C already holds the prior
                            // value and every product fuses straight into it.
                            const int colEnd = std::min(col0 + nr, jc + nc);
                            run_tile(plan, kc, ap, bp, C + int64_t(M4) * N + col0, N, M - M4, colEnd - col0,
                                     kStartLoad, kEndStore);
                        }
                    }
                }
            }
        }
    }
    return 0;
}

}  // namespace vo

void matrix_multiply(int transA, int transB, int M, int N, int K, float alpha, const float* A, const float* B,
                     float beta, float* C) {
    // Without working memory C is left unchanged; layers call the checked
    // form and report status 5.
    (void)vo::gemm_checked(transA, transB, M, N, K, alpha, A, B, beta, C);
}

void vo_gemm(int transA, int transB, int M, int N, int K, float alpha, const float* A, const float* B, float beta,
             float* C) {
    matrix_multiply(transA, transB, M, N, K, alpha, A, B, beta, C);
}

int vo_gpu_gemm(int, int, int, int, int, float, const float*, const float*, float, float*) { return 0; }
