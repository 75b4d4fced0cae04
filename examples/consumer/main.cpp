// A host program: writes a tiny model, loads it, runs it and reads its output.
#include <vonet/vonet.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>

namespace {

// The smallest model file: one 1x1x2x3 input "data" that is also the
// output, and no layers.
bool write_identity_model(const char* path) {
    FILE* f = fopen(path, "wb");
    if (!f) return false;
    unsigned char reserved[256] = {};
    char name[32] = "data";
    const int32_t dims[4] = {1, 1, 2, 3};
    const uint8_t one = 1;
    bool ok = fwrite(reserved, 1, 256, f) == 256 && fwrite(&one, 1, 1, f) == 1 && fwrite(name, 1, 32, f) == 32 &&
              fwrite(dims, 4, 4, f) == 4 && fwrite(&one, 1, 1, f) == 1 && fwrite(name, 1, 32, f) == 32;
    return fclose(f) == 0 && ok;
}

}  // namespace

int main() {
    printf("vonet %s\n", VONET_VERSION_STRING);
    std::string path = "consumer_model.vo";
    if (!write_identity_model(path.c_str())) return 1;

    Net* net = nullptr;
    if (vo_load_net(path.c_str(), &net) != 0) return 1;
    const float input[6] = {1, 2, 3, 4, 5, 6};
    int status = vo_forward_net(net, input, 1, 1, 2, 3);
    Tensor* out = vo_output_by_name(net, "data");
    bool ok = status == 0 && out && out->capacity == 6 && memcmp(out->data, input, sizeof(input)) == 0;
    printf("forward status %d, %d outputs, gNetInitial %d\n", status, out ? out->capacity : 0, gNetInitial);
    vo_release_net(&net);
    remove(path.c_str());
    puts(ok ? "consumer OK" : "consumer FAILED");
    return ok ? 0 : 1;
}
