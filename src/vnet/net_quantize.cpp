// Whole-net int8 conversion: symmetric linear quantisation to -127 .. 127
// with truncation toward zero, one scale per activation tensor (from the
// 99.9th percentile of its magnitudes on one calibration input), one per
// output channel of a convolution and one per inner product matrix.
#include <vonet/kernels.h>
#include <vonet/net_quantize.h>

#include <cmath>
#include <cstdlib>
#include <cstring>

#include "common/check.h"
#include "vnet/net_quantize_internal.h"
#include "vnet/tensor_internal.h"

namespace {

constexpr const char* kUnit = "vnet/quantize";

using vo::QuantizeOutcome;

// The magnitude at index trunc(count * 0.999) of the ascending-sorted |x|.
// A zero, NaN or infinite percentile, or one whose scale 127 / p is not
// finite, leaves the layer in float.
QuantizeOutcome input_scale(const Tensor* input, float* percentile, float* scale) {
    const int32_t count = input ? input->capacity : 0;
    if (count <= 0 || !input->data) return QuantizeOutcome::NoInputValues;
    float* magnitudes = static_cast<float*>(malloc(size_t(count) * sizeof(float)));
    if (!magnitudes) return QuantizeOutcome::OutOfMemory;
    for (int32_t i = 0; i < count; ++i) magnitudes[i] = std::fabs(input->data[i]);
    sort_arr_dtype(magnitudes, count);
    // The product in double: 1000 values give index 999, 10000 give 9990.
    const int64_t index = int64_t(double(count) * 0.999);
    *percentile = magnitudes[index];
    free(magnitudes);
    if (std::isnan(*percentile) || std::isinf(*percentile)) return QuantizeOutcome::NonFinitePercentile;
    if (*percentile == 0.0f) return QuantizeOutcome::ZeroPercentile;
    *scale = 127.0f / *percentile;
    if (std::isinf(*scale)) return QuantizeOutcome::NonFiniteInputScale;
    return QuantizeOutcome::Converted;
}

// trunc(scale * w) as a byte. For a finite scale 127 / max|w| the product
// lies within -127 .. 127 already; an all-zero channel has scale +inf and
// gives inf * 0 = NaN, which becomes 0 (a float-to-int conversion of NaN
// would be undefined).
int8_t weight_byte(float scale, float w) {
    const float p = scale * w;
    if (std::isnan(p)) return 0;
    if (p >= 127.0f) return 127;
    if (p <= -127.0f) return -127;
    return int8_t(p);
}

// Largest |w| of `count` weights (a running maximum from 0; NaN never
// wins a comparison), then 127 / that maximum (+inf for no weights or all
// zeros), then each weight overwritten in place by its byte. Bytes are
// written from the front and never overtake the floats still to be read.
float quantize_weights(const float* weights, int64_t count, int8_t* bytes) {
    float largest = 0.0f;
    for (int64_t j = 0; j < count; ++j) {
        const float m = std::fabs(weights[j]);
        if (m > largest) largest = m;
    }
    const float scale = 127.0f / largest;
    for (int64_t j = 0; j < count; ++j) bytes[j] = weight_byte(scale, weights[j]);
    return scale;
}

void note_weight_scale(vo::LayerQuantizeReport* report, float scale) {
    ++report->weightChannels;
    if (std::isinf(scale)) {
        ++report->zeroChannels;
        return;
    }
    const bool first = report->weightChannels - report->zeroChannels == 1;
    if (first || scale < report->minWeightScale) report->minWeightScale = scale;
    if (first || scale > report->maxWeightScale) report->maxWeightScale = scale;
}

// Resizes a scratch tensor to (num, like's channel, height, width) unless it
// already holds at least that many elements: a later layer may rely on the
// size its own reshape gave the shared scratch.
int grow_scratch(Tensor** slot, int64_t num, const Tensor* like) {
    const int64_t count = vo::checked_count(num, like->channel, like->height, like->width);
    if (count < 0) return 5;
    if (*slot && (*slot)->data && (*slot)->capacity >= count && (*slot)->capacity <= (*slot)->allocCount) return 0;
    return vo::reshape_tensor_checked(slot, num, like->channel, like->height, like->width);
}

bool layer_has_tensors(const Layer* l) {
    return l->runParams && l->isize >= 1 && l->inputs && l->inputs[0] && l->osize >= 1 && l->outputs &&
           l->outputs[0];
}

}  // namespace

