// What the layers refuse: records at load (status 4), shapes at reshape or
// forward (5, or 1 from a load whose first reshape fails), each with one
// line naming the check, nothing handed out and outputs left as they were;
// the status codes of direct calls, and the descriptions.
#include <vonet/vonet.h>

#include <gtest/gtest.h>

#include <functional>
#include <random>
#include <string>
#include <vector>

#include "test_util.h"

namespace {

using vo_test::head;
using vo_test::Model;
using vo_test::ModelBytes;
using vo_test::Printed;
using vo_test::printed_by;
using Floats = std::vector<float>;

// `expected` is the whole line, or only its start when it ends with ": ".
void expect_line(const std::string& err, const std::string& expected) {
    if (expected.size() > 2 && expected.compare(expected.size() - 2, 2, ": ") == 0) {
        EXPECT_EQ(err.rfind(expected, 0), 0u) << err;
        EXPECT_EQ(err.find('\n'), err.size() - 1) << err;
    } else {
        EXPECT_EQ(err, expected + "\n");
    }
}

std::string zeros(size_t n) { return std::string(n, '\0'); }
std::string conv_fields(std::initializer_list<int32_t> f, uint8_t hasBias, uint8_t quantized) {
    return ModelBytes().i32s(f).u8(hasBias).u8(quantized).raw(zeros(256)).bytes();
}
std::string deconv_fields(std::initializer_list<int32_t> f, uint8_t hasBias) {
    return ModelBytes().i32s(f).u8(hasBias).raw(zeros(256)).bytes();
}
std::string fc_fields(uint8_t hasBias, uint8_t quantized, int32_t inputDim, int32_t outputDim) {
    return ModelBytes().u8(hasBias).u8(quantized).i32s({inputDim, outputDim}).raw(zeros(256)).bytes();
}
std::string slice_record(int axis, std::initializer_list<int32_t> points) {
    return ModelBytes().i32s({axis, int32_t(points.size())}).i32s(points).bytes();
}
std::string flatten_record(int start, int end) { return ModelBytes().u8(uint8_t(start)).u8(uint8_t(end)).bytes(); }
std::string eltwise_record(int op, const Floats& coeffs, int coeffSize) {
    return ModelBytes().i32s({op, coeffSize}).floats(coeffs).bytes();
}

TEST(LayerChecks, RefusedRecords) {
    const struct {
        int type;
        std::string record;
        std::string message;
    } bad[] = {
        {LAYER_CONVOLUTION, conv_fields({3, 2, 3, 3, 1, 1, 1, 1}, 0, 2), "conv->quantized <= 1"},
        // An int8 record claims one byte per weight: still more than the file has.
        {LAYER_CONVOLUTION, conv_fields({64, 64, 3, 3, 1, 1, 1, 1}, 0, 1), "ret == weights->num"},
        {LAYER_CONVOLUTION, conv_fields({3, 2, 3, 3, 1, 1, 1, 1}, 2, 0), "conv->hasBias <= 1"},
        {LAYER_CONVOLUTION, conv_fields({0, 2, 3, 3, 1, 1, 1, 1}, 0, 0), "num > 0 && channel > 0"},
        {LAYER_CONVOLUTION, conv_fields({3, -2, 3, 3, 1, 1, 1, 1}, 0, 0), "num > 0 && channel > 0"},
        {LAYER_CONVOLUTION, conv_fields({3, 2, 0, 3, 1, 1, 1, 1}, 0, 0), "kernelW >= 1 && kernelW <= kMaxExtent"},
        {LAYER_CONVOLUTION, conv_fields({3, 2, 3, 65536, 1, 1, 1, 1}, 0, 0), "kernelH >= 1 && kernelH <= kMaxExtent"},
        {LAYER_CONVOLUTION, conv_fields({3, 2, 3, 3, 0, 1, 1, 1}, 0, 0),
         "conv->strideW >= 1 && conv->strideW <= kMaxExtent"},
        {LAYER_CONVOLUTION, conv_fields({3, 2, 3, 3, 1, 65536, 1, 1}, 0, 0),
         "conv->strideH >= 1 && conv->strideH <= kMaxExtent"},
        {LAYER_CONVOLUTION, conv_fields({3, 2, 3, 3, 1, 1, -1, 1}, 0, 0), "conv->padW >= 0 && conv->padW <= kMaxExtent"},
        {LAYER_CONVOLUTION, conv_fields({3, 2, 3, 3, 1, 1, 1, 65536}, 0, 0),
         "conv->padH >= 0 && conv->padH <= kMaxExtent"},
        {LAYER_CONVOLUTION, conv_fields({65535, 65535, 3, 3, 1, 1, 1, 1}, 0, 0), "count >= 0"},
        // Plausible sizes, but far more values than the file holds.
        {LAYER_CONVOLUTION, conv_fields({4096, 4096, 3, 3, 1, 1, 1, 1}, 0, 0), "ret == weights->capacity"},
        {LAYER_DECONVOLUTION, deconv_fields({3, 2, 2, 2, 2, 2, 0, 0}, 7), "conv->hasBias <= 1"},
        {LAYER_DECONVOLUTION, deconv_fields({3, 0, 2, 2, 2, 2, 0, 0}, 0), "outChannels > 0 && inChannels > 0"},
        {LAYER_DECONVOLUTION, deconv_fields({3, 2, 65536, 2, 2, 2, 0, 0}, 0), "kernelW >= 1 && kernelW <= kMaxExtent"},
        {LAYER_DECONVOLUTION, deconv_fields({3, 2, 2, 0, 2, 2, 0, 0}, 0), "kernelH >= 1 && kernelH <= kMaxExtent"},
        {LAYER_DECONVOLUTION, deconv_fields({3, 2, 2, 2, -2, 2, 0, 0}, 0),
         "conv->strideW >= 1 && conv->strideW <= kMaxExtent"},
        {LAYER_DECONVOLUTION, deconv_fields({3, 2, 2, 2, 2, 0, 0, 0}, 0),
         "conv->strideH >= 1 && conv->strideH <= kMaxExtent"},
        {LAYER_DECONVOLUTION, deconv_fields({3, 2, 2, 2, 2, 2, 65536, 0}, 0),
         "conv->padW >= 0 && conv->padW <= kMaxExtent"},
        {LAYER_DECONVOLUTION, deconv_fields({3, 2, 2, 2, 2, 2, 0, -1}, 0), "conv->padH >= 0 && conv->padH <= kMaxExtent"},
        {LAYER_DECONVOLUTION, deconv_fields({1 << 16, 1 << 16, 1, 1, 1, 1, 0, 0}, 0), "count >= 0"},
        {LAYER_DECONVOLUTION, deconv_fields({1 << 10, 1 << 10, 3, 3, 1, 1, 0, 0}, 0), "ret == weights->capacity"},
        {LAYER_INNER_PRODUCT, fc_fields(0, 7, 4, 3), "fc->quantized <= 1"},
        {LAYER_INNER_PRODUCT, fc_fields(0, 1, 64, 64), "ret == fc->inputDim * fc->outputDim"},
        {LAYER_INNER_PRODUCT, fc_fields(3, 0, 4, 3), "fc->hasBias <= 1"},
        {LAYER_INNER_PRODUCT, fc_fields(0, 0, 0, 3), "fc->inputDim > 0 && fc->outputDim > 0"},
        {LAYER_INNER_PRODUCT, fc_fields(0, 0, 4, -3), "fc->inputDim > 0 && fc->outputDim > 0"},
        {LAYER_INNER_PRODUCT, fc_fields(0, 0, 1 << 20, 1 << 12), "count >= 0"},
        {LAYER_INNER_PRODUCT, fc_fields(0, 0, 1 << 15, 1 << 12), "ret == fc->inputDim * fc->outputDim"},
        {LAYER_POOLING, vo_test::pool_record(3, 2, 2, 0, 0, 2, 2), "pool->type >= 0 && pool->type <= 2"},
        {LAYER_POOLING, vo_test::pool_record(-1, 2, 2, 0, 0, 2, 2), "pool->type >= 0 && pool->type <= 2"},
        {LAYER_POOLING, vo_test::pool_record(0, 0, 2, 0, 0, 2, 2), "pool->kernelW >= 1 && pool->kernelW <= 65535"},
        {LAYER_POOLING, vo_test::pool_record(0, 2, 65536, 0, 0, 2, 2), "pool->kernelH >= 1 && pool->kernelH <= 65535"},
        {LAYER_POOLING, vo_test::pool_record(0, 2, 2, 0, 0, 0, 2), "pool->strideW >= 1 && pool->strideW <= 65535"},
        {LAYER_POOLING, vo_test::pool_record(0, 2, 2, 0, 0, 2, 65536), "pool->strideH >= 1 && pool->strideH <= 65535"},
        {LAYER_POOLING, vo_test::pool_record(0, 2, 2, -1, 0, 2, 2), "pool->padW >= 0 && pool->padW <= 65535"},
        {LAYER_POOLING, vo_test::pool_record(0, 2, 2, 0, 65536, 2, 2), "pool->padH >= 0 && pool->padH <= 65535"},
        {LAYER_POOLING, vo_test::pool_record(0, 2, 2, 0, 0, 2, 2).substr(0, 28), "ret == 1"},
        {LAYER_SOFTMAX, ModelBytes().i32(4).bytes(), "softmax->axis >= 0 && softmax->axis <= 3"},
        {LAYER_SOFTMAX, ModelBytes().i32(-1).bytes(), "softmax->axis >= 0 && softmax->axis <= 3"},
        {LAYER_SOFTMAX, "\x01", "ret == 1"},
        {LAYER_CONCAT, ModelBytes().i32s({0, 4}).bytes(), "concat->axis >= 0 && concat->axis <= 3"},
        {LAYER_CONCAT, ModelBytes().i32s({0, -1}).bytes(), "concat->axis >= 0 && concat->axis <= 3"},
        {LAYER_SLICE, slice_record(4, {1}), "slice->axis >= 0 && slice->axis <= 3"},
        {LAYER_SLICE, slice_record(1, {2, 2}), "slice->points[k] > previous"},
        {LAYER_SLICE, slice_record(1, {0, 2}), "slice->points[k] > previous"},
        {LAYER_SLICE, ModelBytes().i32s({1, -1}).bytes(), "slice->size >= 0"},
        {LAYER_SLICE, ModelBytes().i32s({1, 1 << 28}).bytes(),
         "vo::fits_in_file(stream, slice->size, sizeof(int32_t))"},
        {LAYER_FLATTEN, flatten_record(3, 1), "start <= end"},
        {LAYER_FLATTEN, flatten_record(-5, 1), "start >= 0 && start <= 3"},
        {LAYER_FLATTEN, flatten_record(1, 4), "end >= 0 && end <= 3"},
        {LAYER_PIECE, ModelBytes().i32s({16, 1}).bytes(), "piece->level >= 0 && piece->level <= 15"},
        {LAYER_PIECE, ModelBytes().i32s({-1, 1}).bytes(), "piece->level >= 0 && piece->level <= 15"},
        {LAYER_PIECE, ModelBytes().i32(1).bytes(), "ret == 1"},
        {LAYER_BATCHNORM, ModelBytes().i32(0).bytes(), "bn->channel >= 1"},
        {LAYER_BATCHNORM, ModelBytes().i32(1 << 30).f32(1).bytes(),
         "vo::fits_in_file(stream, 2 * int64_t(bn->channel), sizeof(float))"},
        {LAYER_BATCHNORM, ModelBytes().i32(2).floats({1, 1, 1}).bytes(),
         "vo::fits_in_file(stream, 2 * int64_t(bn->channel), sizeof(float))"},
        {LAYER_BATCHNORM, std::string("\x02\x00", 2), "ret == 1"},
        {LAYER_NORMALIZE, ModelBytes().u8(0).u8(0).i32(0).bytes(), "scaleSize >= 1"},
        {LAYER_ELTWISE, ModelBytes().i32s({1, 1 << 29}).bytes(),
         "vo::fits_in_file(stream, eltwise->coeffSize, sizeof(float))"},
        // A slope count the file cannot hold is refused before allocating.
        {LAYER_PRELU, ModelBytes().i32(1 << 30).f32(1.0f).bytes(),
         "vo::fits_in_file(stream, channel, 4)"},
        {LAYER_PRELU, ModelBytes().i32(-2).bytes(), ": "},
        {LAYER_PRELU, ModelBytes().i32(3).floats({1, 2}).bytes(), ": "},
        {LAYER_PRELU, "\x01\x02", ": "},
        {LAYER_DROPOUT, "\x01\x02", "ret == 1"},
    };
    const std::vector<std::pair<int, std::string>> units = {
        {LAYER_CONVOLUTION, "vnet/conv: load_conv: check failed: "},
        {LAYER_DECONVOLUTION, "vnet/deconv: load_deconv: check failed: "},
        {LAYER_INNER_PRODUCT, "vnet/inner_product: load_inner_product: check failed: "},
        {LAYER_POOLING, "vnet/pool: load_pooling: check failed: "},
        {LAYER_SOFTMAX, "vnet/softmax: load_softmax: check failed: "},
        {LAYER_CONCAT, "vnet/concat: load_concat: check failed: "},
        {LAYER_SLICE, "vnet/slice: load_slice: check failed: "},
        {LAYER_FLATTEN, "vnet/flatten: load_flatten: check failed: "},
        {LAYER_PIECE, "vnet/piece: load_piece: check failed: "},
        {LAYER_BATCHNORM, "vnet/batch_norm: load_batchnorm: check failed: "},
        {LAYER_NORMALIZE, "vnet/normalize: load_normalize: check failed: "},
        {LAYER_ELTWISE, "vnet/eltwise: load_eltwise: check failed: "},
        {LAYER_PRELU, "vnet/prelu: load_prelu: check failed: "},
        {LAYER_DROPOUT, "vnet/dropout: load_dropout: check failed: "},
    };
    for (const auto& b : bad) {
        // The record is the last thing in the file, so a short one ends it.
        Model m(head(1, 4, 4, 4).name("l").i32(b.type).raw(b.record).bytes());
        SCOPED_TRACE(b.message);
        EXPECT_EQ(m.status, 4);
        EXPECT_EQ(m.net, nullptr);
        for (const auto& u : units)
            if (u.first == b.type) expect_line(m.err, b.message == ": " ? u.second : u.second + b.message);
    }
}

// Every cut of a valid record is refused, by the read that came up short.
TEST(LayerChecks, TruncatedRecords) {
    const struct {
        int type;
        std::string record;
        std::string prefix;
        size_t weightsAt, biasAt;
        const char* weightsCheck;
    } records[] = {
        {LAYER_CONVOLUTION, vo_test::conv_record(3, 2, 3, 3, 1, 1, 1, 1, Floats(54, 0.5f), {1, 2, 3}),
         "vnet/conv: load_conv: check failed: ", 34, 34 + 4 * 54, "ret == weights->capacity"},
        {LAYER_DECONVOLUTION, vo_test::deconv_record(3, 2, 2, 2, 2, 2, 0, 0, Floats(24, 0.5f), {1, 2, 3}),
         "vnet/deconv: load_deconv: check failed: ", 33, 33 + 96, "ret == weights->capacity"},
        {LAYER_INNER_PRODUCT, vo_test::fc_record(4, 3, Floats(12, 0.25f), {1, 1, 1}),
         "vnet/inner_product: load_inner_product: check failed: ", 10, 10 + 48, "ret == fc->inputDim * fc->outputDim"},
    };
    for (const auto& r : records) {
        for (size_t len = 0; len < r.record.size(); ++len) {
            Model m(head(1, 4, 4, 4).name("l").i32(r.type).raw(r.record.substr(0, len)).bytes());
            ASSERT_EQ(m.status, 4) << len;
            const std::string check = len < r.weightsAt ? "ret == 1"
                                      : len < r.biasAt  ? r.weightsCheck
                                      : r.type == LAYER_INNER_PRODUCT ? "ret == fc->outputDim"
                                                                      : "ret == conv->bias->capacity";
            EXPECT_EQ(m.err, r.prefix + check + "\n") << len;
        }
    }
}

// Shapes refused when the net is loaded: its first reshape fails (status 1).
TEST(LayerChecks, ShapesRefusedAtLoad) {
    struct Case {
        int type;
        std::string record;
        std::vector<std::string> ins, outs;
        std::vector<int> in;
        const char* message;
    };
    const char* const cover = "vnet/eltwise: reshape_eltwise: check failed: coefficients_cover(eltwise, isize)";
    const std::vector<std::string> three = {"data", "data", "data"};
    const Case bad[] = {
        {LAYER_SLICE, slice_record(1, {1, 2}), {"data"}, {"a", "b"}, {1, 4, 6, 5},
         "vnet/slice: reshape_slice: check failed: osize == slice->size + 1"},
        {LAYER_SLICE, slice_record(1, {1, 4}), {"data"}, {"a", "b", "c"}, {1, 4, 6, 5},
         "vnet/slice: reshape_slice: check failed: shape[slice->axis] > 0"},
        {LAYER_SLICE, slice_record(1, {1}), {"data"}, {"a", "data"}, {1, 4, 6, 5},
         "vnet/slice: reshape_slice: check failed: ress[j] != nullptr && ress[j] != src"},
        {LAYER_CONCAT, ModelBytes().i32s({0, 1}).bytes(), {"data", "data"}, {"data"}, {1, 4, 6, 5},
         "vnet/concat: reshape_concat: check failed: ress[0] != srcs[i]"},
        // Fewer coefficients than inputs, negative counts included.
        {LAYER_ELTWISE, eltwise_record(1, {1}, 1), three, {"out"}, {1, 1, 2, 2}, cover},
        {LAYER_ELTWISE, eltwise_record(1, {1, 1}, 2), three, {"out"}, {1, 1, 2, 2}, cover},
        {LAYER_ELTWISE, eltwise_record(1, {}, -1), three, {"out"}, {1, 1, 2, 2}, cover},
    };
    for (const auto& b : bad) {
        Model m(head(b.in[0], b.in[1], b.in[2], b.in[3]).layer("l", b.type, b.record, b.ins, b.outs).bytes());
        EXPECT_EQ(m.status, 1) << b.message;
        EXPECT_EQ(m.net, nullptr);
        EXPECT_EQ(m.err, std::string(b.message) + "\n");
        EXPECT_EQ(m.printed, "Reshape error\n");
    }
}

// Nets that load and run on one shape refuse another in vo_forward_net with
// status 5, and the output keeps its shape (a reshape check) and values.
TEST(LayerChecks, ShapesRefusedAtForward) {
    const struct {
        int type;
        std::string record;
        std::vector<int> good, bad;
        const char* message;
    } cases[] = {
        {LAYER_CONVOLUTION, vo_test::conv_record(4, 3, 5, 3, 1, 1, 0, 0, Floats(4 * 3 * 15, 1.0f), {}), {1, 3, 8, 8},
         {1, 2, 8, 8}, "vnet/conv: reshape_conv: check failed: src->channel == weights->channel"},
        {LAYER_CONVOLUTION, vo_test::conv_record(4, 3, 5, 3, 1, 1, 0, 0, Floats(4 * 3 * 15, 1.0f), {}), {1, 3, 8, 8},
         {1, 3, 8, 4}, "vnet/conv: reshape_conv: check failed: outW > 0 && outH > 0"},  // (4 - 5) / 1 + 1 = 0
        {LAYER_CONVOLUTION, vo_test::conv_record(4, 3, 5, 3, 1, 1, 0, 0, Floats(4 * 3 * 15, 1.0f), {}), {1, 3, 8, 8},
         {1, 3, 2, 8}, "vnet/conv: reshape_conv: check failed: outW > 0 && outH > 0"},
        // Kernel 1, pad 1: a 1x1 input would give 1 + 0 - 2 = -1 pixels.
        {LAYER_DECONVOLUTION, vo_test::deconv_record(3, 2, 1, 1, 1, 1, 1, 1, Floats(6, 1.0f), {}), {1, 2, 3, 3},
         {1, 3, 3, 3}, "vnet/deconv: reshape_deconv: check failed: src->channel == weights->num"},
        {LAYER_DECONVOLUTION, vo_test::deconv_record(3, 2, 1, 1, 1, 1, 1, 1, Floats(6, 1.0f), {}), {1, 2, 3, 3},
         {1, 2, 1, 1}, "vnet/deconv: reshape_deconv: check failed: outW > 0 && outH > 0"},
        {LAYER_INNER_PRODUCT, vo_test::fc_record(64, 10, Floats(640, 1.0f), {}), {1, 16, 2, 2}, {1, 3, 5, 5},
         "vnet/inner_product: reshape_inner_product: check failed: "
         "src->width * src->height * src->channel == fc->inputDim"},
        // Kernel 3 on a width of 1 leaves no output column.
        {LAYER_POOLING, vo_test::pool_record(0, 3, 3, 0, 0, 1, 1), {1, 1, 4, 4}, {1, 1, 4, 1},
         "vnet/pool: reshape_pooling: check failed: outW >= 1 && outH >= 1"},
        {LAYER_PIECE, ModelBytes().i32s({1, 1}).bytes(), {1, 4, 6, 6}, {1, 4, 6, 5},
         "vnet/piece: reshape_piece: check failed: width % times == 0"},
        {LAYER_PIECE, ModelBytes().i32s({2, 1}).bytes(), {1, 4, 8, 8}, {1, 4, 6, 8},
         "vnet/piece: reshape_piece: check failed: height % times == 0"},
        {LAYER_PIECE, ModelBytes().i32s({1, 0}).bytes(), {1, 4, 2, 2}, {1, 6, 2, 2},
         "vnet/piece: reshape_piece: check failed: channel % (times * times) == 0"},
        // Per-channel scales for per-channel norms need one per input channel.
        {LAYER_NORMALIZE, ModelBytes().u8(1).u8(1).i32(2).floats({1, 2}).bytes(), {1, 2, 1, 2}, {1, 3, 1, 2},
         "vnet/normalize: reshape_normalize: check failed: "
         "norm->scale->capacity >= scales_needed(norm, src->channel)"},
        // Two channels of parameters for three of input: refused by the forward.
        {LAYER_BATCHNORM, ModelBytes().i32(2).floats({2, 2, 1, 1}).bytes(), {1, 2, 2, 2}, {1, 3, 1, 1},
         "vnet/batch_norm: forward_batchnorm: check failed: src->channel == bn->channel"},
    };
    std::mt19937 rng(3);
    for (const auto& c : cases) {
        SCOPED_TRACE(c.message);
        Model m(head(c.good[0], c.good[1], c.good[2], c.good[3]).layer("l", c.type, c.record, {"data"}, {"out"}).bytes());
        ASSERT_EQ(m.status, 0) << m.err;
        ASSERT_EQ(m.forward(vo_test::random_floats(rng, size_t(c.good[0]) * c.good[1] * c.good[2] * c.good[3]),
                            c.good[0], c.good[1], c.good[2], c.good[3]), 0);
        const std::vector<int> shape = vo_test::dims(m.out());
        const Floats before(m.out()->data, m.out()->data + m.out()->capacity);
        const Floats ones(size_t(c.bad[0]) * c.bad[1] * c.bad[2] * c.bad[3], 1.0f);
        EXPECT_EQ(printed_by([&] { return m.forward(ones, c.bad[0], c.bad[1], c.bad[2], c.bad[3]); }),
                  (Printed{5, "", std::string(c.message) + "\n"}));
        if (c.type != LAYER_BATCHNORM) {
            EXPECT_EQ(vo_test::dims(m.out()), shape);
        }
        EXPECT_TRUE(vo_test::same_bits(m.out()->data, before.data(), std::min(before.size(), size_t(m.out()->capacity))));
    }
}

// Direct calls: missing records, arrays and tensors, counts other than the
// layer takes, and outputs the layer was not reshaped for.
TEST(LayerChecks, DirectCallStatuses) {
    Model conv(head(1, 2, 3, 3).layer("c", LAYER_CONVOLUTION, vo_test::conv_record(2, 2, 2, 2, 1, 1, 0, 0, Floats(16), {}),
                                      {"data"}, {"out"}).bytes());
    Model deconv(head(1, 2, 3, 3).layer("d", LAYER_DECONVOLUTION,
                                        vo_test::deconv_record(2, 2, 2, 2, 1, 1, 0, 0, Floats(16), {}), {"data"},
                                        {"out"}).bytes());
    Model fc(head(1, 2, 2, 2).layer("f", LAYER_INNER_PRODUCT, vo_test::fc_record(8, 2, Floats(16), {}), {"data"},
                                    {"out"}).bytes());
    ASSERT_TRUE(conv.net && deconv.net && fc.net);
    auto* c = static_cast<Convolution*>(conv.net->layers[0]->runParams);
    auto* d = static_cast<Deconv*>(deconv.net->layers[0]->runParams);
    auto* f = static_cast<InnerProduct*>(fc.net->layers[0]->runParams);
    ForwardParams* params = create_forward_params();
    Tensor* in = create_tensor(1, 3, 1, 1);
    Tensor* out = create_tensor(1, 3, 1, 1);
    Tensor* small = create_tensor(1, 2, 1, 1);
    Tensor* ins[2] = {create_tensor(1, 2, 3, 4), create_tensor(1, 2, 3, 5)};
    Tensor* none = nullptr;
    small->data[0] = 7.0f;
    out->data[0] = 5.0f;
    Softmax softmax{};
    Concat concat{0, 2, 0, 0, 0};
    Pooling pool{0, 2, 2, 0, 0, 2, 2, 0};
    Tensor* pin = create_tensor(1, 1, 4, 4);
    Tensor* pout = create_tensor(1, 1, 3, 2);
    pout->data[0] = 9.0f;
    void* record = nullptr;
    ASSERT_EQ(reshape_softmax(&softmax, &in, 1, &out, 1, params), 0);
    const std::pair<std::function<int()>, int> calls[] = {
        {[&] { return reshape_conv(c, &none, 1, &out, 1, params); }, 5},
        {[&] { return reshape_conv(c, ins, 2, &out, 1, params); }, 7},
        {[&] { return reshape_conv(nullptr, ins, 1, &out, 1, params); }, 7},
        {[&] { return save_conv(nullptr, nullptr); }, 7},
        {[&] { return load_conv(nullptr, &record); }, 4},
        {[&] { return reshape_deconv(d, &none, 1, &out, 1, params); }, 5},
        {[&] { return reshape_deconv(d, ins, 1, &out, 1, nullptr); }, 7},
        {[&] { return save_deconv(nullptr, nullptr); }, 7},
        {[&] { return reshape_inner_product(f, &none, 1, &out, 1, params); }, 5},
        {[&] { return reshape_inner_product(f, ins, 1, &out, 0, params); }, 7},
        {[&] { return save_inner_product(nullptr, nullptr); }, 4},
        {[&] { return forward_softmax(&softmax, &in, 1, &small, 1, params); }, 5},
        {[&] { return reshape_softmax(&softmax, &in, 2, &out, 1, params); }, 7},
        {[&] { return reshape_concat(&concat, ins, 2, &out, 1, nullptr); }, 5},  // widths 4 and 5
        {[&] { return reshape_concat(&concat, ins, 1, &out, 1, nullptr); }, 7},
        // A forward on shapes the concat was not reshaped for copies nothing.
        {[&] {
             concat.axis = 1, concat.outerNum = 1, concat.axisSize = 4, concat.innerNum = 12;
             return forward_concat(&concat, ins, 2, &out, 1, nullptr);
         }, 5},
        {[&] { return pool_max(&pool, pin, pout); }, 5},
        {[&] { return pool_max_stable(&pool, pin, pout, nullptr); }, 7},
        {[&] { return load_eltwise(nullptr, nullptr); }, 1},
    };
    for (const auto& call : calls) EXPECT_EQ(printed_by(call.first).status, call.second) << &call - calls;
    EXPECT_EQ(small->data[0], 7.0f);
    EXPECT_EQ(out->data[0], 5.0f);
    EXPECT_EQ(pout->data[0], 9.0f);
    EXPECT_EQ(vo_test::dims(out), (std::vector<int>{1, 3, 1, 1}));
    EXPECT_EQ(record, nullptr);
    release_forward_params(&params);
    for (Tensor* t : {in, out, small, ins[0], ins[1], pin, pout}) release_tensor(&t);
    release_tensor(&softmax.sumMultiplier);
}

// An eltwise of an unknown operation reshapes but computes nothing.
TEST(LayerChecks, UnknownEltwiseOperation) {
    Eltwise unknown{5, nullptr, 0};
    Tensor* ins[2] = {create_tensor(1, 1, 2, 2), create_tensor(1, 1, 2, 3)};
    Tensor* out = create_tensor(1, 1, 1, 1);
    EXPECT_EQ(printed_by([&] { return reshape_eltwise(&unknown, ins, 2, &out, 1, nullptr); }).status, 5);
    EXPECT_EQ(reshape_eltwise(&unknown, ins, 1, &out, 1, nullptr), 7);
    ins[1] = reshape_tensor(ins[1], 1, 1, 2, 2);
    ASSERT_EQ(reshape_eltwise(&unknown, ins, 2, &out, 1, nullptr), 0);
    out->data[2] = 3.0f;
    ASSERT_EQ(forward_eltwise(&unknown, ins, 2, &out, 1, nullptr), 0);
    EXPECT_TRUE(vo_test::same_bits(out, {0, 0, 3, 0}));
    EXPECT_EQ(save_eltwise(nullptr, &unknown), 1);
    char text[128];
    get_info_eltwise(&unknown, text);
    EXPECT_STREQ(text, "Eltwise unknown");
    for (Tensor* t : {ins[0], ins[1], out}) release_tensor(&t);
}

TEST(LayerChecks, Descriptions) {
    const struct {
        int type;
        std::string record;
        std::vector<int> in;
        const char* info;
    } layers[] = {
        {LAYER_CONVOLUTION, vo_test::conv_record(32, 16, 3, 3, 2, 2, 1, 1, Floats(32 * 16 * 9), Floats(32)),
         {1, 16, 8, 8}, "Convolution, kern: 32 16 3 3, stride: 2 2, pad: 1 1, bias: 1"},
        {LAYER_DECONVOLUTION, vo_test::deconv_record(8, 16, 4, 4, 2, 2, 1, 1, Floats(16 * 8 * 16), Floats(8)),
         {1, 16, 4, 4}, "deconv, kern: 16 8 4 4, stride: 2 2, pad: 1 1, bias: 1"},
        {LAYER_INNER_PRODUCT, vo_test::fc_record(64, 10, Floats(640), Floats(10)), {1, 64, 1, 1},
         "InnerProduct: 64 10 1"},
        {LAYER_INNER_PRODUCT, vo_test::fc_record(64, 10, Floats(640), {}), {1, 64, 1, 1}, "InnerProduct: 64 10 0"},
        // A global pooling rewrites its record at reshape.
        {LAYER_POOLING, vo_test::pool_record(2, 3, 3, 1, 1, 2, 2, 1), {1, 2, 6, 8},
         "Pooling type: 2 kern: 8 6 pad: 0 0 stride: 1 1 global: 1"},
        {LAYER_SOFTMAX, ModelBytes().i32(1).bytes(), {1, 3, 1, 1}, "Softmax 1"},
        {LAYER_BATCHNORM, ModelBytes().i32(3).floats(Floats(6)).bytes(), {1, 3, 1, 1}, "BatchNorm 3\n"},
        {LAYER_NORMALIZE, ModelBytes().u8(1).u8(0).i32(2).floats({1, 2}).bytes(), {1, 2, 1, 1}, "normalize 1 0 2\n"},
    };
    for (const auto& l : layers) {
        Model m(head(l.in[0], l.in[1], l.in[2], l.in[3]).layer("l", l.type, l.record, {"data"}, {"out"}).bytes());
        ASSERT_EQ(m.status, 0) << l.info << m.err;
        EXPECT_STREQ(get_info_layer(m.net->layers[0]), l.info);
    }
    const std::pair<void (*)(char*), const char*> nulls[] = {
        {[](char* t) { get_info_conv(nullptr, t); }, "Convolution"},
        {[](char* t) { get_info_deconv(nullptr, t); }, "deconv"},
        {[](char* t) { get_info_inner_product(nullptr, t); }, "InnerProduct"},
        {[](char* t) { get_info_pool(nullptr, t); }, "Pooling"},
        {[](char* t) { get_info_softmax(nullptr, t); }, "Softmax"},
        {[](char* t) { get_info_eltwise(nullptr, t); }, "Eltwise"},
        {[](char* t) { get_info_concat(nullptr, t); }, "Concat"},
        {[](char* t) { get_info_slice(nullptr, t); }, "Slice"},
        {[](char* t) { get_info_piece(nullptr, t); }, "piece"},
    };
    for (const auto& n : nulls) {
        char text[128] = "x";
        n.first(text);
        EXPECT_STREQ(text, n.second);
    }
}

}  // namespace
