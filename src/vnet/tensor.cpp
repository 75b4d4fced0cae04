#include <vonet/net.h>
#include <vonet/tensor.h>

#include <cstdlib>
#include <cstring>

#include "common/check.h"
#include "vnet/tensor_internal.h"

namespace {

void set_shape(Tensor* t, int32_t num, int32_t channel, int32_t height, int32_t width) {
    t->num = num;
    t->channel = channel;
    t->height = height;
    t->width = width;
}

// The shape's count as a 32-bit two's-complement product (wraps like the
// file format's int32 arithmetic, without undefined behaviour).
int32_t wrapped_count(int32_t num, int32_t channel, int32_t height, int32_t width) {
    uint32_t c = uint32_t(num) * uint32_t(channel) * uint32_t(height) * uint32_t(width);
    return int32_t(c);
}

// Grows the buffer to `count` zeroed elements when it is too small.
bool grow(Tensor* t, int64_t count) {
    if (count <= t->allocCount && (t->data || count == 0)) return true;
    float* fresh = static_cast<float*>(calloc(count > 0 ? size_t(count) : 1, sizeof(float)));
    if (!fresh) return false;
    free(t->data);
    t->data = fresh;
    t->allocCount = int32_t(count);
    return true;
}

}  // namespace

Tensor* create_tensor(int32_t num, int32_t channel, int32_t height, int32_t width) {
    Tensor* t = static_cast<Tensor*>(calloc(1, sizeof(Tensor)));
    if (!t) return nullptr;
    set_shape(t, num, channel, height, width);
    int32_t count = wrapped_count(num, channel, height, width);
    t->allocCount = count;
    t->capacity = count;
    if (count >= 0) {
        t->data = static_cast<float*>(calloc(count > 0 ? size_t(count) : 1, sizeof(float)));
        if (!t->data) {
            // Out of memory: an empty tensor is safer than a dangling count.
            set_shape(t, 0, 0, 0, 0);
            t->allocCount = t->capacity = 0;
        }
    }
    return t;
}

Tensor* reshape_tensor(Tensor* tensor, int32_t num, int32_t channel, int32_t height, int32_t width) {
    if (!tensor) return create_tensor(num, channel, height, width);
    vo::reshape_tensor_checked(&tensor, num, channel, height, width);
    return tensor;
}

namespace vo {

int reshape_tensor_checked(Tensor** slot, int64_t num, int64_t channel, int64_t height, int64_t width) {
    if (!*slot) {
        *slot = create_tensor(1, 1, 1, 1);
        if (!*slot) return 5;
    }
    Tensor* t = *slot;
    int64_t count = checked_count(num, channel, height, width);
    if (count < 0 || !grow(t, count)) {
        set_shape(t, 0, 0, 0, 0);
        t->capacity = 0;
        return 5;
    }
    set_shape(t, int32_t(num), int32_t(channel), int32_t(height), int32_t(width));
    t->capacity = int32_t(count);
    return 0;
}

void set_tensor_name(Tensor* tensor, const char* name) {
    memset(tensor->name, 0, sizeof(tensor->name));
    strncpy(tensor->name, name, sizeof(tensor->name) - 1);
}

int ensure_scratch_bytes(Tensor** slot, int64_t bytes) {
    if (bytes < 0) return 5;
    if (*slot && int64_t((*slot)->allocCount) * int64_t(sizeof(float)) >= bytes) return 0;
    return reshape_tensor_checked(slot, 1, 1, 1, (bytes + int64_t(sizeof(float)) - 1) / int64_t(sizeof(float)));
}

}  // namespace vo

int32_t shape_tensor(const Tensor* tensor, int32_t axis) {
    switch (axis) {
        case 0: return tensor->num;
        case 1: return tensor->channel;
        case 2: return tensor->height;
        case 3: return tensor->width;
        default: exit(5);
    }
}

int32_t count_tensor(const Tensor* tensor, int32_t axis) {
    switch (axis) {
        case 0: return wrapped_count(tensor->num, tensor->channel, tensor->height, tensor->width);
        case 1: return wrapped_count(1, tensor->channel, tensor->height, tensor->width);
        case 2: return wrapped_count(1, 1, tensor->height, tensor->width);
        case 3: return tensor->width;
        default: return 1;
    }
}

