// Piece layer: moves values between space and channels in blocks of
// 2^level x 2^level.
#include <vonet/tensor_layers.h>

#include <cstdlib>
#include <cstring>

#include "common/check.h"
#include "common/record_io.h"
#include "vnet/layer_registry.h"
#include "vnet/layer_shapes.h"
#include "vnet/tensor_internal.h"

namespace {

constexpr const char* kUnit = "vnet/piece";
constexpr const char* kLoad = "load_piece";
constexpr int32_t kMaxLevel = 15;  // 2^15 x 2^15 blocks still count in int32 (load checks the same)

// Spreads the low `level` bits of v so that bit k lands at bit
// 2 (level - 1 - k). The sub-position of (y, x) in its block is
// 2 spread(y) + spread(x): the bit pairs (y_k, x_k), k = 0 first, appended
// as low bits, so the lowest bits end as the most significant pair.
int64_t spread(int64_t v, int level) {
    int64_t s = 0;
    for (int k = 0; k < level; ++k) s = s * 4 + ((v >> k) & 1);
    return s;
}

// The output shape for `src`; false (with the failed check reported) when
// the input cannot be cut into blocks.
bool piece_shape(const char* op, const Piece* piece, const Tensor* src, int64_t shape[4]) {
    const int32_t times = int32_t(1) << piece->level;
    const int32_t channel = src->channel, height = src->height, width = src->width;
    if (piece->direction != 0) {
        VO_CHECK_IN(op, width % times == 0, return false);
        VO_CHECK_IN(op, height % times == 0, return false);
        shape[1] = int64_t(channel) * times * times;
        shape[2] = height / times;
        shape[3] = width / times;
    } else {
        VO_CHECK_IN(op, channel % (times * times) == 0, return false);
        shape[1] = channel / (times * times);
        shape[2] = int64_t(height) * times;
        shape[3] = int64_t(width) * times;
    }
    shape[0] = src->num;
    return true;
}

int read_piece(FILE* stream, Piece* piece) {
    if (!vo::read_fields(stream, kUnit, kLoad, &piece->level, &piece->direction)) return 4;
    VO_CHECK_IN(kLoad, piece->level >= 0 && piece->level <= 15, return 4);
    return 0;
}

}  // namespace

Piece* create_piece() { return static_cast<Piece*>(calloc(1, sizeof(Piece))); }

int load_piece(FILE* stream, void** result) {
    return vo::load_record<Piece, create_piece, read_piece, release_piece>(stream, result, kUnit, __func__,
                                                                        "piece != nullptr");
}

int save_piece(FILE* stream, Piece* piece) {
    if (!stream) return 4;
    if (!piece) return 7;
    return vo::write_fields(stream, kUnit, __func__, piece->level, piece->direction) ? 0 : 4;
}

int reshape_piece(Piece* piece, Tensor** inputs, int isize, Tensor** outputs, int osize, ForwardParams*) {
    if (!piece || !inputs) return 7;
    if (!outputs || isize != 1 || osize != 1) return 7;
    const Tensor* src = inputs[0];
    if (!src || !outputs[0]) return 5;
    if (piece->level < 0 || piece->level > kMaxLevel) return 7;  // refused at load
    // Values move between positions: in place would overwrite unread input.
    VO_CHECK(src != outputs[0], return 5);
    if (!vo::holds_nonempty(kUnit, __func__, src)) return 5;
    int64_t shape[4];
    if (!piece_shape(__func__, piece, src, shape)) return 5;
    VO_CHECK(shape[1] >= 1 && shape[2] >= 1 && shape[3] >= 1, return 5);
    return vo::reshape_tensor_checked(&outputs[0], shape[0], shape[1], shape[2], shape[3]);
}

int forward_piece(Piece* piece, Tensor** inputs, int isize, Tensor** outputs, int osize, ForwardParams*) {
    if (!piece || !inputs || !outputs || isize < 1 || osize < 1) return 7;
    if (piece->level < 0 || piece->level > kMaxLevel) return 7;
    const Tensor* src = inputs[0];
    Tensor* res = outputs[0];
    VO_CHECK(vo::holds_shape(src) && vo::holds_shape(res) && src != res, return 5);
    int64_t shape[4];
    if (!piece_shape(__func__, piece, src, shape)) return 5;
    VO_CHECK(res->num == shape[0] && res->channel == shape[1] && res->height == shape[2] && res->width == shape[3],
             return 5);

    const int level = piece->level;
    const int64_t block = int64_t(1) << (2 * level);  // values per block
    // The spatial side is the output for direction 0, the input otherwise;
    // `blocked` is the side with blocks folded into channels.
    const bool toSpace = piece->direction == 0;
    const Tensor* spatial = toSpace ? res : src;
    const Tensor* blocked = toSpace ? src : res;
    const int64_t channels = spatial->channel, height = spatial->height, width = spatial->width;
    const int64_t bh = blocked->height, bw = blocked->width;
    for (int64_t n = 0; n < spatial->num; ++n) {
        for (int64_t c = 0; c < channels; ++c) {
            const int64_t spatialPlane = (n * channels + c) * height * width;
            for (int64_t y = 0; y < height; ++y) {
                const int64_t sy = 2 * spread(y, level);
                for (int64_t x = 0; x < width; ++x) {
                    const int64_t b = ((n * channels + c) * block + sy + spread(x, level)) * bh * bw +
                                      (y >> level) * bw + (x >> level);
                    const int64_t s = spatialPlane + y * width + x;
                    if (toSpace) {
                        res->data[s] = src->data[b];
                    } else {
                        res->data[b] = src->data[s];
                    }
                }
            }
        }
    }
    return 0;
}

void release_piece(Piece** piece) { vo::free_record(piece); }

void get_info_piece(Piece* piece, char* text) {
    if (!text) return;
    if (!piece) {
        snprintf(text, 128, "piece");
        return;
    }
    snprintf(text, 128, "piece: %d ", piece->level);
}

int forward_piece_gpu(Piece*, Tensor**, int, Tensor**, int, ForwardParams*) { return 1; }

namespace vo {
const LayerOps kPieceOps = make_layer_ops<Piece, forward_piece, reshape_piece, save_piece, release_piece,
                                          get_info_piece, load_piece>();
}  // namespace vo
