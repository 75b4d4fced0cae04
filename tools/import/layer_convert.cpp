// Per-layer conversion from Caffe to model records.
#include "layer_convert.h"

#include <vonet/activation.h>
#include <vonet/convolution.h>
#include <vonet/deconvolution.h>
#include <vonet/inner_product.h>
#include <vonet/normalization.h>
#include <vonet/pooling.h>
#include <vonet/softmax.h>
#include <vonet/tensor_layers.h>

#include <climits>
#include <cmath>
#include <cstdlib>
#include <cstring>

namespace vo::caffe_import {
namespace {

// Strips leading axes of size 1: Caffe's legacy 4-D blobs pad vectors and
// matrices that way, e.g. a bias of 1x1x1xM.
Dims significant(const Dims& dims) {
    size_t first = 0;
    while (first + 1 < dims.size() && dims[first] == 1) ++first;
    return Dims(dims.begin() + long(first), dims.end());
}

// Saturates at INT64_MAX: declared sizes can be absurd, and no real blob
// or tensor comes near the limit.
int64_t product(const Dims& dims, size_t first = 0, size_t last = SIZE_MAX) {
    int64_t p = 1;
    for (size_t i = first; i < dims.size() && i < last; ++i)
        if (__builtin_mul_overflow(p, dims[i], &p)) return INT64_MAX;
    return p;
}

// Caffe's shape of a stored blob: `shape`, else the legacy four fields.
Dims blob_dims(const caffe::BlobProto& blob) {
    if (blob.has_shape()) return Dims(blob.shape().dim().begin(), blob.shape().dim().end());
    if (blob.has_num() || blob.has_channels() || blob.has_height() || blob.has_width())
        return {blob.num(), blob.channels(), blob.height(), blob.width()};
    return {};
}

// One layer's conversion: its messages all start with the layer's label.
class Conversion {
public:
    Conversion(const LayerSource& source, ModelBuilder* builder, std::map<std::string, Dims>* shapes,
               std::vector<std::string>* warnings, std::string* error)
        : src_(source),
          layer_(*source.layer),
          builder_(builder),
          shapes_(shapes),
          warnings_(warnings),
          error_(error) {}

    bool run();

private:
    bool refuse(const std::string& why) {
        *error_ = layer_label(layer_) + why;
        return false;
    }
    bool out_of_memory() { return refuse("out of memory"); }
    void warn(const std::string& what) { warnings_->push_back(layer_label(layer_) + what); }

    // Checks the numbers of bottoms and tops; `maxBottoms`/`maxTops` 0 means
    // no upper limit.
    bool counts(int minBottoms, int maxBottoms, int minTops, int maxTops);
    bool not_in_place(const char* modelType);
    const Dims& in(int k = 0) const { return shapes_->at(layer_.bottom(k)); }
    bool axis_index(int64_t axis, size_t rank, const char* what, int* result);
    bool four_axes();
    bool fits(const Dims& dims);
    bool set_output(int k, const Dims& dims);
    bool connect();

    // Blob k of `weights` (the layer's own trained blobs unless given) as
    // floats, after checking that it has the shape `expected`.
    bool blob(int k, const Dims& expected, const char* what, std::vector<float>* values,
              const caffe::LayerParameter* owner = nullptr);

    bool window(int64_t* kh, int64_t* kw, int64_t* sh, int64_t* sw, int64_t* ph, int64_t* pw);
    bool convolution();
    bool deconvolution();
    bool pooling();
    bool inner_product();
    bool prelu_record(const std::vector<float>& slopes);
    bool relu();
    bool prelu();
    bool abs_val();
    bool scale_params(const caffe::LayerParameter& scale, const caffe::LayerParameter* weights, int64_t channels,
                      std::vector<float>* gamma, std::vector<float>* beta);
    bool batch_norm();
    bool scale();
    bool affine(const std::vector<float>& scale, const std::vector<float>& bias, const std::string& output);
    bool softmax();
    bool concat();
    bool slice();
    bool flatten();
    bool eltwise();
    bool dropout();
    bool normalize();

