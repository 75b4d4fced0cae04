// Reading and writing model files.
#include <vonet/net.h>

#include <cstdlib>
#include <cstring>

#include "common/check.h"
#include "vnet/tensor_internal.h"

namespace {

constexpr const char* kUnit = "vnet/net";
// Checks in the helpers below are reported under the public operation.
constexpr const char* kLoad = "vo_load_net";
constexpr const char* kSave = "vo_save_net";

// A declared input shape above this is refused at load, so a corrupt file
// of a few bytes can never make the first reshape allocate gigabytes.
constexpr int64_t kMaxInputElements = int64_t(1) << 26;

bool has_nul(const char* name) { return memchr(name, '\0', 32) != nullptr; }

// Reads `count` tensor names and resolves each in the registry.
int read_tensor_names(FILE* f, Net* net, uint8_t count, Tensor*** list) {
    *list = static_cast<Tensor**>(calloc(count ? count : 1, sizeof(Tensor*)));
    VO_CHECK_IN(kLoad, *list != nullptr, return 4);
    for (unsigned i = 0; i < count; ++i) {
        char name[32];
        size_t ret = fread(name, 1, 32, f);
        VO_CHECK_IN(kLoad, ret == 32, return 4);
        VO_CHECK_IN(kLoad, has_nul(name), return 4);
        Tensor* tensor = net_add_tensor_by_name(net, name);
        VO_CHECK_IN(kLoad, tensor != nullptr, return 4);
        (*list)[i] = tensor;
    }
    return 0;
}

int read_inputs(FILE* f, Net* net) {
    uint8_t count = 0;
    size_t ret = fread(&count, 1, 1, f);
    VO_CHECK_IN(kLoad, ret == 1, return 4);
    net->inputs = static_cast<Tensor**>(calloc(count ? count : 1, sizeof(Tensor*)));
    VO_CHECK_IN(kLoad, net->inputs != nullptr, return 4);
    net->inputSize = count;
    for (unsigned i = 0; i < count; ++i) {
        char name[32];
        ret = fread(name, 1, 32, f);
        VO_CHECK_IN(kLoad, ret == 32, return 4);
        VO_CHECK_IN(kLoad, has_nul(name), return 4);
        int32_t dims[4];  // num, channel, height, width
        ret = fread(dims, sizeof(int32_t), 4, f);
        VO_CHECK_IN(kLoad, ret == 4, return 4);
        int64_t elements = vo::checked_count(dims[0], dims[1], dims[2], dims[3]);
        VO_CHECK_IN(kLoad, elements >= 0, return 4);
        VO_CHECK_IN(kLoad, elements <= kMaxInputElements, return 4);
        Tensor* tensor = create_tensor(dims[0], dims[1], dims[2], dims[3]);
        VO_CHECK_IN(kLoad, tensor != nullptr, return 4);
        vo::set_tensor_name(tensor, name);
        // Input names must be unique: a second input of one name could
        // never be fed.
        Tensor* registered = net_add_tensor(net, tensor);
        VO_CHECK_IN(kLoad, registered == tensor, { release_tensor(&tensor); return 4; });
        net->inputs[i] = tensor;
    }
    return 0;
}

// Reads one layer entry after its name; the layer belongs to the net as
// soon as it is appended, so every failure below leaves nothing to free.
int read_layer(FILE* f, Net* net, const char* name) {
    int32_t type = 0;
    size_t ret = fread(&type, 1, 4, f);
    VO_CHECK_IN(kLoad, ret == 4, return 4);
    Layer* layer = create_layer(type, name);
    if (!layer) return 4;
    uint32_t before = net->layerSize;
    net_add_layer(net, layer);
    VO_CHECK_IN(kLoad, net->layerSize == before + 1, { release_layer(&layer); return 4; });
    if (load_layer(f, layer) != 0) return 4;  // the record reader reported why

    uint8_t isize = 0;
    ret = fread(&isize, 1, 1, f);
    VO_CHECK_IN(kLoad, ret == 1, return 4);
    layer->isize = isize;
    VO_CHECK_IN(kLoad, layer->isize > 0, return 4);
    if (int status = read_tensor_names(f, net, isize, &layer->inputs)) return status;

    uint8_t osize = 0;
    ret = fread(&osize, 1, 1, f);
    VO_CHECK_IN(kLoad, ret == 1, return 4);
    layer->osize = osize;
    VO_CHECK_IN(kLoad, layer->osize > 0, return 4);
    return read_tensor_names(f, net, osize, &layer->outputs);
}

int read_net(FILE* f, Net* net) {
    uint16_t reserved[128];
    size_t ret = fread(reserved, 2, 128, f);
    VO_CHECK_IN(kLoad, ret == 128, return 4);
    if (int status = read_inputs(f, net)) return status;

    uint8_t outputs = 0;
    ret = fread(&outputs, 1, 1, f);
    VO_CHECK_IN(kLoad, ret == 1, return 4);
    net->outputSize = outputs;
    if (int status = read_tensor_names(f, net, outputs, &net->outputs)) return status;

    for (;;) {
        char name[32];
        // The layer list ends where a layer name can no longer be read whole.
        if (fread(name, 1, 32, f) != 32) return 0;
        VO_CHECK_IN(kLoad, has_nul(name), return 4);
        if (int status = read_layer(f, net, name)) return status;
    }
}

int write_name(FILE* f, const char* name) {
    size_t ret = fwrite(name, 1, 32, f);
    VO_CHECK_IN(kSave, ret == 32, return 4);
    return 0;
}

int write_count(FILE* f, uint8_t count) {
    size_t ret = fwrite(&count, 1, 1, f);
    VO_CHECK_IN(kSave, ret == 1, return 4);
    return 0;
}

int write_tensor_names(FILE* f, Tensor* const* list, uint8_t count) {
    if (int status = write_count(f, count)) return status;
    for (unsigned i = 0; i < count; ++i) {
        VO_CHECK_IN(kSave, list && list[i], return 7);
        if (int status = write_name(f, list[i]->name)) return status;
    }
    return 0;
}

int write_net(FILE* f, const Net* net) {
    const uint16_t reserved[128] = {};
    size_t ret = fwrite(reserved, 2, 128, f);
    VO_CHECK_IN(kSave, ret == 128, return 4);

    if (int status = write_count(f, net->inputSize)) return status;
    for (unsigned i = 0; i < net->inputSize; ++i) {
        const Tensor* in = net->inputs ? net->inputs[i] : nullptr;
        VO_CHECK_IN(kSave, in != nullptr, return 7);
        if (int status = write_name(f, in->name)) return status;
        const int32_t dims[4] = {1, in->channel, in->height, in->width};  // num is always saved as 1
        ret = fwrite(dims, sizeof(int32_t), 4, f);
        VO_CHECK_IN(kSave, ret == 4, return 4);
    }
    if (int status = write_tensor_names(f, net->outputs, net->outputSize)) return status;

    for (uint32_t i = 0; i < net->layerSize; ++i) {
        const Layer* layer = net->layers[i];
        VO_CHECK_IN(kSave, layer != nullptr && layer->save != nullptr, return 7);
        if (int status = write_name(f, layer->name)) return status;
        ret = fwrite(&layer->type, 1, 4, f);
        VO_CHECK_IN(kSave, ret == 4, return 4);
        if (layer->save(f, layer->runParams) != 0) return 4;  // the record writer reported why
        if (int status = write_tensor_names(f, layer->inputs, layer->isize)) return status;
        if (int status = write_tensor_names(f, layer->outputs, layer->osize)) return status;
    }
    return 0;
}

}  // namespace

int vo_load_net(const char* path, Net** slot) {
    if (!path || !slot) return 7;
    FILE* f = fopen(path, "rb");
    if (!f) return 4;
    vo_net_initial();
    Net* net = vo_create_net();
    int status = net ? read_net(f, net) : 4;
    fclose(f);
    if (status != 0) {
        vo_release_net(&net);
        return status;
    }
    if (reshape_net(net) != 0) {
        vo_release_net(&net);
        puts("Reshape error");
        return 1;
    }
    *slot = net;
    return 0;
}

int vo_save_net(const char* path, const Net* net) {
    if (!net) return 7;
    if (!path) return 4;
    FILE* f = fopen(path, "wb");
    if (!f) return 4;
    int status = write_net(f, net);
    int closed = fclose(f);
    if (status == 0) VO_CHECK_IN(kSave, closed == 0, status = 4);
    // A half-written model is worse than none.
    if (status != 0) remove(path);
    return status;
}
