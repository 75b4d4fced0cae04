#include <vonet/vonet.h>

#include <gtest/gtest.h>

#include <cstring>

#include "test_util.h"
#include "vnet/tensor_internal.h"

namespace {

struct TensorDeleter {
    void operator()(Tensor* t) const { release_tensor(&t); }
};
using TensorPtr = std::unique_ptr<Tensor, TensorDeleter>;

TEST(Tensor, CreateGivesZeroedBufferAndEmptyName) {
    TensorPtr t(create_tensor(1, 1, 1, 1));
    ASSERT_NE(t, nullptr);
    EXPECT_EQ(t->allocCount, 1);
    EXPECT_EQ(t->capacity, 1);
    EXPECT_EQ(t->data[0], 0.0f);
    EXPECT_EQ(t->name[0], '\0');

    TensorPtr u(reshape_tensor(nullptr, 2, 3, 4, 5));
    ASSERT_NE(u, nullptr);
    EXPECT_EQ(u->capacity, 120);
    const int shapes[] = {2, 3, 4, 5}, counts[] = {120, 60, 20, 5};
    for (int axis = 0; axis < 4; ++axis) {
        EXPECT_EQ(shape_tensor(u.get(), axis), shapes[axis]);
        EXPECT_EQ(count_tensor(u.get(), axis), counts[axis]);
    }
    EXPECT_EQ(count_tensor(u.get(), 7), 1);
    for (int i = 0; i < 120; ++i) ASSERT_EQ(u->data[i], 0.0f);
}

TEST(Tensor, NegativeCountHasNoBufferAndUnknownAxisEndsTheProcess) {
    TensorPtr t(create_tensor(1, -2, 3, 3));
    ASSERT_NE(t, nullptr);
    EXPECT_EQ(t->data, nullptr);
    EXPECT_EQ(t->capacity, -18);
    EXPECT_EXIT(shape_tensor(t.get(), 7), testing::ExitedWithCode(5), "");
}

TEST(Tensor, ShrinkKeepsBufferAndContentsGrowZeroes) {
    TensorPtr t(create_tensor(1, 3, 4, 4));
    for (int i = 0; i < 48; ++i) t->data[i] = float(i + 1);
    float* buffer = t->data;

    Tensor* same = reshape_tensor(t.get(), 1, 3, 2, 2);
    EXPECT_EQ(same, t.get());
    EXPECT_EQ(t->data, buffer);
    EXPECT_EQ(t->allocCount, 48);
    EXPECT_EQ(t->capacity, 12);
    for (int i = 0; i < 12; ++i) EXPECT_EQ(t->data[i], float(i + 1));

    reshape_tensor(t.get(), 1, 3, 4, 4);
    EXPECT_EQ(t->data, buffer);
    for (int i = 0; i < 48; ++i) EXPECT_EQ(t->data[i], float(i + 1));

    reshape_tensor(t.get(), 2, 3, 4, 4);
    EXPECT_EQ(t->allocCount, 96);
    EXPECT_EQ(t->capacity, 96);
    for (int i = 0; i < 96; ++i) ASSERT_EQ(t->data[i], 0.0f);
}

TEST(Tensor, CheckedReshapeRefusesOverflowAndNegativeShapes) {
    Tensor* t = create_tensor(1, 2, 3, 4);
    float* buffer = t->data;
    // 65536 * 65536 wraps to 0 in 32 bits; 3 * 1024^3 is negative in 32 bits.
    EXPECT_EQ(vo::reshape_tensor_checked(&t, 1, 1, 65536, 65536), 5);
    EXPECT_EQ(t->capacity, 0);
    EXPECT_EQ(t->data, buffer);
    EXPECT_EQ(t->allocCount, 24);
    EXPECT_EQ(vo::reshape_tensor_checked(&t, 3, 1024, 1024, 1024), 5);
    EXPECT_EQ(vo::reshape_tensor_checked(&t, 1, -1, 2, 2), 5);
    EXPECT_EQ(t->num * t->channel * t->height * t->width, 0);

    // The public reshape goes through the same guard.
    reshape_tensor(t, 1, 1, 65536, 65536);
    EXPECT_EQ(t->capacity, 0);

    EXPECT_EQ(vo::reshape_tensor_checked(&t, 1, 2, 3, 4), 0);
    EXPECT_EQ(t->capacity, 24);
    release_tensor(&t);

    Tensor* created = nullptr;
    EXPECT_EQ(vo::reshape_tensor_checked(&created, 1, 1, 2, 2), 0);
    ASSERT_NE(created, nullptr);
    EXPECT_EQ(created->capacity, 4);
    release_tensor(&created);
}

TEST(Tensor, ReleaseClearsAndAcceptsNullAcceleratorEntryPointsAreInert) {
    Tensor* t = create_tensor(1, 1, 2, 2);
    release_tensor_data(t);
    EXPECT_EQ(t->data, nullptr);
    EXPECT_EQ(t->capacity, 0);
    release_tensor(&t);
    EXPECT_EQ(t, nullptr);
    release_tensor(&t);
    release_tensor(nullptr);
    release_tensor_data(nullptr);
    TensorPtr u(create_tensor(1, 1, 1, 1));
    EXPECT_EQ(tensor_cpu_data(u.get()), nullptr);
    EXPECT_EQ(tensor_mutable_cpu_data(u.get()), nullptr);
    EXPECT_EQ(tensor_gpu_data(u.get()), nullptr);
    EXPECT_EQ(tensor_mutable_gpu_data(u.get()), nullptr);
    synchronize_tensor(u.get());
}

TEST(Tensor, TextDumps) {
    vo_test::TempDir dir;
    TensorPtr t(create_tensor(1, 2, 1, 3));
    const float values[6] = {1.5f, -2.0f, 0.25f, 3.0f, 4.125f, -0.5f};
    memcpy(t->data, values, sizeof(values));

    print_tensor_to_file(t.get(), dir.file("f.txt").c_str());
    EXPECT_EQ(vo_test::read_file(dir.file("f.txt")),
              "1 2 1 3\n1.5000 -2.0000 0.2500 \n\n3.0000 4.1250 -0.5000 \n\n");

    // The integer dumps print the header as num, width, height, channel and
    // separate images by a blank line.
    TensorPtr q(create_tensor(2, 1, 1, 3));
    const int8_t bytes[6] = {-127, 0, 5, 127, -1, 3};
    memcpy(q->data, bytes, sizeof(bytes));
    print_tensor_to_file_s8(q.get(), dir.file("s8.txt").c_str());
    EXPECT_EQ(vo_test::read_file(dir.file("s8.txt")), "2 3 1 1\n-127    0    5 \n\n\n 127   -1    3 \n\n");

    const int32_t ints[6] = {40000, -7, 0, 1, 2, -123456};
    memcpy(q->data, ints, sizeof(ints));
    print_tensor_to_file_s32(q.get(), dir.file("s32.txt").c_str());
    EXPECT_EQ(vo_test::read_file(dir.file("s32.txt")), "2 3 1 1\n40000   -7    0 \n\n\n   1    2 -123456 \n\n");

    // An unwritable path writes nothing and does not crash.
    print_tensor_to_file(t.get(), dir.file("missing/f.txt").c_str());
    print_tensor_to_file_s8(t.get(), dir.file("missing/f.txt").c_str());
}

}  // namespace
