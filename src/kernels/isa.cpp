#include "kernels/isa.h"

#include "kernels/conv_int8_direct.h"
#include "kernels/impl.h"
#include "kernels/int8.h"

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>

namespace vo {

#define VO_VECTOR_TABLE(ns)                                                                       \
    ns::mul_scalar, ns::axpy, ns::alpha_multiply_vector_add_beta, ns::max_scalar, ns::min_scalar, \
        ns::add_scalar, ns::abs, ns::set, ns::mul, ns::max, ns::add

#define VO_INT8_TABLE(ns, gemm_ns) \
    ns::quantize_input, ns::anti_quantize_output, gemm_ns::gemm_s8, &gemm_ns::kConv3x3S8

const KernelTable kReferenceKernels = {kIsaReference, "reference", VO_VECTOR_TABLE(ref), ref::gemm,
                                       VO_INT8_TABLE(ref, ref)};
const KernelTable kAvx2Kernels = {kIsaAvx2, "avx2", VO_VECTOR_TABLE(avx2), avx2::gemm, VO_INT8_TABLE(avx2, avx2)};
// The element-wise loops are bound by memory bandwidth: 256-bit vectors
// already saturate it, so only the matrix products have 512-bit paths.
const KernelTable kAvx512Kernels = {kIsaAvx512, "avx512", VO_VECTOR_TABLE(avx2), avx512::gemm,
                                    VO_INT8_TABLE(avx2, avx2)};
const KernelTable kAvx512VnniKernels = {kIsaAvx512Vnni, "avx512vnni", VO_VECTOR_TABLE(avx2), avx512::gemm,
                                        VO_INT8_TABLE(avx2, avx512vnni)};

namespace {

std::once_flag gChooseOnce;
std::atomic<const KernelTable*> gActive{nullptr};

const KernelTable* table_of(Isa isa) {
    switch (isa) {
        case kIsaReference: return &kReferenceKernels;
        case kIsaAvx2: return &kAvx2Kernels;
        case kIsaAvx512: return &kAvx512Kernels;
        case kIsaAvx512Vnni: return &kAvx512VnniKernels;
        default: return nullptr;
    }
}

void choose() {
    Isa best = kIsaReference;
    for (int i = 0; i < kIsaCount; ++i)
        if (isa_supported(Isa(i))) best = Isa(i);
    if (const char* env = getenv("VONET_ISA")) {
        int wanted = parse_isa(env);
        // An unknown or unsupported request falls back to the best path:
        // the results are the same, only the speed differs.
        if (wanted >= 0 && isa_supported(Isa(wanted)))
            best = Isa(wanted);
        else
            fprintf(stderr, "vonet: VONET_ISA=%s is not available on this CPU; using %s\n", env, isa_name(best));
    }
    gActive.store(table_of(best), std::memory_order_release);
}

}  // namespace

bool isa_supported(Isa isa) {
    switch (isa) {
        case kIsaReference: return true;
        case kIsaAvx2: return __builtin_cpu_supports("avx2") && __builtin_cpu_supports("fma");
        case kIsaAvx512:
            return isa_supported(kIsaAvx2) && __builtin_cpu_supports("avx512f");
        case kIsaAvx512Vnni:
            return isa_supported(kIsaAvx512) && __builtin_cpu_supports("avx512bw") &&
                   __builtin_cpu_supports("avx512vl") && __builtin_cpu_supports("avx512vnni");
        default: return false;
    }
}

const char* isa_name(Isa isa) {
    const KernelTable* t = table_of(isa);
    return t ? t->name : "unknown";
}

int parse_isa(const char* text) {
    if (!text) return -1;
    for (int i = 0; i < kIsaCount; ++i)
        if (strcmp(text, table_of(Isa(i))->name) == 0) return i;
    return -1;
}

const KernelTable& kernels() {
    std::call_once(gChooseOnce, choose);
    return *gActive.load(std::memory_order_acquire);
}

Isa set_isa_for_testing(Isa isa) {
    Isa previous = kernels().isa;
    if (isa_supported(isa)) gActive.store(table_of(isa), std::memory_order_release);
    return previous;
}

}  // namespace vo
