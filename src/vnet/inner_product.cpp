// Inner product layer, float path: one matrix product for the whole batch,
// then the bias as a rank-1 update.
#include <vonet/inner_product.h>
#include <vonet/kernels.h>

#include <cstdlib>

#include "common/check.h"
#include "common/record_io.h"
#include "kernels/gemm.h"
#include "vnet/layer_registry.h"
#include "vnet/tensor_internal.h"

namespace {

constexpr const char* kUnit = "vnet/inner_product";
constexpr const char* kLoad = "load_inner_product";

// Reads the record into `fc`; on failure the caller releases it.
int read_inner_product(FILE* stream, InnerProduct* fc) {
    if (!vo::read_fields(stream, kUnit, kLoad, &fc->hasBias, &fc->quantized, &fc->inputDim, &fc->outputDim)) return 4;
    VO_CHECK_IN(kLoad, fc->quantized <= 1, return 4);
    VO_CHECK_IN(kLoad, fc->hasBias <= 1, return 4);
    VO_CHECK_IN(kLoad, fc->inputDim > 0 && fc->outputDim > 0, return 4);
    int64_t count = vo::checked_count(1, 1, fc->inputDim, fc->outputDim);
    VO_CHECK_IN(kLoad, count >= 0, return 4);
    // Everything the record claims must be in the file before anything is
    // allocated: two scales and one byte per weight, or one float per weight.
    const int64_t weightBytes = fc->quantized ? 2 * int64_t(sizeof(float)) + count : count * int64_t(sizeof(float));
    if (!vo::file_holds(stream, weightBytes, 1, kUnit, kLoad, "ret == fc->inputDim * fc->outputDim")) return 4;
    if (fc->hasBias && !vo::file_holds(stream, weightBytes + int64_t(fc->outputDim) * int64_t(sizeof(float)), 1,
                                       kUnit, kLoad, "ret == fc->outputDim"))
        return 4;

    VO_CHECK_IN(kLoad, vo::reshape_tensor_checked(&fc->weights, 1, 1, fc->inputDim, fc->outputDim) == 0, return 4);
    if (fc->quantized) {
        if (!vo::read_fields(stream, kUnit, kLoad, &fc->inputScale, &fc->weightScale) ||
            !vo::read_values(stream, reinterpret_cast<int8_t*>(fc->weights->data), count, kUnit, kLoad,
                             "ret == fc->inputDim * fc->outputDim"))
            return 4;
    } else if (!vo::read_values(stream, fc->weights->data, count, kUnit, kLoad,
                                "ret == fc->inputDim * fc->outputDim")) {
        return 4;
    }
    if (fc->hasBias) {
        VO_CHECK_IN(kLoad, vo::reshape_tensor_checked(&fc->bias, 1, 1, 1, fc->outputDim) == 0, return 4);
        if (!vo::read_values(stream, fc->bias->data, fc->outputDim, kUnit, kLoad, "ret == fc->outputDim")) return 4;
    }
    return 0;
}

// The record and the tensors fit together; 5 (7 for a record without
// weights) otherwise.
int check_shapes(const InnerProduct* fc, const Tensor* src, const char* op) {
    VO_CHECK_IN(op, fc->weights != nullptr && fc->weights->capacity == int64_t(fc->inputDim) * fc->outputDim,
                return 7);
    if (int64_t(src->width) * src->height * src->channel != fc->inputDim) {
        vo::check_failed(kUnit, op, "src->width * src->height * src->channel == fc->inputDim");
        return 5;
    }
    return 0;
}

// Quantise the batch, one 8-bit product for all of it, dequantise.
int forward_int8(const InnerProduct* fc, const Tensor* src, Tensor* dst, ForwardParams* params) {
    VO_CHECK_IN("forward_inner_product", params != nullptr, return 7);
    const int64_t products = int64_t(src->num) * fc->outputDim;
    // The scratch only grows; it is already large enough after a reshape.
    if (vo::ensure_scratch_bytes(&params->inputBuffer, src->capacity) ||
        vo::ensure_scratch_bytes(&params->columnBuffer, products * int64_t(sizeof(int32_t))))
        return 5;
    auto* quantized = reinterpret_cast<int8_t*>(params->inputBuffer->data);
    auto* sums = reinterpret_cast<int32_t*>(params->columnBuffer->data);
    quantize_input(src->data, src->capacity, quantized, fc->inputScale);
    matrix_multiply_s8(src->num, fc->outputDim, fc->inputDim, quantized,
                       reinterpret_cast<const int8_t*>(fc->weights->data), sums);
    anti_quantize_output(sums, int(products), dst->data, 1.0f / (fc->inputScale * fc->weightScale), 0.0f);
    return 0;
}

}  // namespace

InnerProduct* create_inner_product() { return static_cast<InnerProduct*>(calloc(1, sizeof(InnerProduct))); }

int load_inner_product(FILE* stream, void** result) {
    return vo::load_record<InnerProduct, create_inner_product, read_inner_product, release_inner_product>(
        stream, result, kUnit, __func__, "fc != nullptr");
}

