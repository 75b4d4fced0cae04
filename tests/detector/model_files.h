// Small classifier files for the detector tests: networks of inner product
// layers whose scores and regressions are exact (weights 0 and 1, integer
// pixels), so that every decision of a cascade can be predicted.
#ifndef VONET_TESTS_DETECTOR_MODEL_FILES_H
#define VONET_TESTS_DETECTOR_MODEL_FILES_H

#include <vonet/vonet.h>

#include <cstdint>
#include <string>
#include <vector>

#include "test_util.h"

namespace detector_test {

// An inner product record: weights[i * outputs + o], then the bias.
inline std::string inner_product_record(int32_t inputs, const std::vector<float>& weights,
                                        const std::vector<float>& bias) {
    vo_test::ModelBytes m;
    m.u8(1).u8(0).i32(inputs).i32(int32_t(bias.size()));
    for (float w : weights) m.f32(w);
    for (float b : bias) m.f32(b);
    return m.bytes();
}

// A head: each output is its bias plus the patch values named by `picks`
// (one input index per output, -1 for none).
struct Head {
    std::vector<float> bias;
    std::vector<int> picks;
};

inline std::string head_record(int32_t inputs, const Head& head) {
    const size_t outputs = head.bias.size();
    std::vector<float> weights(size_t(inputs) * outputs, 0.0f);
    for (size_t o = 0; o < head.picks.size(); ++o)
        if (head.picks[o] >= 0) weights[size_t(head.picks[o]) * outputs + o] = 1.0f;
    return inner_product_record(inputs, weights, head.bias);
}

// A network with input "data" (1 x channel x height x width), a "prob" head
// and, when `box` is given, a "fc1b" head.
inline std::string head_net(int32_t width, int32_t height, int32_t channel, const Head& prob,
                            const Head* box = nullptr) {
    const int32_t inputs = width * height * channel;
    vo_test::ModelBytes m;
    m.header().u8(1).input("data", 1, channel, height, width);
    m.u8(box ? 2 : 1).name("prob");
    if (box) m.name("fc1b");
    m.layer("score", LAYER_INNER_PRODUCT, head_record(inputs, prob), {"data"}, {"prob"});
    if (box) m.layer("regress", LAYER_INNER_PRODUCT, head_record(inputs, *box), {"data"}, {"fc1b"});
    return m.bytes();
}

inline std::string params_bytes(int32_t classSize, int32_t width, int32_t height, int32_t channel) {
    return vo_test::ModelBytes().i32(classSize).i32(width).i32(height).i32(channel).bytes();
}

// dir/name_params.dat and, unless `model` is empty, dir/name.dat.
inline void write_classifier(const std::string& dir, const std::string& name, int32_t classSize, int32_t width,
                             int32_t height, int32_t channel, const std::string& model) {
    vo_test::write_file(dir + "/" + name + "_params.dat", params_bytes(classSize, width, height, channel));
    if (!model.empty()) vo_test::write_file(dir + "/" + name + ".dat", model);
}

// The synthetic cascade of the detection tests, 24 x 24 grey windows:
// - anet: label 1 when the window pixel (12, 12) is above 128, conf = that
//   pixel;
// - bnet: always label 1, conf 1, regression (1, 2, 20, 20);
// - cnet (24 x 24): label 1 when its patch pixel (12, 12) is above 180,
//   conf = that pixel, regression (0, 0, 24, 24).
constexpr int kWin = 24;
constexpr int kCentre = 12 * kWin + 12;

inline std::string anet_model() { return head_net(kWin, kWin, 1, Head{{128.0f, 0.0f}, {-1, kCentre}}); }

inline std::string bnet_model() {
    const Head box{{1.0f, 2.0f, 20.0f, 20.0f}, {}};
    return head_net(kWin, kWin, 1, Head{{0.0f, 1.0f}, {}}, &box);
}

inline std::string cnet_model() {
    const Head box{{0.0f, 0.0f, 24.0f, 24.0f}, {}};
    return head_net(kWin, kWin, 1, Head{{180.0f, 0.0f}, {-1, kCentre}}, &box);
}

// Writes the stages of `roles` ("anet", "bnet", "cnet") for cascade `name`.
inline void write_cascade(const std::string& dir, const std::string& name, const std::vector<std::string>& roles) {
    for (const std::string& role : roles) {
        const std::string model = role == "anet" ? anet_model() : role == "bnet" ? bnet_model() : cnet_model();
        write_classifier(dir, name + "_" + role, 2, kWin, kWin, 1, model);
    }
}

// The test image, 256 x 192 grey: square A of 200 at [96, 144) x [48, 96),
// square B of 160 at [176, 224) x [120, 168), 0 elsewhere (edges on 8-pixel
// blocks, so a JPEG keeps them flat).
constexpr int kImageW = 256;
constexpr int kImageH = 192;

inline std::vector<uint8_t> squares_image() {
    std::vector<uint8_t> image(size_t(kImageW) * kImageH, 0);
    for (int y = 48; y < 96; ++y)
        for (int x = 96; x < 144; ++x) image[size_t(y) * kImageW + x] = 200;
    for (int y = 120; y < 168; ++y)
        for (int x = 176; x < 224; ++x) image[size_t(y) * kImageW + x] = 160;
    return image;
}

// Parameters under which the image is searched at scale 1 on one level
// (24 / (192 * 0.125) = 1) with a step of 12 pixels.
inline void set_unit_search(VoDetector* detector) { set_detect_params(detector, 0.125f, 0.5f, 0.5f, 1); }

}  // namespace detector_test

#endif
