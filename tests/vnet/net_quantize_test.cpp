// Net quantisation: scales and weight bytes against direct computations,
// layer-by-layer calibration on int8 activations, the layers that stay
// float and why, round trips through model files, and the face networks
// quantised on one crop and checked on others.
#include <gtest/gtest.h>
#include <vonet/vonet.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "test_util.h"
#include "vnet/net_quantize_internal.h"

#define STB_IMAGE_STATIC
#define STB_IMAGE_IMPLEMENTATION
#include "common/stb_private.h"

namespace {

using vo::QuantizeOutcome;
using vo_test::head;
using vo_test::Model;
using vo_test::ModelBytes;

struct TensorDeleter {
    void operator()(Tensor* t) const { release_tensor(&t); }
};
using TensorPtr = std::unique_ptr<Tensor, TensorDeleter>;

TensorPtr tensor(int n, int c, int h, int w, const std::vector<float>& v) {
    TensorPtr t(create_tensor(n, c, h, w));
    std::copy(v.begin(), v.end(), t->data);
    return t;
}

std::vector<float> uniform(std::mt19937& rng, size_t n, float lo, float hi) {
    std::uniform_real_distribution<float> d(lo, hi);
    std::vector<float> v(n);
    for (float& x : v) x = d(rng);
    return v;
}

// 127 / the magnitude at index trunc(n * 0.999) of the sorted magnitudes.
float input_scale(const float* x, size_t n) {
    std::vector<float> m(n);
    for (size_t i = 0; i < n; ++i) m[i] = std::fabs(x[i]);
    std::sort(m.begin(), m.end());
    return 127.0f / m[size_t(double(n) * 0.999)];
}

// 127 / max |w| over the group, then trunc(scale * w) per weight.
float weight_bytes(const float* w, size_t n, int8_t* bytes) {
    float m = 0.0f;
    for (size_t i = 0; i < n; ++i) m = std::max(m, std::fabs(w[i]));
    const float scale = 127.0f / m;
    for (size_t i = 0; i < n; ++i) bytes[i] = int8_t(std::trunc(scale * w[i]));
    return scale;
}

Convolution* conv_of(Model& m, int layer) { return static_cast<Convolution*>(m.net->layers[layer]->runParams); }
InnerProduct* fc_of(Model& m, int layer) { return static_cast<InnerProduct*>(m.net->layers[layer]->runParams); }

int quantize_quiet(Net* net, Tensor* calibration, std::vector<vo::LayerQuantizeReport>* reports = nullptr) {
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    const int status = vo::quantize_net(net, calibration, reports);
    testing::internal::GetCapturedStdout();
    testing::internal::GetCapturedStderr();
    return status;
}

Model conv_model(int M, int k, const std::vector<float>& w) {
    return Model(
        head(1, 3, 7, 6)
            .layer("c", LAYER_CONVOLUTION, vo_test::conv_record(M, 3, k, k, 1, 1, 1, 1, w, {}), {"data"}, {"out"})
            .bytes());
}

TEST(QuantizeLayer, ScalesAndBytes) {
    // 1000 values: index 999, the largest magnitude. 10000: index 9990, so
    // the nine larger ones lie beyond the calibrated range.
    std::mt19937 rng(5);
    for (int n : {1000, 10000}) {
        std::vector<float> v(n);
        for (int i = 0; i < n; ++i) v[i] = float(i % 2 ? i + 1 : -(i + 1));
        std::shuffle(v.begin(), v.end(), rng);
        TensorPtr t = tensor(1, 1, 1, n, v);
        Model m = conv_model(1, 3, std::vector<float>(27, 1.0f));
        vo::LayerQuantizeReport r;
        EXPECT_EQ(vo::quantize_conv_layer(conv_of(m, 0), t.get(), &r), QuantizeOutcome::Converted);
        EXPECT_EQ(r.percentile, n == 1000 ? 1000.0f : 9991.0f);
        EXPECT_EQ(conv_of(m, 0)->inputScale, 127.0f / r.percentile);
    }
    // Random inputs of any size and channels of random weights, some all
    // zero (bytes 0, scale inf, dequantisation scale 1 / inf = 0: the
    // channel gives exactly its bias, here 0).
    for (int iter = 0; iter < 30; ++iter) {
        const int M = std::uniform_int_distribution<int>(1, 9)(rng), k = 2 + iter % 3, P = 3 * k * k;
        std::vector<float> w = vo_test::random_floats(rng, size_t(M) * P);
        if (iter == 0) {
            std::fill_n(w.begin(), P, 0.0f);
            std::copy_n(std::vector<float>{0.5f, -1.0f, 0.25f}.begin(), 3, w.begin());
        }
        if (iter % 4 == 1) std::fill_n(w.begin() + P * (M - 1), P, 0.0f);
        const auto in = vo_test::random_floats(rng, std::uniform_int_distribution<int>(1, 5000)(rng));
        TensorPtr input = tensor(1, 1, 1, int(in.size()), in);
        Model m = conv_model(M, k, w);
        Convolution* conv = conv_of(m, 0);
        quantize_conv(conv, input.get());
        ASSERT_EQ(conv->quantized, 1);
        const float inputScale = input_scale(in.data(), in.size());
        EXPECT_EQ(vo_test::bits_of(conv->inputScale), vo_test::bits_of(inputScale)) << in.size();
        std::vector<int8_t> want(size_t(M) * P);
        for (int o = 0; o < M; ++o) {
            const float scale = weight_bytes(w.data() + o * P, P, want.data() + o * P);
            EXPECT_EQ(vo_test::bits_of(conv->weightScales[o]), vo_test::bits_of(scale)) << o;
            EXPECT_EQ(vo_test::bits_of(conv->dequantScales[o]), vo_test::bits_of(1.0f / (inputScale * scale)));
        }
        EXPECT_EQ(memcmp(conv->weights->data, want.data(), want.size()), 0);
        if (iter == 0) {
            EXPECT_EQ(conv->weightScales[0], 127.0f);
            EXPECT_EQ(std::vector<int8_t>(want.begin(), want.begin() + 3), (std::vector<int8_t>{63, -127, 31}));
        }
        if (iter % 4 == 1) {
            EXPECT_EQ(conv->dequantScales[M - 1], 0.0f);
            ASSERT_EQ(m.forward(uniform(rng, 3 * 7 * 6, -1, 1), 1, 3, 7, 6), 0);
            const int plane = m.out()->height * m.out()->width;
            for (int i = 0; i < plane; ++i) ASSERT_EQ(m.out()->data[(M - 1) * plane + i], 0.0f);
        }
    }
    // An inner product: one scale for the whole matrix.
    const std::vector<float> w = vo_test::random_floats(rng, 126 * 5), in = uniform(rng, 300, -4, 4);
    Model fc(head(1, 3, 7, 6)
                 .layer("f", LAYER_INNER_PRODUCT, vo_test::fc_record(126, 5, w, {}), {"data"}, {"out"})
                 .bytes());
    TensorPtr input = tensor(1, 1, 1, 300, in);
    quantize_inner_product(fc_of(fc, 0), input.get());
    std::vector<int8_t> want(w.size());
    EXPECT_EQ(vo_test::bits_of(fc_of(fc, 0)->weightScale),
              vo_test::bits_of(weight_bytes(w.data(), w.size(), want.data())));
    EXPECT_EQ(vo_test::bits_of(fc_of(fc, 0)->inputScale), vo_test::bits_of(input_scale(in.data(), in.size())));
    EXPECT_EQ(memcmp(fc_of(fc, 0)->weights->data, want.data(), want.size()), 0);
}

// A tiny net: 3x3 conv, ReLU, 1x1 conv, 3x3 stride-2 conv, inner product,
// every tensor its own name so that each layer's input stays readable.
std::string small_net(std::mt19937& rng, int n, int h, int w) {
    const int h2 = (h - 3 + 2) / 2 + 1, w2 = (w - 3 + 2) / 2 + 1;
    return head(n, 2, h, w)
        .layer("c1", LAYER_CONVOLUTION,
               vo_test::conv_record(4, 2, 3, 3, 1, 1, 1, 1, uniform(rng, 72, -1, 1), uniform(rng, 4, -0.5f, 0.5f)),
               {"data"}, {"t1"})
        .layer("r1", LAYER_RELU, "", {"t1"}, {"t2"})
        .layer("c2", LAYER_CONVOLUTION,
               vo_test::conv_record(3, 4, 1, 1, 1, 1, 0, 0, uniform(rng, 12, -1, 1), uniform(rng, 3, -0.5f, 0.5f)),
               {"t2"}, {"t3"})
        .layer("c3", LAYER_CONVOLUTION, vo_test::conv_record(5, 3, 3, 3, 2, 2, 1, 1, uniform(rng, 135, -1, 1), {}),
               {"t3"}, {"t4"})
        .layer(
            "f1", LAYER_INNER_PRODUCT,
            vo_test::fc_record(5 * h2 * w2, 7, uniform(rng, size_t(35) * h2 * w2, -1, 1), uniform(rng, 7, -1, 1)),
            {"t4"}, {"out"})
        .bytes();
}

TEST(QuantizeNet, EachLayerCalibratesOnInt8Activations) {
    std::mt19937 rng(7);
    Model m(small_net(rng, 1, 6, 6));
    ASSERT_EQ(m.status, 0) << m.err;
    const std::vector<float> c1Weights(conv_of(m, 0)->weights->data, conv_of(m, 0)->weights->data + 72);
    // Calibrated on a batch of two images: reshaped to that shape first.
    const std::vector<float> calib = uniform(rng, 2 * 2 * 6 * 6, -3, 3);
    TensorPtr c = tensor(2, 2, 6, 6, calib);
    std::vector<vo::LayerQuantizeReport> reports;
    ASSERT_EQ(quantize_quiet(m.net.get(), c.get(), &reports), 0);
    EXPECT_EQ(vo_test::dims(m.net->inputs[0]), (std::vector<int>{2, 2, 6, 6}));
    ASSERT_EQ(reports.size(), 4u);
    const QuantizeOutcome outcomes[] = {QuantizeOutcome::Converted, QuantizeOutcome::Kernel1x1,
                                        QuantizeOutcome::Converted, QuantizeOutcome::Converted};
    for (int i = 0; i < 4; ++i) EXPECT_EQ(reports[i].outcome, outcomes[i]) << i;
    EXPECT_EQ(conv_of(m, 2)->quantized, 0);
    std::vector<int8_t> bytes(72);
    for (int o = 0; o < 4; ++o) weight_bytes(c1Weights.data() + 18 * o, 18, bytes.data() + 18 * o);
    EXPECT_EQ(memcmp(conv_of(m, 0)->weights->data, bytes.data(), 72), 0);

    // The tensors hold the calibration run; each layer's input scale comes
    // from its input as the already quantised layers before it produced it.
    auto scale_of = [&](const char* name) {
        const Tensor* t = net_tensor_by_name(m.net.get(), name);
        return input_scale(t->data, t->capacity);
    };
    EXPECT_EQ(conv_of(m, 0)->inputScale, input_scale(calib.data(), calib.size()));
    EXPECT_EQ(conv_of(m, 3)->inputScale, scale_of("t3"));
    EXPECT_EQ(fc_of(m, 4)->inputScale, scale_of("t4"));
    const std::vector<float> calibrated(m.out()->data, m.out()->data + m.out()->capacity);
    ASSERT_EQ(m.forward(calib, 2, 2, 6, 6), 0);
    EXPECT_TRUE(vo_test::same_bits(m.out(), calibrated));

    // Saved and reloaded byte for byte, running the same bits; a second
    // quantisation changes nothing.
    const std::string int8Bytes = m.saved();
    Model again(int8Bytes);
    ASSERT_EQ(again.status, 0) << again.err;
    EXPECT_TRUE(again.saved() == int8Bytes);
    ASSERT_EQ(again.forward(calib, 2, 2, 6, 6), 0);
    EXPECT_TRUE(vo_test::same_bits(again.out(), calibrated));
    reports.clear();
    ASSERT_EQ(quantize_quiet(again.net.get(), c.get(), &reports), 0);
    EXPECT_EQ(reports[0].outcome, QuantizeOutcome::AlreadyInt8);
    EXPECT_TRUE(again.saved() == int8Bytes);
    EXPECT_TRUE(vo_test::same_bits(again.out(), calibrated));
}

TEST(QuantizeNet, RefusalsAndLayersThatStayFloat) {
    std::mt19937 rng(8);
    const std::vector<float> calib = uniform(rng, 2 * 6 * 6, -1, 1);
    TensorPtr c = tensor(1, 2, 6, 6, calib);
    EXPECT_EQ(net_quantize_conv(nullptr, c.get()), 7);
    {
        Model m(small_net(rng, 1, 6, 6));
        EXPECT_EQ(net_quantize_conv(m.net.get(), nullptr), 7);
        // A calibration shape the layers cannot take: its reshape status,
        // no layer touched, and the net still runs at its own shape.
        const std::string before = m.saved();
        TensorPtr tiny = tensor(1, 2, 1, 1, {1, 2});
        EXPECT_EQ(quantize_quiet(m.net.get(), tiny.get()), 5);
        EXPECT_TRUE(m.saved() == before);
        EXPECT_EQ(m.forward(calib, 1, 2, 6, 6), 0);
        // A layer without a forward operation: 7, the layers before it converted.
        LayerForwardOp op = m.net->layers[3]->forward;
        m.net->layers[3]->forward = nullptr;
        EXPECT_EQ(quantize_quiet(m.net.get(), c.get()), 7);
        m.net->layers[3]->forward = op;
        EXPECT_EQ(conv_of(m, 0)->quantized, 1);
        EXPECT_EQ(conv_of(m, 3)->quantized, 0);
    }
    Model two(ModelBytes()
                  .header()
                  .u8(2)
                  .input("a", 1, 2, 6, 6)
                  .input("b", 1, 2, 6, 6)
                  .u8(1)
                  .name("out")
                  .layer("r", LAYER_RELU, "", {"a"}, {"out"})
                  .bytes());
    EXPECT_EQ(net_quantize_conv(two.net.get(), c.get()), 7);
    // Calibration inputs without a usable percentile leave the first
    // layer float; the net still converts what it can.
    const std::pair<float, QuantizeOutcome> cases[] = {{0.0f, QuantizeOutcome::ZeroPercentile},
                                                       {NAN, QuantizeOutcome::NonFinitePercentile},
                                                       {1e-39f, QuantizeOutcome::NonFiniteInputScale}};
    for (const auto& [value, outcome] : cases) {
        Model m(small_net(rng, 1, 6, 6));
        TensorPtr flat = tensor(1, 2, 6, 6, std::vector<float>(72, value));
        std::vector<vo::LayerQuantizeReport> reports;
        EXPECT_EQ(quantize_quiet(m.net.get(), flat.get(), &reports), 0) << value;
        ASSERT_EQ(reports.size(), 4u);
        EXPECT_EQ(reports[0].outcome, outcome) << value;
        EXPECT_EQ(conv_of(m, 0)->quantized, 0);
        if (std::isfinite(value)) {
            EXPECT_EQ(fc_of(m, 4)->quantized, 1) << value;
        }
    }
    Model m(small_net(rng, 1, 6, 6));
    TensorPtr empty = tensor(0, 2, 6, 6, {});
    EXPECT_EQ(vo::quantize_conv_layer(conv_of(m, 0), empty.get(), nullptr), QuantizeOutcome::NoInputValues);
    EXPECT_EQ(vo::quantize_conv_layer(conv_of(m, 0), nullptr, nullptr), QuantizeOutcome::NoInputValues);
    EXPECT_EQ(quantize_quiet(m.net.get(), empty.get()), 5);
    EXPECT_EQ(conv_of(m, 0)->quantized, 0);
}

// ---- the face networks ----

const std::string kMtcnn = std::string(VONET_TEST_DATA_DIR) + "/mtcnn/";

std::vector<float> read_floats(const std::string& path) {
    const std::string bytes = vo_test::read_file(path);
    std::vector<float> v(bytes.size() / sizeof(float));
    memcpy(v.data(), bytes.data(), v.size() * sizeof(float));
    return v;
}

// Square face crops of the photos, resized to size x size with the
// library's bilinear resizer and laid out like the networks' reference
// inputs: planar RGB with x and y swapped, (pixel - 127.5) / 128. Jitter 1
// to 3 shifts and scales each box by 1/shiftDivisor of its side.
std::vector<float> face_crops(int size, int jitter, int shiftDivisor = 10) {
    struct Face {
        const char* photo;
        VRect box;
    };
    const Face faces[] = {
        {"test1.jpg", {81, 23, 81, 81}}, {"test1.jpg", {291, 90, 79, 79}}, {"test2.jpg", {170, 78, 198, 198}}};
    std::vector<float> out;
    for (const Face& f : faces) {
        int w = 0, h = 0, channels = 0;
        uint8_t* rgb =
            stbi_load((std::string(VONET_TEST_DATA_DIR) + "/photos/" + f.photo).c_str(), &w, &h, &channels, 3);
        EXPECT_NE(rgb, nullptr);
        if (!rgb) return {};
        VRect box = f.box;
        const int d = box.width / shiftDivisor;
        const int dx[] = {0, d, -d, d}, dy[] = {0, d, -d, -d}, ds[] = {0, d, -d, 0};
        box.x += dx[jitter];
        box.y += dy[jitter];
        box.width += ds[jitter];
        box.height += ds[jitter];
        std::vector<uint8_t> crop(size_t(box.width) * box.height * 3), small(size_t(size) * size * 3);
        extract_area_from_image(rgb, w, h, 3, w * 3, crop.data(), box);
        stbi_image_free(rgb);
        resizer_bilinear_color(crop.data(), box.width, box.height, box.width * 3, small.data(), size, size,
                               size * 3);
        for (int ch = 0; ch < 3; ++ch)
            for (int x = 0; x < size; ++x)
                for (int y = 0; y < size; ++y)
                    out.push_back((float(small[(size_t(y) * size + x) * 3 + ch]) - 127.5f) * 0.0078125f);
    }
    return out;
}

// Cosine similarity of images [first, first + count) of two batches.
double cosine(const Tensor* a, const Tensor* b, int first, int count) {
    const int per = a->capacity / a->num;
    double ab = 0, aa = 0, bb = 0;
    for (int i = first * per; i < (first + count) * per; ++i) {
        ab += double(a->data[i]) * b->data[i];
        aa += double(a->data[i]) * a->data[i];
        bb += double(b->data[i]) * b->data[i];
    }
    return ab / std::sqrt(aa * bb);
}

// Calibrated on one batch (the reference crop and shifted, scaled crops of
// the photos' three faces), checked on other crops: boxes shifted further,
// as a later stage of the detector sees them, and the faces' centred boxes.
// The reference crop alone is a poor calibration: its contrast is low, so
// the 99.9th percentiles clip the activations of ordinary crops (det3 then
// calls the third face a non-face). On centred boxes the box regression of
// det3 is close to 0 everywhere (there is nothing to correct), so its cosine
// measures the truncation noise of five int8 layers against values near 0:
// about 0.97 there, above 0.99 wherever there is an offset to regress.
TEST(QuantizeNet, FaceNetworksKeepTheirOutputsOnOtherCrops) {
    const struct {
        const char* id;
        int size;
        struct Output {
            const char* name;
            double leastShifted, leastCentred;  // cosines
        };
        std::vector<Output> outputs;
    } networks[] = {{"det2", 24, {{"prob1", 0.99, 0.99}, {"conv5-2", 0.99, 0.99}}},
                    {"det3", 48, {{"prob1", 0.99, 0.99}, {"conv6-2", 0.99, 0.96}, {"conv6-3", 0.99, 0.99}}}};
    for (const auto& nw : networks) {
        SCOPED_TRACE(nw.id);
        const std::string bytes = vo_test::read_file(kMtcnn + nw.id + ".vo");
        Model fp(bytes), q(bytes);
        ASSERT_EQ(fp.status, 0);
        ASSERT_EQ(q.status, 0);
        std::vector<float> calib = read_floats(kMtcnn + nw.id + "_b1.in.data.f32");
        for (int jitter = 1; jitter <= 3; ++jitter) {
            const std::vector<float> crops = face_crops(nw.size, jitter);
            calib.insert(calib.end(), crops.begin(), crops.end());
        }
        TensorPtr c = tensor(10, 3, nw.size, nw.size, calib);
        ASSERT_EQ(net_quantize_conv(q.net.get(), c.get()), 0);
        const std::string int8Bytes = q.saved();
        EXPECT_LT(int8Bytes.size(), bytes.size() / 3);
        Model reloaded(int8Bytes);
        ASSERT_EQ(reloaded.status, 0);
        EXPECT_TRUE(reloaded.saved() == int8Bytes);

        std::vector<float> check;
        for (int jitter = 1; jitter <= 3; ++jitter) {
            const std::vector<float> crops = face_crops(nw.size, jitter, 6);
            check.insert(check.end(), crops.begin(), crops.end());
        }
        const std::vector<float> centred = face_crops(nw.size, 0);
        check.insert(check.end(), centred.begin(), centred.end());
        ASSERT_EQ(check.size(), size_t(12) * 3 * nw.size * nw.size);
        ASSERT_EQ(fp.forward(check, 12, 3, nw.size, nw.size), 0);
        ASSERT_EQ(q.forward(check, 12, 3, nw.size, nw.size), 0);
        for (const auto& [name, leastShifted, leastCentred] : nw.outputs) {
            const Tensor* a = fp.out(name);
            const Tensor* b = q.out(name);
            ASSERT_EQ(a->capacity, b->capacity);
            float diff = 0.0f;
            for (int i = 0; i < a->capacity; ++i) diff = std::max(diff, std::fabs(a->data[i] - b->data[i]));
            const double shifted = cosine(a, b, 0, 9), centred = cosine(a, b, 9, 3);
            const std::string key = std::string(nw.id) + "_" + name;
            RecordProperty(key + "_cosine_shifted", std::to_string(shifted));
            RecordProperty(key + "_cosine_centred", std::to_string(centred));
            RecordProperty(key + "_max_abs_diff", std::to_string(diff));
            EXPECT_GE(shifted, leastShifted) << name << " max abs diff " << diff;
            EXPECT_GE(centred, leastCentred) << name << " max abs diff " << diff;
        }
        // Faces stay faces.
        for (int s = 9; s < 12; ++s) EXPECT_GT(q.out("prob1")->data[2 * s + 1], 0.9f) << s;
    }
}

}  // namespace