namespace vo {

const char* quantize_outcome_text(QuantizeOutcome outcome) {
    switch (outcome) {
        case QuantizeOutcome::Converted:
            return "converted";
        case QuantizeOutcome::AlreadyInt8:
            return "already int8";
        case QuantizeOutcome::Kernel1x1:
            return "1x1 kernel";
        case QuantizeOutcome::NoInputValues:
            return "empty calibration input";
        case QuantizeOutcome::ZeroPercentile:
            return "99.9th-percentile input magnitude is 0";
        case QuantizeOutcome::NonFinitePercentile:
            return "99.9th-percentile input magnitude is not finite";
        case QuantizeOutcome::NonFiniteInputScale:
            return "input scale 127 / percentile is not finite";
        case QuantizeOutcome::BadRecord:
            return "weights missing or inconsistent";
        case QuantizeOutcome::OutOfMemory:
            return "out of memory";
    }
    return "unknown";
}

QuantizeOutcome quantize_conv_layer(Convolution* conv, const Tensor* input, LayerQuantizeReport* report) {
    LayerQuantizeReport scratch;
    if (!report) report = &scratch;
    if (!conv) return report->outcome = QuantizeOutcome::BadRecord;
    if (conv->quantized) {
        report->inputScale = conv->inputScale;
        return report->outcome = QuantizeOutcome::AlreadyInt8;
    }
    Tensor* weights = conv->weights;
    if (!weights || !weights->data || weights->num < 1 ||
        weights->capacity != checked_count(weights->num, weights->channel, weights->height, weights->width))
        return report->outcome = QuantizeOutcome::BadRecord;
    if (weights->height == 1 && weights->width == 1) return report->outcome = QuantizeOutcome::Kernel1x1;

    float scale = 0.0f;
    QuantizeOutcome outcome = input_scale(input, &report->percentile, &scale);
    if (outcome != QuantizeOutcome::Converted) return report->outcome = outcome;
    const int32_t M = weights->num;
    float* weightScales = static_cast<float*>(malloc(size_t(M) * sizeof(float)));
    float* dequantScales = static_cast<float*>(malloc(size_t(M) * sizeof(float)));
    if (!weightScales || !dequantScales) {
        free(weightScales);
        free(dequantScales);
        return report->outcome = QuantizeOutcome::OutOfMemory;
    }
    const int64_t P = int64_t(weights->channel) * weights->height * weights->width;
    auto* bytes = reinterpret_cast<int8_t*>(weights->data);
    for (int32_t o = 0; o < M; ++o) {
        weightScales[o] = quantize_weights(weights->data + P * o, P, bytes + P * o);
        // Single precision, as a quantised record's loader computes it, so
        // that a saved and reloaded net runs the same bits.
        dequantScales[o] = 1.0f / (scale * weightScales[o]);
        note_weight_scale(report, weightScales[o]);
    }
    free(conv->weightScales);
    free(conv->dequantScales);
    conv->weightScales = weightScales;
    conv->dequantScales = dequantScales;
    conv->inputScale = scale;
    conv->quantized = 1;
    report->inputScale = scale;
    return report->outcome = QuantizeOutcome::Converted;
}

QuantizeOutcome quantize_inner_product_layer(InnerProduct* fc, const Tensor* input, LayerQuantizeReport* report) {
    LayerQuantizeReport scratch;
    if (!report) report = &scratch;
    if (!fc) return report->outcome = QuantizeOutcome::BadRecord;
    if (fc->quantized) {
        report->inputScale = fc->inputScale;
        return report->outcome = QuantizeOutcome::AlreadyInt8;
    }
    Tensor* weights = fc->weights;
    if (!weights || !weights->data || weights->capacity != checked_count(1, 1, fc->inputDim, fc->outputDim))
        return report->outcome = QuantizeOutcome::BadRecord;

    float scale = 0.0f;
    QuantizeOutcome outcome = input_scale(input, &report->percentile, &scale);
    if (outcome != QuantizeOutcome::Converted) return report->outcome = outcome;
    fc->weightScale = quantize_weights(weights->data, weights->capacity, reinterpret_cast<int8_t*>(weights->data));
    note_weight_scale(report, fc->weightScale);
    fc->inputScale = scale;
    fc->quantized = 1;
    report->inputScale = scale;
    return report->outcome = QuantizeOutcome::Converted;
}

int quantize_net(Net* net, Tensor* calibration, std::vector<LayerQuantizeReport>* reports) {
    if (!net || !net->layers || net->inputSize != 1 || !net->inputs || !net->inputs[0] || !calibration) return 7;
    VO_CHECK_IN("net_quantize_conv",
                calibration->capacity > 0 && calibration->data &&
                    calibration->capacity == checked_count(calibration->num, calibration->channel,
                                                           calibration->height, calibration->width),
                return 5);
    Tensor* in = net->inputs[0];
    if (in->num != calibration->num || in->channel != calibration->channel || in->height != calibration->height ||
        in->width != calibration->width) {
        const int32_t old[4] = {in->num, in->channel, in->height, in->width};
        int status = reshape_tensor_checked(&in, calibration->num, calibration->channel, calibration->height,
                                            calibration->width);
        if (status == 0) status = reshape_net(net);
        if (status != 0) {
            // Back to the shape the net had, so that it runs and saves as
            // before; failing that, an empty input makes the next forward
            // pass reshape again instead of running on half-reshaped tensors.
            if (reshape_tensor_checked(&in, old[0], old[1], old[2], old[3]) != 0 || reshape_net(net) != 0)
                reshape_tensor_checked(&in, 0, 0, 0, 0);
            return status;
        }
    }
    if (in != calibration) memcpy(in->data, calibration->data, size_t(calibration->capacity) * sizeof(float));

    ForwardParams* params = net->forwardParams;
    for (uint32_t i = 0; i < net->layerSize; ++i) {
        Layer* l = net->layers[i];
        if (!l || !l->forward) return 7;
        int status = l->forward(l->runParams, l->inputs, l->isize, l->outputs, l->osize, params);
        if (status != 0) return status;
        if (l->type != LAYER_CONVOLUTION && l->type != LAYER_INNER_PRODUCT) continue;
        if (!layer_has_tensors(l) || !params) return 7;

        LayerQuantizeReport report;
        report.index = i;
        report.type = l->type;
        memcpy(report.name, l->name, sizeof(report.name));
        report.name[sizeof(report.name) - 1] = '\0';
        const Tensor* src = l->inputs[0];
        const Tensor* dst = l->outputs[0];
        if (l->type == LAYER_CONVOLUTION) {
            quantize_conv_layer(static_cast<Convolution*>(l->runParams), src, &report);
            if (grow_scratch(&params->inputBuffer, src->num, src) || grow_scratch(&params->outputBuffer, 1, dst))
                return 5;
        } else {
            quantize_inner_product_layer(static_cast<InnerProduct*>(l->runParams), src, &report);
            if (grow_scratch(&params->inputBuffer, src->num, src) ||
                grow_scratch(&params->columnBuffer, dst->num, dst))
                return 5;
        }
        if (reports) reports->push_back(report);
        // Again, in int8 now, so that later layers calibrate on the
        // activations the quantised net really produces.
        status = l->forward(l->runParams, l->inputs, l->isize, l->outputs, l->osize, params);
        if (status != 0) return status;
    }
    return 0;
}

}  // namespace vo

int net_quantize_conv(Net* net, Tensor* calibration) { return vo::quantize_net(net, calibration, nullptr); }

void quantize_conv(Convolution* conv, Tensor* input) { vo::quantize_conv_layer(conv, input, nullptr); }

void quantize_inner_product(InnerProduct* fc, Tensor* input) {
    vo::quantize_inner_product_layer(fc, input, nullptr);
}