int save_inner_product(FILE* stream, InnerProduct* fc) {
    if (!stream || !fc) return 4;
    VO_CHECK(fc->weights != nullptr && fc->weights->capacity == int64_t(fc->inputDim) * fc->outputDim, return 7);
    VO_CHECK(!fc->hasBias || (fc->bias != nullptr && fc->bias->capacity == fc->outputDim), return 7);
    if (!vo::write_fields(stream, kUnit, __func__, fc->hasBias, fc->quantized, fc->inputDim, fc->outputDim))
        return 4;
    if (fc->quantized) {
        if (!vo::write_fields(stream, kUnit, __func__, fc->inputScale, fc->weightScale) ||
            !vo::write_values(stream, reinterpret_cast<const int8_t*>(fc->weights->data), fc->weights->capacity,
                              kUnit, __func__, "ret == fc->inputDim * fc->outputDim"))
            return 4;
    } else if (!vo::write_values(stream, fc->weights->data, fc->weights->capacity, kUnit, __func__,
                                 "ret == fc->inputDim * fc->outputDim")) {
        return 4;
    }
    if (
        (fc->hasBias &&
         !vo::write_values(stream, fc->bias->data, fc->outputDim, kUnit, __func__, "ret == fc->outputDim")))
        return 4;
    return 0;
}

int reshape_inner_product(InnerProduct* fc, Tensor** inputs, int inputCount, Tensor** outputs, int outputCount,
                          ForwardParams* params) {
    if (!fc || !inputs || !outputs || inputCount != 1 || outputCount != 1) return 7;
    Tensor* src = inputs[0];
    if (!src) return 5;
    // Checked before anything is resized, so a refused shape leaves the
    // output as it was.
    if (int status = check_shapes(fc, src, __func__)) return status;
    VO_CHECK(vo::checked_count(src->num, fc->outputDim, 1, 1) >= 0, return 5);
    if (vo::reshape_tensor_checked(&outputs[0], src->num, fc->outputDim, 1, 1) ||
        vo::reshape_tensor_checked(&fc->biasMultiplier, outputs[0]->num, 1, 1, 1))
        return 5;
    vo_set(fc->biasMultiplier->data, fc->biasMultiplier->capacity, 1.0f);
    // The int8 path keeps the quantised input and the 32-bit products in
    // the net's scratch.
    if (fc->quantized && params &&
        (vo::reshape_tensor_checked(&params->columnBuffer, src->num, fc->outputDim, 1, 1) ||
         vo::reshape_tensor_checked(&params->inputBuffer, src->num, src->channel, src->height, src->width)))
        return 5;
    return 0;
}

int forward_inner_product(InnerProduct* fc, Tensor** inputs, int inputCount, Tensor** outputs, int outputCount,
                          ForwardParams* params) {
    if (!fc || !inputs || !outputs || inputCount != 1 || outputCount != 1) return 7;
    Tensor* src = inputs[0];
    Tensor* dst = outputs[0];
    if (!src || !dst) return 5;
    if (int status = check_shapes(fc, src, __func__)) return status;
    // Another layer may have reshaped a shared tensor since this layer's
    // reshape: never write past what the buffers hold.
    VO_CHECK(dst->num == src->num && dst->channel == fc->outputDim && dst->height == 1 && dst->width == 1,
             return 5);
    const int32_t B = src->num;
    if (B < 1) return 0;
    if (fc->quantized) {
        if (int status = forward_int8(fc, src, dst, params)) return status;
    } else if (int status = vo::gemm_checked(0, 0, B, fc->outputDim, fc->inputDim, 1.0f, src->data,
                                             fc->weights->data, 0.0f, dst->data)) {
        return status;
    }
    if (fc->hasBias) {
        VO_CHECK(fc->bias && fc->bias->capacity == fc->outputDim, return 7);
        VO_CHECK(fc->biasMultiplier && fc->biasMultiplier->capacity >= B, return 5);
        // Every row gains the bias: ones (B x 1) times bias (1 x outputDim).
        return vo::gemm_checked(0, 0, B, fc->outputDim, 1, 1.0f, fc->biasMultiplier->data, fc->bias->data, 1.0f,
                                dst->data);
    }
    return 0;
}

void release_inner_product_data(InnerProduct* fc) {
    if (!fc) return;
    release_tensor(&fc->weights);
    release_tensor(&fc->bias);
    release_tensor(&fc->biasMultiplier);
}

void release_inner_product(InnerProduct** fc) {
    if (!fc || !*fc) return;
    release_inner_product_data(*fc);
    free(*fc);
    *fc = nullptr;
}

void get_info_inner_product(InnerProduct* fc, char* text) {
    if (!text) return;
    if (!fc) {
        snprintf(text, 128, "InnerProduct");
        return;
    }
    snprintf(text, 128, "InnerProduct: %d %d %d", fc->inputDim, fc->outputDim, int(fc->hasBias));
}

int forward_inner_product_gpu(InnerProduct*, Tensor**, int, Tensor**, int, ForwardParams*) { return 1; }

namespace vo {
const LayerOps kInnerProductOps =
    make_layer_ops<InnerProduct, forward_inner_product, reshape_inner_product, save_inner_product,
                   release_inner_product, get_info_inner_product, load_inner_product>();
}  // namespace vo