void release_tensor_data(Tensor* tensor) {
    if (!tensor) return;
    free(tensor->data);
    memset(tensor, 0, sizeof(*tensor));
}

void release_tensor(Tensor** slot) {
    if (!slot || !*slot) return;
    release_tensor_data(*slot);
    free(*slot);
    *slot = nullptr;
}

// Text dumps. Only the elements the buffer really holds are printed.
namespace {

bool dumpable(const Tensor* t) {
    return t && t->data && t->num >= 0 && t->channel >= 0 && t->height >= 0 && t->width >= 0 &&
           vo::checked_count(t->num, t->channel, t->height, t->width) <= t->allocCount;
}

template <typename T>
void print_integers(const Tensor* tensor, const char* path) {
    if (!dumpable(tensor)) return;
    FILE* f = fopen(path, "w");
    if (!f) return;
    fprintf(f, "%d %d %d %d\n", tensor->num, tensor->width, tensor->height, tensor->channel);
    const T* v = reinterpret_cast<const T*>(tensor->data);
    size_t i = 0;
    for (int n = 0; n < tensor->num; ++n) {
        for (int c = 0; c < tensor->channel; ++c) {
            for (int h = 0; h < tensor->height; ++h) {
                for (int w = 0; w < tensor->width; ++w) fprintf(f, "%4d ", int(v[i++]));
                fputc('\n', f);
            }
            fputc('\n', f);
        }
        if (n + 1 < tensor->num) fputc('\n', f);
    }
    fclose(f);
}

}  // namespace

void print_tensor(const Tensor* tensor, FILE* stream) {
    if (!stream || !dumpable(tensor)) return;
    fprintf(stream, "%d %d %d %d\n", tensor->num, tensor->channel, tensor->height, tensor->width);
    const float* v = tensor->data;
    for (int n = 0; n < tensor->num; ++n) {
        for (int c = 0; c < tensor->channel; ++c) {
            for (int h = 0; h < tensor->height; ++h) {
                for (int w = 0; w < tensor->width; ++w) fprintf(stream, "%.4f ", double(*v++));
                fputc('\n', stream);
            }
            fputc('\n', stream);
        }
    }
}

void print_tensor_to_file(const Tensor* tensor, const char* path) {
    FILE* f = fopen(path, "w");
    if (!f) return;
    print_tensor(tensor, f);
    fclose(f);
}

void print_tensor_to_file_s8(const Tensor* tensor, const char* path) { print_integers<int8_t>(tensor, path); }

void print_tensor_to_file_s32(const Tensor* tensor, const char* path) { print_integers<int32_t>(tensor, path); }

float* tensor_cpu_data(Tensor*) { return nullptr; }
float* tensor_mutable_cpu_data(Tensor*) { return nullptr; }
float* tensor_gpu_data(Tensor*) { return nullptr; }
float* tensor_mutable_gpu_data(Tensor*) { return nullptr; }
void synchronize_tensor(Tensor*) {}

ForwardParams* create_forward_params() {
    ForwardParams* p = static_cast<ForwardParams*>(calloc(1, sizeof(ForwardParams)));
    if (!p) return nullptr;
    Tensor** slots[] = {&p->inputBuffer,    &p->outputBuffer,  &p->columnBuffer,   &p->padBuffer,
                        &p->winogradOutput, &p->winogradInput, &p->winogradProduct};
    for (Tensor** s : slots) {
        *s = create_tensor(1, 1, 1, 1);
        if (!*s) {
            release_forward_params(&p);
            return nullptr;
        }
    }
    return p;
}

void release_forward_params(ForwardParams** slot) {
    if (!slot || !*slot) return;
    ForwardParams* p = *slot;
    release_tensor(&p->inputBuffer);
    release_tensor(&p->outputBuffer);
    release_tensor(&p->columnBuffer);
    release_tensor(&p->padBuffer);
    release_tensor(&p->winogradOutput);
    release_tensor(&p->winogradInput);
    release_tensor(&p->winogradProduct);
    free(p);
    *slot = nullptr;
}