    const LayerSource& src_;
    const caffe::LayerParameter& layer_;
    ModelBuilder* builder_;
    std::map<std::string, Dims>* shapes_;
    std::vector<std::string>* warnings_;
    std::string* error_;
};

bool Conversion::counts(int minBottoms, int maxBottoms, int minTops, int maxTops) {
    const int b = layer_.bottom_size(), t = layer_.top_size();
    if (b < minBottoms || (maxBottoms && b > maxBottoms)) {
        if (minBottoms == maxBottoms)
            return refuse("needs " + std::to_string(minBottoms) + " input" + (minBottoms == 1 ? "" : "s") + ", has " +
                          std::to_string(b));
        return refuse("needs at least " + std::to_string(minBottoms) + " inputs, has " + std::to_string(b));
    }
    if (t < minTops || (maxTops && t > maxTops)) {
        if (minTops == maxTops)
            return refuse("needs " + std::to_string(minTops) + " top" + (minTops == 1 ? "" : "s") + ", has " +
                          std::to_string(t));
        return refuse("needs at least " + std::to_string(minTops) + " tops, has " + std::to_string(t));
    }
    return true;
}

bool Conversion::not_in_place(const char* modelType) {
    for (const std::string& top : layer_.top())
        for (const std::string& bottom : layer_.bottom())
            if (top == bottom)
                return refuse("works in place on '" + top + "', which the model's " + modelType +
                              " layer cannot do");
    return true;
}

// A negative axis counts from the Caffe blob's own rank; a blob of rank r
// is the model's 4-D tensor with 1 in the axes after r, so the index stays.
bool Conversion::axis_index(int64_t axis, size_t rank, const char* what, int* result) {
    const int64_t a = axis < 0 ? axis + int64_t(rank) : axis;
    if (a < 0 || a >= int64_t(rank))
        return refuse(std::string(what) + " " + std::to_string(axis) + " is out of range for a " +
                      std::to_string(rank) + "-axis input");
    *result = int(a);
    return true;
}

bool Conversion::four_axes() {
    if (in().size() != 4) return refuse("needs a 4-axis input (N, C, H, W), gets " + dims_text(in()));
    return true;
}

bool Conversion::fits(const Dims& dims) {
    int64_t count = 1;
    for (int64_t d : dims) {
        if (d < 1) return refuse("its output would be empty (" + dims_text(dims) + ")");
        if (d > INT32_MAX || (count *= d) > INT32_MAX)
            return refuse("its output would have more than 2^31-1 values (" + dims_text(dims) + ")");
    }
    return true;
}

bool Conversion::set_output(int k, const Dims& dims) {
    if (!fits(dims)) return false;
    (*shapes_)[layer_.top(k)] = dims;
    return true;
}

bool Conversion::connect() {
    std::vector<std::string> inputs(layer_.bottom().begin(), layer_.bottom().end());
    std::vector<std::string> outputs(layer_.top().begin(), layer_.top().end());
    return builder_->connect_last(inputs, outputs) || out_of_memory();
}

bool Conversion::blob(int k, const Dims& expected, const char* what, std::vector<float>* values,
                      const caffe::LayerParameter* owner) {
    const caffe::LayerParameter* weights = owner ? owner : src_.weights;
    const caffe::LayerParameter& named = owner ? *owner : layer_;
    if (!weights || weights->blobs_size() == 0)
        return refuse("the weights file has no trained blobs for layer '" + named.name() + "'");
    if (k >= weights->blobs_size())
        return refuse("the weights file has " + std::to_string(weights->blobs_size()) + " blob(s) for layer '" +
                      named.name() + "'; its " + what + " would be blob " + std::to_string(k));
    const caffe::BlobProto& b = weights->blobs(k);
    const int64_t count = b.data_size() > 0 ? b.data_size() : b.double_data_size();
    const Dims dims = blob_dims(b);
    const int64_t need = product(expected);
    const std::string label = "blob " + std::to_string(k) + " (" + what + ")";
    if (!dims.empty() && product(dims) != count)
        return refuse(label + " holds " + std::to_string(count) + " values but its shape " + dims_text(dims) +
                      " needs " + std::to_string(product(dims)));
    if (count != need || (!dims.empty() && significant(dims) != significant(expected)))
        return refuse(label + " has shape " + (dims.empty() ? std::to_string(count) : dims_text(dims)) + " (" +
                      std::to_string(count) + " values); the layer needs " + dims_text(expected));
    if (b.data_size() > 0) {
        values->assign(b.data().begin(), b.data().end());
    } else {
        values->clear();
        for (double v : b.double_data()) values->push_back(float(v));
    }
    return true;
}

// Kernel, stride and padding of a convolution: one value for both axes,
// two for (h, w), or the _h/_w fields.
bool Conversion::window(int64_t* kh, int64_t* kw, int64_t* sh, int64_t* sw, int64_t* ph, int64_t* pw) {
    const caffe::ConvolutionParameter& p = layer_.convolution_param();
    if (p.group() != 1) return refuse("grouped convolution (group " + std::to_string(p.group()) + ") has no model equivalent");
    for (uint32_t d : p.dilation())
        if (d != 1) return refuse("dilation " + std::to_string(d) + " has no model equivalent");
    if (p.axis() != 1) return refuse("axis " + std::to_string(p.axis()) + " has no model equivalent (only 1)");
    if (p.has_kernel_h() || p.has_kernel_w()) {
        if (!p.has_kernel_h() || !p.has_kernel_w() || p.kernel_size_size() > 0)
            return refuse("kernel_h and kernel_w go together, without kernel_size");
        *kh = p.kernel_h();
        *kw = p.kernel_w();
    } else if (p.kernel_size_size() == 1 || p.kernel_size_size() == 2) {
        *kh = p.kernel_size(0);
        *kw = p.kernel_size(p.kernel_size_size() - 1);
    } else {
        return refuse(p.kernel_size_size() == 0 ? "no kernel size" : "only 2-D kernels are supported");
    }
    if (p.has_stride_h() || p.has_stride_w()) {
        if (!p.has_stride_h() || !p.has_stride_w() || p.stride_size() > 0)
            return refuse("stride_h and stride_w go together, without stride");
        *sh = p.stride_h();
        *sw = p.stride_w();
    } else if (p.stride_size() <= 2) {
        *sh = p.stride_size() ? p.stride(0) : 1;
        *sw = p.stride_size() ? p.stride(p.stride_size() - 1) : 1;
    } else {
        return refuse("only 2-D strides are supported");
    }
    if (p.has_pad_h() || p.has_pad_w()) {
        if (p.pad_size() > 0) return refuse("pad_h and pad_w go without pad");
        *ph = p.pad_h();
        *pw = p.pad_w();
    } else if (p.pad_size() <= 2) {
        *ph = p.pad_size() ? p.pad(0) : 0;
        *pw = p.pad_size() ? p.pad(p.pad_size() - 1) : 0;
    } else {
        return refuse("only 2-D padding is supported");
    }
    if (*kh < 1 || *kw < 1 || *sh < 1 || *sw < 1) return refuse("kernel and stride must be at least 1");
    if (*kh > INT32_MAX || *kw > INT32_MAX || *sh > INT32_MAX || *sw > INT32_MAX || *ph > INT32_MAX / 2 ||
        *pw > INT32_MAX / 2)
        return refuse("kernel, stride or padding out of range");
    if (p.num_output() < 1 || p.num_output() > INT32_MAX) return refuse("num_output must be at least 1");
    return true;
}

bool Conversion::convolution() {
    if (!counts(1, 1, 1, 1) || !not_in_place("Convolution") || !four_axes()) return false;
    int64_t kh, kw, sh, sw, ph, pw;
    if (!window(&kh, &kw, &sh, &sw, &ph, &pw)) return false;
    const caffe::ConvolutionParameter& p = layer_.convolution_param();
    const Dims x = in();
    const int64_t m = p.num_output();
    if (x[2] + 2 * ph < kh || x[3] + 2 * pw < kw)
        return refuse("its kernel does not fit the padded " + dims_text(x) + " input");
    const Dims y = {x[0], m, (x[2] + 2 * ph - kh) / sh + 1, (x[3] + 2 * pw - kw) / sw + 1};
    std::vector<float> weights, bias;
    if (!blob(0, {m, x[1], kh, kw}, "weights", &weights)) return false;
    if (p.bias_term() && !blob(1, {m}, "bias", &bias)) return false;
    if (!set_output(0, y)) return false;

    Convolution* conv = builder_->add_layer(LAYER_CONVOLUTION, layer_.name(), create_convolution);
    if (!conv) return out_of_memory();
    conv->weights = ModelBuilder::make_tensor(int32_t(m), int32_t(x[1]), int32_t(kh), int32_t(kw), weights.data());
    conv->strideW = int32_t(sw);
    conv->strideH = int32_t(sh);
    conv->padW = int32_t(pw);
    conv->padH = int32_t(ph);
    conv->is1x1 = kw == 1 && kh == 1 && sw == 1 && sh == 1 && pw == 0 && ph == 0;
    conv->hasBias = p.bias_term();
    if (!conv->weights) return out_of_memory();
    if (conv->hasBias && !(conv->bias = ModelBuilder::make_tensor(1, int32_t(m), 1, 1, bias.data())))
        return out_of_memory();
    return connect();
}

bool Conversion::deconvolution() {
    if (!counts(1, 1, 1, 1) || !not_in_place("Deconvolution") || !four_axes()) return false;
    int64_t kh, kw, sh, sw, ph, pw;
    if (!window(&kh, &kw, &sh, &sw, &ph, &pw)) return false;
    const caffe::ConvolutionParameter& p = layer_.convolution_param();
    const Dims x = in();
    const int64_t co = p.num_output();
    const Dims y = {x[0], co, kh + (x[2] - 1) * sh - 2 * ph, kw + (x[3] - 1) * sw - 2 * pw};
    std::vector<float> weights, bias;
    if (!blob(0, {x[1], co, kh, kw}, "weights", &weights)) return false;
    if (p.bias_term() && !blob(1, {co}, "bias", &bias)) return false;
    if (!set_output(0, y)) return false;

    Deconv* deconv = builder_->add_layer(LAYER_DECONVOLUTION, layer_.name(), create_deconv);
    if (!deconv) return out_of_memory();
    deconv->weights =
        ModelBuilder::make_tensor(int32_t(x[1]), int32_t(co), int32_t(kh), int32_t(kw), weights.data());
    deconv->strideW = int32_t(sw);
    deconv->strideH = int32_t(sh);
    deconv->padW = int32_t(pw);
    deconv->padH = int32_t(ph);
    deconv->is1x1 = kw == 1 && kh == 1 && sw == 1 && sh == 1 && pw == 0 && ph == 0;
    deconv->hasBias = p.bias_term();
    if (!deconv->weights) return out_of_memory();
    if (deconv->hasBias && !(deconv->bias = ModelBuilder::make_tensor(1, int32_t(co), 1, 1, bias.data())))
        return out_of_memory();
    return connect();
}

bool Conversion::pooling() {
    if (!counts(1, 1, 1, 1) || !not_in_place("Pooling") || !four_axes()) return false;
    const caffe::PoolingParameter& p = layer_.pooling_param();
    if (p.pool() == caffe::PoolingParameter::STOCHASTIC) return refuse("stochastic pooling has no model equivalent");
    if (p.round_mode() != caffe::PoolingParameter::CEIL)
        return refuse("round_mode FLOOR has no model equivalent (the model rounds up)");
    const Dims x = in();
    int64_t kh, kw, sh, sw, ph, pw;
    if (p.has_pad_h() || p.has_pad_w()) {
        ph = p.pad_h();
        pw = p.pad_w();
    } else {
        ph = pw = p.pad();
    }
    if (p.has_stride_h() || p.has_stride_w()) {
        if (!p.has_stride_h() || !p.has_stride_w()) return refuse("stride_h and stride_w go together");
        sh = p.stride_h();
        sw = p.stride_w();
    } else {
        sh = sw = p.stride();
    }
    if (p.global_pooling()) {
        if (ph != 0 || pw != 0 || sh != 1 || sw != 1)
            return refuse("global pooling takes no padding and stride 1");
        kh = x[2];
        kw = x[3];
    } else if (p.has_kernel_h() || p.has_kernel_w()) {
        if (!p.has_kernel_h() || !p.has_kernel_w() || p.has_kernel_size())
            return refuse("kernel_h and kernel_w go together, without kernel_size");
        kh = p.kernel_h();
        kw = p.kernel_w();
    } else if (p.has_kernel_size()) {
        kh = kw = p.kernel_size();
    } else {
        return refuse("no kernel size");
    }
    if (kh < 1 || kw < 1 || sh < 1 || sw < 1) return refuse("kernel and stride must be at least 1");
    if (ph >= kh || pw >= kw) return refuse("padding must be smaller than the kernel");
    if (kh > INT32_MAX || kw > INT32_MAX || sh > INT32_MAX || sw > INT32_MAX)
        return refuse("kernel or stride out of range");
    if (x[2] + ph < kh || x[3] + pw < kw) return refuse("its kernel does not fit the " + dims_text(x) + " input");
    // Caffe's output size rule (rounding up, then dropping a last window
    // that starts in the padding) is the model's own.
    int32_t ow = 0, oh = 0;
    calculate_pool_result_size(int32_t(x[3]), int32_t(x[2]), int32_t(kw), int32_t(kh), int32_t(sw), int32_t(sh),
                               int32_t(pw), int32_t(ph), &ow, &oh);
    if (!set_output(0, {x[0], x[1], oh, ow})) return false;
    if (p.pool() == caffe::PoolingParameter::AVE &&
        ((oh - 1) * sh - ph + kh > x[2] + ph || (ow - 1) * sw - pw + kw > x[3] + pw))
        warn("at the declared input size a last average window runs past the padded edge: Caffe divides it "
             "by the clipped window, the model by the full kernel area, so those outputs differ");

    Pooling* pool = builder_->add_layer(LAYER_POOLING, layer_.name(), create_pooling);
    if (!pool) return out_of_memory();
    pool->type = p.pool() == caffe::PoolingParameter::MAX ? 0 : 2;
    pool->kernelW = int32_t(kw);
    pool->kernelH = int32_t(kh);
    pool->padW = int32_t(pw);
    pool->padH = int32_t(ph);
    pool->strideW = int32_t(sw);
    pool->strideH = int32_t(sh);
    pool->global = p.global_pooling();
    return connect();
}

bool Conversion::inner_product() {
    if (!counts(1, 1, 1, 1) || !not_in_place("InnerProduct")) return false;
    const caffe::InnerProductParameter& p = layer_.inner_product_param();
    const Dims x = in();
    int axis = 0;
    if (!axis_index(p.axis(), x.size(), "axis", &axis)) return false;
    if (axis != 1) return refuse("axis " + std::to_string(p.axis()) + " has no model equivalent (only 1)");
    if (p.num_output() < 1 || p.num_output() > INT32_MAX) return refuse("num_output must be at least 1");
    const int64_t k = product(x, 1), o = p.num_output();
    if (k > INT32_MAX) return refuse("its input is too large");
    std::vector<float> weights, bias;
    if (!blob(0, p.transpose() ? Dims{k, o} : Dims{o, k}, "weights", &weights)) return false;
    if (p.bias_term() && !blob(1, {o}, "bias", &bias)) return false;
    if (!set_output(0, {x[0], o})) return false;

    InnerProduct* fc = builder_->add_layer(LAYER_INNER_PRODUCT, layer_.name(), create_inner_product);
    if (!fc) return out_of_memory();
    fc->inputDim = int32_t(k);
    fc->outputDim = int32_t(o);
    fc->hasBias = p.bias_term();
    // Caffe stores (output, input); the model wants the input index outermost.
    fc->weights = ModelBuilder::make_tensor(1, 1, int32_t(k), int32_t(o), p.transpose() ? weights.data() : nullptr);
    if (!fc->weights) return out_of_memory();
    if (!p.transpose())
        for (int64_t i = 0; i < k; ++i)
            for (int64_t j = 0; j < o; ++j) fc->weights->data[i * o + j] = weights[size_t(j * k + i)];
    if (fc->hasBias && !(fc->bias = ModelBuilder::make_tensor(1, 1, 1, int32_t(o), bias.data())))
        return out_of_memory();
    return connect();
}

// A PReLU record with one slope per channel of the input.
bool Conversion::prelu_record(const std::vector<float>& slopes) {
    PReLU* prelu = builder_->add_layer(LAYER_PRELU, layer_.name(), create_prelu);
    if (!prelu) return out_of_memory();
    prelu->channel = int32_t(slopes.size());
    prelu->slope = ModelBuilder::make_tensor(1, prelu->channel, 1, 1, slopes.data());
    if (!prelu->slope) return out_of_memory();
    return connect();
}

bool Conversion::relu() {
    if (!counts(1, 1, 1, 1)) return false;
    if (!set_output(0, in())) return false;
    const float slope = layer_.relu_param().negative_slope();
    if (slope == 0.0f) {
        if (!builder_->add_layer(LAYER_RELU, layer_.name(), create_relu)) return out_of_memory();
        return connect();
    }
    // A leaky ReLU is a PReLU with one slope for every channel.
    const int64_t channels = in().size() >= 2 ? in()[1] : 1;
    return prelu_record(std::vector<float>(size_t(channels), slope));
}

bool Conversion::prelu() {
    if (!counts(1, 1, 1, 1)) return false;
    if (in().size() < 2) return refuse("needs an input with a channel axis, gets " + dims_text(in()));
    const int64_t channels = in()[1];
    const bool shared = layer_.prelu_param().channel_shared();
    std::vector<float> slopes;
    if (!blob(0, {shared ? 1 : channels}, "slopes", &slopes)) return false;
    if (shared) slopes.assign(size_t(channels), slopes[0]);
    if (!set_output(0, in())) return false;
    return prelu_record(slopes);
}

bool Conversion::abs_val() {
    if (!counts(1, 1, 1, 1) || !set_output(0, in())) return false;
    if (!builder_->add_layer(LAYER_ABS, layer_.name(), create_abs)) return out_of_memory();
    return connect();
}

// gamma (and beta) of a Scale layer over the channel axis.
bool Conversion::scale_params(const caffe::LayerParameter& scale, const caffe::LayerParameter* weights,
                              int64_t channels, std::vector<float>* gamma, std::vector<float>* beta) {
    const caffe::ScaleParameter& p = scale.scale_param();
    const std::string which = &scale == &layer_ ? std::string() : "its Scale layer '" + scale.name() + "': ";
    int axis = 0;
    if (!axis_index(p.axis(), in().size(), "Scale axis", &axis)) return false;
    const bool channelOnly = p.num_axes() == 1 || (p.num_axes() == -1 && in().size() == 2);
    if (axis != 1 || !channelOnly) return refuse(which + "only a per-channel scale (axis 1, num_axes 1) has a model equivalent");
    if (!weights) return refuse("the weights file has no trained blobs for layer '" + scale.name() + "'");
    if (!blob(0, {channels}, "scale", gamma, weights)) return false;
    if (p.bias_term()) return blob(1, {channels}, "bias", beta, weights);
    beta->assign(size_t(channels), 0.0f);
    return true;
}

bool Conversion::affine(const std::vector<float>& scale, const std::vector<float>& bias, const std::string& output) {
    const Dims x = in();
    if (!fits(x)) return false;
    (*shapes_)[output] = x;
    BatchNorm* bn = builder_->add_layer(LAYER_BATCHNORM, layer_.name(), create_batchnorm);
    if (!bn) return out_of_memory();
    bn->channel = int32_t(scale.size());
    bn->scale = ModelBuilder::make_tensor(1, bn->channel, 1, 1, scale.data());
    bn->bias = ModelBuilder::make_tensor(1, bn->channel, 1, 1, bias.data());
    if (!bn->scale || !bn->bias) return out_of_memory();
    return builder_->connect_last({layer_.bottom(0)}, {output}) || out_of_memory();
}

bool Conversion::batch_norm() {
    if (!counts(1, 1, 1, 1)) return false;
    if (in().size() < 2) return refuse("needs an input with a channel axis, gets " + dims_text(in()));
    const caffe::BatchNormParameter& p = layer_.batch_norm_param();
    if (p.has_use_global_stats() && !p.use_global_stats())
        return refuse("use_global_stats false normalises by the batch's own statistics, which has no model equivalent");
    const int64_t channels = in()[1];
    std::vector<float> mean, variance, factor;
    if (!blob(0, {channels}, "mean", &mean) || !blob(1, {channels}, "variance", &variance) ||
        !blob(2, {1}, "moving average factor", &factor))
        return false;
    // The stored statistics are sums scaled by the moving-average factor.
    const float f = factor[0] == 0.0f ? 0.0f : 1.0f / factor[0];
    const double eps = p.eps();
    std::vector<float> gain(static_cast<size_t>(channels)), shift(static_cast<size_t>(channels));
    for (size_t c = 0; c < gain.size(); ++c) {
        const float m = mean[c] * f, v = variance[c] * f;
        gain[c] = float(1.0 / std::sqrt(double(v) + eps));
        shift[c] = -m * gain[c];
    }
    std::string output = layer_.top(0);
    if (src_.scale) {
        std::vector<float> gamma, beta;
        if (!scale_params(*src_.scale, src_.scaleWeights, channels, &gamma, &beta)) return false;
        for (size_t c = 0; c < gain.size(); ++c) {
            gain[c] = gain[c] * gamma[c];
            shift[c] = shift[c] * gamma[c] + beta[c];
        }
        output = src_.scale->top(0);
    }
    return affine(gain, shift, output);
}

bool Conversion::scale() {
    if (layer_.bottom_size() == 2) return refuse("a scale taken from a second input has no model equivalent");
    if (!counts(1, 1, 1, 1)) return false;
    if (in().size() < 2) return refuse("needs an input with a channel axis, gets " + dims_text(in()));
    std::vector<float> gamma, beta;
    if (!scale_params(layer_, src_.weights, in()[1], &gamma, &beta)) return false;
    return affine(gamma, beta, layer_.top(0));
}

bool Conversion::softmax() {
    if (!counts(1, 1, 1, 1)) return false;
    int axis = 0;
    if (!axis_index(layer_.softmax_param().axis(), in().size(), "axis", &axis)) return false;
    if (!set_output(0, in())) return false;
    Softmax* softmax = builder_->add_layer(LAYER_SOFTMAX, layer_.name(), create_softmax);
    if (!softmax) return out_of_memory();
    softmax->axis = axis;
    return connect();
}

bool Conversion::concat() {
    if (!counts(2, 0, 1, 1) || !not_in_place("Concat")) return false;
    const caffe::ConcatParameter& p = layer_.concat_param();
    int axis = 0;
    const int64_t given = p.has_axis() || !p.has_concat_dim() ? p.axis() : int64_t(p.concat_dim());
    if (!axis_index(given, in().size(), "axis", &axis)) return false;
    Dims y = in();
    for (int k = 1; k < layer_.bottom_size(); ++k) {
        const Dims& x = in(k);
        bool same = x.size() == y.size();
        for (size_t i = 0; same && i < x.size(); ++i) same = int(i) == axis || x[i] == y[i];
        if (!same)
            return refuse("input '" + layer_.bottom(k) + "' (" + dims_text(x) + ") does not match '" +
                          layer_.bottom(0) + "' (" + dims_text(in()) + ") outside axis " + std::to_string(axis));
        y[size_t(axis)] += x[size_t(axis)];
    }
    if (!set_output(0, y)) return false;
    Concat* concat = builder_->add_layer(LAYER_CONCAT, layer_.name(), create_concat);
    if (!concat) return out_of_memory();
    concat->concatParam = 0;
    concat->axis = axis;
    return connect();
}

bool Conversion::slice() {
    if (!counts(1, 1, 2, 0) || !not_in_place("Slice")) return false;
    const caffe::SliceParameter& p = layer_.slice_param();
    int axis = 0;
    const int64_t given = p.has_axis() || !p.has_slice_dim() ? p.axis() : int64_t(p.slice_dim());
    if (!axis_index(given, in().size(), "axis", &axis)) return false;
    const int64_t total = in()[size_t(axis)];
    const int parts = layer_.top_size();
    std::vector<int64_t> points;
    if (p.slice_point_size() == 0) {
        if (total % parts != 0)
            return refuse("axis " + std::to_string(axis) + " of size " + std::to_string(total) +
                          " does not split into " + std::to_string(parts) + " equal parts");
        for (int k = 1; k < parts; ++k) points.push_back(total / parts * k);
    } else {
        if (p.slice_point_size() != parts - 1)
            return refuse(std::to_string(p.slice_point_size()) + " slice points for " + std::to_string(parts) +
                          " tops (needs one fewer)");
        points.assign(p.slice_point().begin(), p.slice_point().end());
    }
    int64_t previous = 0;
    for (int k = 0; k < parts; ++k) {
        const int64_t end = k + 1 < parts ? points[size_t(k)] : total;
        if (end <= previous || end > total)
            return refuse("slice points must increase strictly inside axis " + std::to_string(axis) + " of size " +
                          std::to_string(total));
        Dims y = in();
        y[size_t(axis)] = end - previous;
        if (!set_output(k, y)) return false;
        previous = end;
    }
    Slice* slice = builder_->add_layer(LAYER_SLICE, layer_.name(), create_slice);
    if (!slice) return out_of_memory();
    slice->axis = axis;
    slice->points = static_cast<int32_t*>(calloc(points.size() + 1, sizeof(int32_t)));
    if (!slice->points) return out_of_memory();
    slice->size = int32_t(points.size());
    for (size_t k = 0; k < points.size(); ++k) slice->points[k] = int32_t(points[k]);
    return connect();
}

bool Conversion::flatten() {
    if (!counts(1, 1, 1, 1) || !not_in_place("Flatten")) return false;
    const caffe::FlattenParameter& p = layer_.flatten_param();
    const Dims x = in();
    int start = 0, end = 0;
    if (!axis_index(p.axis(), x.size(), "axis", &start) || !axis_index(p.end_axis(), x.size(), "end_axis", &end))
        return false;
    if (start > end) return refuse("axis " + std::to_string(start) + " comes after end_axis " + std::to_string(end));
    Dims y(x.begin(), x.begin() + start);
    y.push_back(product(x, size_t(start), size_t(end) + 1));
    y.insert(y.end(), x.begin() + end + 1, x.end());
    if (!set_output(0, y)) return false;
    Flatten* flatten = builder_->add_layer(LAYER_FLATTEN, layer_.name(), create_flatten);
    if (!flatten) return out_of_memory();
    flatten->startAxis = int8_t(start);
    flatten->endAxis = int8_t(end);
    return connect();
}

bool Conversion::eltwise() {
    if (!counts(2, 0, 1, 1) || !not_in_place("Eltwise")) return false;
    const caffe::EltwiseParameter& p = layer_.eltwise_param();
    const int coeffs = p.coeff_size();
    if (coeffs > 0 && p.operation() != caffe::EltwiseParameter::SUM)
        return refuse("coefficients are used only by the SUM operation");
    if (coeffs > 0 && coeffs != layer_.bottom_size())
        return refuse(std::to_string(coeffs) + " coefficients for " + std::to_string(layer_.bottom_size()) +
                      " inputs");
    for (int k = 1; k < layer_.bottom_size(); ++k)
        if (in(k) != in())
            return refuse("input '" + layer_.bottom(k) + "' (" + dims_text(in(k)) + ") differs from '" +
                          layer_.bottom(0) + "' (" + dims_text(in()) + ")");
    if (!set_output(0, in())) return false;
    Eltwise* eltwise = builder_->add_layer(LAYER_ELTWISE, layer_.name(), create_eltwise);
    if (!eltwise) return out_of_memory();
    switch (p.operation()) {
        case caffe::EltwiseParameter::PROD: eltwise->operation = 0; break;
        case caffe::EltwiseParameter::SUM: eltwise->operation = 1; break;
        case caffe::EltwiseParameter::MAX: eltwise->operation = 2; break;
    }
    if (coeffs > 0) {
        eltwise->coeffs = static_cast<float*>(calloc(size_t(coeffs), sizeof(float)));
        if (!eltwise->coeffs) return out_of_memory();
        eltwise->coeffSize = coeffs;
        for (int k = 0; k < coeffs; ++k) eltwise->coeffs[k] = p.coeff(k);
    }
    return connect();
}

bool Conversion::dropout() {
    if (!counts(1, 1, 1, 1)) return false;
    const caffe::DropoutParameter& p = layer_.dropout_param();
    if (!p.scale_train()) return refuse("scale_train false scales at inference, which has no model equivalent");
    if (!set_output(0, in())) return false;
    Dropout* dropout = builder_->add_layer(LAYER_DROPOUT, layer_.name(), create_dropout);
    if (!dropout) return out_of_memory();
    dropout->dropoutParam = p.dropout_ratio();
    return connect();
}

bool Conversion::normalize() {
    if (!counts(1, 1, 1, 1)) return false;
    const caffe::NormalizeParameter& p = layer_.norm_param();
    if (!p.across_spatial() || !p.channel_shared())
        return refuse("only across_spatial with channel_shared (one norm and one scale per image) has a model "
                      "equivalent");
    std::vector<float> scale;
    if (!blob(0, {1}, "scale", &scale)) return false;
    if (!set_output(0, in())) return false;
    Normalize* norm = builder_->add_layer(LAYER_NORMALIZE, layer_.name(), create_normalize);
    if (!norm) return out_of_memory();
    norm->normPerChannel = 0;
    norm->scalePerChannel = 0;
    norm->scale = ModelBuilder::make_tensor(1, 1, 1, 1, scale.data());
    if (!norm->scale) return out_of_memory();
    return connect();
}

bool Conversion::run() {
    const std::string& type = layer_.type();
    if (type == "Convolution") return convolution();
    if (type == "Deconvolution") return deconvolution();
    if (type == "Pooling") return pooling();
    if (type == "InnerProduct") return inner_product();
    if (type == "ReLU") return relu();
    if (type == "PReLU") return prelu();
    if (type == "AbsVal") return abs_val();
    if (type == "BatchNorm") return batch_norm();
    if (type == "Scale") return scale();
    if (type == "Softmax") return softmax();
    if (type == "Concat") return concat();
    if (type == "Slice") return slice();
    if (type == "Flatten") return flatten();
    if (type == "Eltwise") return eltwise();
    if (type == "Dropout") return dropout();
    if (type == "Normalize") return normalize();
    return refuse("layer type not supported: no model layer computes it");
}

}  // namespace

bool LayerConverter::convert(const LayerSource& source, std::string* error) {
    return Conversion(source, builder_, &shapes_, warnings_, error).run();
}

}  // namespace vo::caffe_import
