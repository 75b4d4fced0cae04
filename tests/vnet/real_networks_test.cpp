// Three trained face-detection networks: reference outputs, batches, and
// the first network run fully convolutionally on a larger image.
#include <vonet/vonet.h>

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "test_util.h"

namespace {

const std::string kDir = std::string(VONET_TEST_DATA_DIR) + "/mtcnn/";
constexpr float kTolerance = 1e-5f;

std::vector<float> read_floats(const std::string& path) {
    std::string bytes = vo_test::read_file(path);
    std::vector<float> v(bytes.size() / sizeof(float));
    memcpy(v.data(), bytes.data(), v.size() * sizeof(float));
    return v;
}

struct Output {
    const char* name;
    int channel;
};

struct Network {
    const char* id;
    int size;  // input height and width
    std::vector<Output> outputs;
};

const Network kNetworks[] = {
    {"det1", 12, {{"prob1", 2}, {"conv4-2", 4}}},
    {"det2", 24, {{"prob1", 2}, {"conv5-2", 4}}},
    {"det3", 48, {{"prob1", 2}, {"conv6-2", 4}, {"conv6-3", 10}}},
};

class Loaded {
public:
    explicit Loaded(const std::string& id) { status = vo_load_net((kDir + id + ".vo").c_str(), &net); }
    ~Loaded() { vo_release_net(&net); }
    Net* net = nullptr;
    int status = -1;
};

std::vector<float> uniform(std::mt19937& rng, size_t n) {
    std::uniform_real_distribution<float> dist(-1.0f, 1.0f);
    std::vector<float> v(n);
    for (float& x : v) x = dist(rng);
    return v;
}

std::vector<float> values(const Tensor* t) { return std::vector<float>(t->data, t->data + t->capacity); }

::testing::AssertionResult near(const std::vector<float>& got, const std::vector<float>& want, float tolerance) {
    if (got.size() != want.size())
        return ::testing::AssertionFailure() << got.size() << " values, expected " << want.size();
    for (size_t i = 0; i < got.size(); ++i)
        if (!(std::fabs(got[i] - want[i]) <= tolerance))
            return ::testing::AssertionFailure() << "value " << i << ": " << got[i] << ", expected " << want[i];
    return ::testing::AssertionSuccess();
}

TEST(RealNetworks, ReproduceTheReferenceOutputs) {
    for (const Network& nw : kNetworks) {
        SCOPED_TRACE(nw.id);
        Loaded m(nw.id);
        ASSERT_EQ(m.status, 0);
        std::vector<float> input = read_floats(kDir + nw.id + "_b1.in.data.f32");
        ASSERT_EQ(input.size(), size_t(3 * nw.size * nw.size));
        ASSERT_EQ(vo_forward_net(m.net, input.data(), 1, 3, nw.size, nw.size), 0);
        for (const Output& o : nw.outputs) {
            SCOPED_TRACE(o.name);
            Tensor* t = vo_output_by_name(m.net, o.name);
            ASSERT_NE(t, nullptr);
            EXPECT_EQ(t->num, 1);
            EXPECT_EQ(t->channel, o.channel);
            EXPECT_EQ(t->height * t->width, 1);
            EXPECT_TRUE(near(values(t), read_floats(kDir + nw.id + "_b1.out." + o.name + ".f32"), kTolerance));
        }
    }
}

TEST(RealNetworks, SaveBackByteForByte) {
    vo_test::TempDir dir;
    for (const Network& nw : kNetworks) {
        Loaded m(nw.id);
        ASSERT_EQ(m.status, 0);
        ASSERT_EQ(vo_save_net(dir.file("copy.vo").c_str(), m.net), 0);
        EXPECT_TRUE(vo_test::read_file(dir.file("copy.vo")) == vo_test::read_file(kDir + nw.id + ".vo")) << nw.id;
    }
}

// Each sample of a batch gives what it gives alone. Convolutions run image
// by image, so the convolution-only det1 matches bit for bit; the inner
// products of det2 and det3 put the samples into 4-row blocks of one
// matrix product, which round a little differently from a single row.
TEST(RealNetworks, BatchSamplesMatchSingleRuns) {
    std::mt19937 rng(11);
    const int batch = 6;
    for (const Network& nw : kNetworks) {
        SCOPED_TRACE(nw.id);
        const size_t sample = size_t(3) * nw.size * nw.size;
        std::vector<float> inputs = read_floats(kDir + nw.id + "_b1.in.data.f32");
        // The reference crop, then shifted, mirrored and noisy variants of it.
        for (int s = 1; s < batch; ++s) {
            std::vector<float> noise = uniform(rng, sample);
            for (size_t i = 0; i < sample; ++i) {
                size_t from = (s % 2) ? sample - 1 - i : (i + size_t(s) * 7) % sample;
                inputs.push_back(inputs[from] * 0.8f + noise[i] * 0.2f * float(s) / batch);
            }
        }
        Loaded whole(nw.id), single(nw.id);
        ASSERT_EQ(whole.status, 0);
        ASSERT_EQ(single.status, 0);
        ASSERT_EQ(vo_forward_net(whole.net, inputs.data(), batch, 3, nw.size, nw.size), 0);
        for (int s = 0; s < batch; ++s) {
            ASSERT_EQ(vo_forward_net(single.net, inputs.data() + s * sample, 1, 3, nw.size, nw.size), 0);
            for (const Output& o : nw.outputs) {
                SCOPED_TRACE(testing::Message() << o.name << ", sample " << s);
                Tensor* all = vo_output_by_name(whole.net, o.name);
                ASSERT_EQ(all->num, batch);
                std::vector<float> part(all->data + s * o.channel, all->data + (s + 1) * o.channel);
                std::vector<float> alone = values(vo_output_by_name(single.net, o.name));
                if (std::string(nw.id) == "det1") {
                    EXPECT_EQ(memcmp(part.data(), alone.data(), alone.size() * sizeof(float)), 0);
                } else {
                    EXPECT_TRUE(near(part, alone, kTolerance));
                }
            }
        }
    }
}

// det1 is fully convolutional: on a larger image, each output position is
// what det1 gives on the 12x12 crop under it (the net's stride is 2).
// Positions whose crop would leave the image are not compared.
TEST(RealNetworks, FirstNetworkSlidesOverALargerImage) {
    std::mt19937 rng(12);
    const int height = 37, width = 53;
    std::vector<float> image = uniform(rng, size_t(3) * height * width);
    Loaded big("det1"), crop("det1");
    ASSERT_EQ(big.status, 0);
    ASSERT_EQ(crop.status, 0);
    ASSERT_EQ(vo_forward_net(big.net, image.data(), 1, 3, height, width), 0);
    Tensor* prob = vo_output_by_name(big.net, "prob1");
    Tensor* box = vo_output_by_name(big.net, "conv4-2");
    ASSERT_EQ(prob->channel, 2);
    ASSERT_EQ(box->channel, 4);
    // conv 35x51, pooled (rounding up) 18x26, two more convs 14x22.
    ASSERT_EQ(prob->height, 14);
    ASSERT_EQ(prob->width, 22);
    ASSERT_EQ(box->height, 14);
    ASSERT_EQ(box->width, 22);

    std::vector<float> patch(3 * 12 * 12);
    int compared = 0;
    for (int y = 0; 2 * y + 12 <= height; ++y)
        for (int x = 0; 2 * x + 12 <= width; ++x) {
            for (int c = 0; c < 3; ++c)
                for (int r = 0; r < 12; ++r)
                    memcpy(&patch[(c * 12 + r) * 12], &image[(size_t(c) * height + 2 * y + r) * width + 2 * x],
                           12 * sizeof(float));
            ASSERT_EQ(vo_forward_net(crop.net, patch.data(), 1, 3, 12, 12), 0);
            for (const Output& o : {Output{"prob1", 2}, Output{"conv4-2", 4}}) {
                const Tensor* wide = vo_output_by_name(big.net, o.name);
                std::vector<float> at;
                for (int c = 0; c < o.channel; ++c) at.push_back(wide->data[(c * 14 + y) * 22 + x]);
                EXPECT_TRUE(near(at, values(vo_output_by_name(crop.net, o.name)), kTolerance))
                    << o.name << " at " << y << "," << x;
            }
            ++compared;
        }
    EXPECT_EQ(compared, 13 * 21);
}

}  // namespace
