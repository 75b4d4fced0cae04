#include <gtest/gtest.h>
#include <vonet/object_manager.h>
#include <vonet/vonet.h>

#include <cstring>
#include <string>
#include <vector>

#include "test_util.h"

#define STB_IMAGE_WRITE_STATIC
#define STB_IMAGE_WRITE_IMPLEMENTATION
#include "common/stb_private.h"

namespace {

using namespace vo_test;

// The squares image with `channels` bytes per pixel (grey copied into
// R, G, B; alpha 255).
std::vector<uint8_t> pixels(int channels, const std::vector<uint8_t>& grey = squares_image()) {
    std::vector<uint8_t> out(grey.size() * size_t(channels));
    for (size_t i = 0; i < grey.size(); ++i)
        for (int c = 0; c < channels; ++c) out[i * channels + c] = (c == 3) ? 255 : grey[i];
    return out;
}

bool write_png(const std::string& path, int w, int h, int channels, const std::vector<uint8_t>& data) {
    return stbi_write_png(path.c_str(), w, h, channels, data.data(), w * channels) != 0;
}

std::vector<VRect> grid(const std::vector<int>& xs, const std::vector<int>& ys, int dx, int dy, int size) {
    std::vector<VRect> out;
    for (int y : ys)
        for (int x : xs) out.push_back(VRect{x + dx, y + dy, size, size});
    return out;
}

bool same(const std::vector<VRect>& got, const std::vector<VRect>& want) {
    return got.size() == want.size() && (got.empty() || !memcmp(got.data(), want.data(), got.size() * sizeof(VRect)));
}

const VRect kWhole{0, 0, 0, 0};

class ObjectManager : public testing::Test {
protected:
    void SetUp() override {
        write_cascade(dir_.path(), "object_squares", {"anet", "bnet", "cnet"});
        EXPECT_EQ(printed_by([&] { return load_object_manager(dir_.path().c_str(), "squares", &manager_); }).status, 0);
        ASSERT_NE(manager_, nullptr);
        set_unit_search(manager_);
    }
    void TearDown() override {
        release_object_manager(&manager_);
        EXPECT_EQ(manager_, nullptr);
    }

    // Runs the file-level detection; the status, and the boxes in `rects`.
    int detect(const std::string& path, VRect roi, std::vector<VRect>* rects) {
        VRect* out = nullptr;
        int num = -1;
        const int status = detect_objects(manager_, path.c_str(), roi, &out, &num);
        rects->clear();
        if (status == 0 && num > 0) rects->assign(out, out + num);
        if (status == 0 && num == 0) {
            EXPECT_EQ(out, nullptr);
        }
        if (status != 0) {
            EXPECT_EQ(num, -1);
        }
        free(out);
        return status;
    }

