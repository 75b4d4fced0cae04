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
    // The int8 record is read by the int8 path, which this build does not have.
    VO_CHECK_IN(kLoad, fc->quantized == 0, return 4);
    VO_CHECK_IN(kLoad, fc->hasBias <= 1, return 4);
    VO_CHECK_IN(kLoad, fc->inputDim > 0 && fc->outputDim > 0, return 4);
    int64_t count = vo::checked_count(1, 1, fc->inputDim, fc->outputDim);
    VO_CHECK_IN(kLoad, count >= 0, return 4);
    if (!vo::file_holds(stream, count, sizeof(float), kUnit, kLoad, "ret == fc->inputDim * fc->outputDim")) return 4;
    if (fc->hasBias &&
        !vo::file_holds(stream, count + fc->outputDim, sizeof(float), kUnit, kLoad, "ret == fc->outputDim"))
        return 4;

    VO_CHECK_IN(kLoad, vo::reshape_tensor_checked(&fc->weights, 1, 1, fc->inputDim, fc->outputDim) == 0, return 4);
    if (!vo::read_values(stream, fc->weights->data, count, kUnit, kLoad, "ret == fc->inputDim * fc->outputDim"))
        return 4;
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
    // Writing the int8 record belongs to the int8 path, not built here.
    VO_CHECK(fc->quantized == 0, return 4);
    if (!vo::write_fields(stream, kUnit, __func__, fc->hasBias, fc->quantized, fc->inputDim, fc->outputDim) ||
        !vo::write_values(stream, fc->weights->data, fc->weights->capacity, kUnit, __func__,
                          "ret == fc->inputDim * fc->outputDim") ||
        (fc->hasBias &&
         !vo::write_values(stream, fc->bias->data, fc->outputDim, kUnit, __func__, "ret == fc->outputDim")))
        return 4;
    return 0;
}

int reshape_inner_product(InnerProduct* fc, Tensor** inputs, int inputCount, Tensor** outputs, int outputCount,
                          ForwardParams*) {
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
    return 0;
}

int forward_inner_product(InnerProduct* fc, Tensor** inputs, int inputCount, Tensor** outputs, int outputCount,
                          ForwardParams*) {
    if (!fc || !inputs || !outputs || inputCount != 1 || outputCount != 1) return 7;
    Tensor* src = inputs[0];
    Tensor* dst = outputs[0];
    if (!src || !dst) return 5;
    if (int status = check_shapes(fc, src, __func__)) return status;
    // Another layer may have reshaped a shared tensor since this layer's
    // reshape: never write past what the buffers hold.
    VO_CHECK(dst->num == src->num && dst->channel == fc->outputDim && dst->height == 1 && dst->width == 1,
             return 5);
    // The int8 path is not built; such a record never comes from a file.
    VO_CHECK(fc->quantized == 0, return 7);
    const int32_t B = src->num;
    if (B < 1) return 0;
    if (int status = vo::gemm_checked(0, 0, B, fc->outputDim, fc->inputDim, 1.0f, src->data, fc->weights->data, 0.0f,
                                      dst->data))
        return status;
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
