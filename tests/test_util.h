// Helpers shared by the tests: temporary directories, model file bytes, and
// a test-only layer type.
#ifndef VONET_TESTS_TEST_UTIL_H
#define VONET_TESTS_TEST_UTIL_H

#include <vonet/vonet.h>

#include <cstdint>
#include <string>
#include <vector>

namespace vo_test {

// A fresh directory, removed with its contents at scope exit.
class TempDir {
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    const std::string& path() const { return path_; }
    std::string file(const std::string& name) const { return path_ + "/" + name; }

private:
    std::string path_;
};

std::string read_file(const std::string& path);
void write_file(const std::string& path, const std::string& bytes);

// Builds the bytes of a model file field by field.
class ModelBytes {
public:
    ModelBytes& header();  // the 256-byte reserved block
    ModelBytes& u8(uint8_t v);
    ModelBytes& i32(int32_t v);
    ModelBytes& f32(float v);
    ModelBytes& name(const std::string& s);  // a 32-byte name field
    ModelBytes& raw(const std::string& bytes);
    ModelBytes& input(const std::string& s, int32_t n, int32_t c, int32_t h, int32_t w);
    // A layer entry with one name list each way around `record`.
    ModelBytes& layer(const std::string& s, int32_t type, const std::string& record,
                      const std::vector<std::string>& inputs, const std::vector<std::string>& outputs);
    const std::string& bytes() const { return bytes_; }
    size_t size() const { return bytes_.size(); }

private:
    std::string bytes_;
};

// The test layer type: output = input * factor, record = one float.
// `fail_height` makes reshape fail (status 5) for inputs of that height.
struct TestScale {
    float factor;
    int32_t fail_height;
    int reshapes;
    int forwards;
};
std::string test_scale_record(float factor, int32_t fail_height = -1);

// Binds the test layer type to a type id for the guard's lifetime.
class TestLayerType {
public:
    explicit TestLayerType(int32_t type);
    ~TestLayerType();
    TestLayerType(const TestLayerType&) = delete;
    TestLayerType& operator=(const TestLayerType&) = delete;

private:
    int32_t type_;
    const void* previous_;
};

}  // namespace vo_test

#endif