    vo_test::TempDir dir_;
    VoDetector* manager_ = nullptr;
};

// The third stage keeps the 24 x 24 boxes (x - 1, y) for x in {96, 108,
// 120}, y in {36 .. 72}; normalised to side trunc(0.6 x 24) = 14 about
// their centres (x + 11, y + 12), they start at (x + 3, y + 4).
TEST_F(ObjectManager, DecodesPngAndJpegFiles) {
    const std::vector<VRect> expected = grid({96, 108, 120}, {36, 48, 60, 72}, 3, 4, 14);
    std::vector<VRect> rects;
    const std::vector<uint8_t> rgb = pixels(3);
    ASSERT_TRUE(write_png(dir_.file("rgb.png"), kImageW, kImageH, 3, rgb));
    ASSERT_TRUE(write_png(dir_.file("rgba.png"), kImageW, kImageH, 4, pixels(4)));
    // Flat 8 x 8 blocks survive the compression.
    ASSERT_NE(stbi_write_jpg(dir_.file("rgb.jpg").c_str(), kImageW, kImageH, 3, rgb.data(), 100), 0);
    for (const char* name : {"rgb.png", "rgba.png", "rgb.jpg"}) {
        ASSERT_EQ(detect(dir_.file(name), kWhole, &rects), 0) << name;
        EXPECT_TRUE(same(rects, expected)) << name;
    }

    // The grey conversion reads the channels as R, G, B: a red square is
    // 76 / 255 of its value in grey, below the first stage.
    std::vector<uint8_t> red = rgb;
    for (size_t i = 0; i < red.size(); i += 3) red[i + 1] = red[i + 2] = 0;
    ASSERT_TRUE(write_png(dir_.file("red.png"), kImageW, kImageH, 3, red));
    ASSERT_EQ(detect(dir_.file("red.png"), kWhole, &rects), 0);
    EXPECT_TRUE(rects.empty());
}

TEST_F(ObjectManager, RegionOfInterest) {
    const std::string path = dir_.file("rgb.png");
    ASSERT_TRUE(write_png(path, kImageW, kImageH, 3, pixels(3)));
    const std::vector<VRect> whole = grid({96, 108, 120}, {36, 48, 60, 72}, 3, 4, 14);
    std::vector<VRect> rects;

    // A region 248 x 192 from (8, 0), touching the right edge: searched at
    // scale 1 with windows from x = 8 in steps of 12, so four columns of
    // boxes (x in {92, 104, 116, 128}) come back in image coordinates.
    ASSERT_EQ(detect(path, VRect{8, 0, 248, 192}, &rects), 0);
    EXPECT_TRUE(same(rects, grid({92, 104, 116, 128}, {36, 48, 60, 72}, 3, 4, 14)));

    // Regions outside the image or below 16 x 16 search the whole image.
    const VRect ignored[] = {{8, 0, 15, 192}, {8, 0, 248, 15}, {9, 0, 248, 192}, {-1, 0, 100, 100},
                             {0, -1, 100, 100}, {0, 100, 100, 93}, {2147483600, 0, 100, 100}};
    for (const VRect& roi : ignored) {
        ASSERT_EQ(detect(path, roi, &rects), 0);
        EXPECT_TRUE(same(rects, whole)) << roi.x << " " << roi.width;
    }

    // A 16 x 16 region is used: the result is that of the in-memory
    // detector on the region, moved to image coordinates and normalised.
    const std::vector<uint8_t> grey = squares_image();
    const VRect roi{100, 50, 16, 16};
    ObjectInfo* found = nullptr;
    const int n = detect_objects(manager_, const_cast<uint8_t*>(grey.data()) + roi.y * kImageW + roi.x, roi.width,
                                 roi.height, kImageW, &found);
    ASSERT_GT(n, 0);
    std::vector<VRect> expected;
    for (int i = 0; i < n; ++i)
        expected.push_back(VRect{found[i].x + roi.x, found[i].y + roi.y, found[i].width, found[i].height});
    free(found);
    expected.resize(size_t(filter_by_size(expected.data(), n)));
    ASSERT_EQ(detect(path, roi, &rects), 0);
    EXPECT_TRUE(same(rects, expected));
    EXPECT_FALSE(same(rects, whole));
}

TEST_F(ObjectManager, RefusedFilesAndRequests) {
    VRect* const untouched = reinterpret_cast<VRect*>(0x20);
    VRect* out = untouched;
    int num = -1;
    const std::string png = dir_.file("rgb.png");
    ASSERT_TRUE(write_png(png, kImageW, kImageH, 3, pixels(3)));
    EXPECT_EQ(detect_objects(nullptr, png.c_str(), kWhole, &out, &num), 7);
    EXPECT_EQ(detect_objects(manager_, nullptr, kWhole, &out, &num), 7);
    EXPECT_EQ(detect_objects(manager_, png.c_str(), kWhole, nullptr, &num), 7);
    EXPECT_EQ(detect_objects(manager_, png.c_str(), kWhole, &out, nullptr), 7);
    auto detectFile = [&](const std::string& path) {
        return printed_by([&] { return detect_objects(manager_, path.c_str(), kWhole, &out, &num); });
    };

    // Missing and undecodable files: 4 without a message.
    vo_test::write_file(dir_.file("junk.png"), "definitely not an image");
    for (const std::string& path : {dir_.file("absent.png"), dir_.file("junk.png"), dir_.path()})
        EXPECT_EQ(detectFile(path), (Printed{4, "", ""})) << path;

    // Grey files (with or without alpha) are not supported.
    ASSERT_TRUE(write_png(dir_.file("grey.png"), kImageW, kImageH, 1, squares_image()));
    ASSERT_TRUE(write_png(dir_.file("grey_alpha.png"), kImageW, kImageH, 2, pixels(2)));
    for (const char* name : {"grey.png", "grey_alpha.png"})
        EXPECT_EQ(detectFile(dir_.file(name)), (Printed{4, "", "Format not support\n"})) << name;

    // Images and parameters the detector cannot search.
    ASSERT_TRUE(write_png(dir_.file("one.png"), 1, 40, 3, std::vector<uint8_t>(120, 200)));
    EXPECT_EQ(detectFile(dir_.file("one.png")).status, 4);
    set_detect_params(manager_, 0.125f, 0.5f, 0.5f, 0);
    EXPECT_EQ(detectFile(png).status, 4);
    set_detect_params(manager_, 1e-6f, 0.5f, 0.5f, 1);
    EXPECT_EQ(detectFile(png).status, 4);

    // Headers that claim more pixels than 32 bits count, or far more than
    // the file could hold, are refused before decoding.
    auto put = [](std::string& to, uint32_t v, int bytes, bool bigEndian) {
        for (int i = 0; i < bytes; ++i) to += char((v >> (8 * (bigEndian ? bytes - 1 - i : i))) & 0xff);
    };
    std::string png10k("\x89PNG\r\n\x1a\n\0\0\0\x0dIHDR", 16);  // no data, CRC not checked
    for (uint32_t v : {10000u, 10000u, 0x08020000u}) put(png10k, v, 4, true);  // 8-bit RGB
    put(png10k, 0, 1, true);                                                   // interlace
    put(png10k, 0, 4, true);                                                   // CRC
    std::string bmp = "BM";  // 60000 x 60000, 24 bits
    for (uint32_t v : {0u, 0u, 54u, 40u, 60000u, 60000u}) put(bmp, v, 4, false);
    put(bmp, 1, 2, false);
    put(bmp, 24, 2, false);
    for (int i = 0; i < 6; ++i) put(bmp, 0, 4, false);
    vo_test::write_file(dir_.file("huge.bmp"), bmp);
    EXPECT_EQ(detectFile(dir_.file("huge.bmp")),
              (Printed{4, "", "detector: read_bgr: check failed: pixels <= kMaxPixels\n"}));
    vo_test::write_file(dir_.file("big.png"), png10k);
    EXPECT_EQ(detectFile(dir_.file("big.png")),
              (Printed{4, "", "detector: read_bgr: check failed: pixels * comp <= decodedLimit\n"}));
    EXPECT_EQ(out, untouched);
    EXPECT_EQ(num, -1);
}

TEST(LoadObjectManager, StatusesAndNames) {
    vo_test::TempDir dir;
    VoDetector* const sentinel = reinterpret_cast<VoDetector*>(0x30);
    VoDetector* m = sentinel;
    auto load = [&](const char* kind) {
        return printed_by([&] { return load_object_manager(dir.path().c_str(), kind, &m); });
    };
    EXPECT_EQ(load("absent").status, 4);
    EXPECT_EQ(m, sentinel);  // left as it was
    EXPECT_EQ(load_object_manager(dir.path().c_str(), nullptr, &m), 4);
    EXPECT_EQ(load_object_manager(dir.path().c_str(), "absent", nullptr), 7);

    // "object_" + kind must fit in 128 bytes.
    const std::string longKind(121, 'k');
    EXPECT_EQ(load(longKind.c_str()), (Printed{4, "", "detector: load_object_manager: check failed: nameFits\n"}));
    EXPECT_EQ(m, sentinel);

    write_cascade(dir.path(), "object_face", {"anet"});
    const Printed loaded = load("face");
    EXPECT_EQ(loaded.status, 0);
    EXPECT_EQ(loaded.out.rfind("object_face_anet\n", 0), 0u);
    ASSERT_NE(m, sentinel);
    EXPECT_EQ(m->width, 24);
    release_object_manager(&m);
    EXPECT_EQ(m, nullptr);
    release_object_manager(&m);
    release_object_manager(nullptr);
}

}  // namespace
