#include <vonet/vonet.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <random>
#include <string>
#include <tuple>
#include <utility>

#include "test_util.h"

namespace {

using namespace vo_test;

TEST(RectFile, OneBoxPerFile) {
    TempDir dir;
    std::string path = dir.file("box.txt");
    ASSERT_EQ(write_rect_file(path.c_str(), VRect{1, -2, 30, 40}), 0);
    EXPECT_EQ(read_file(path), "1 -2 30 40\n");
    VRect r{};
    ASSERT_EQ(read_rect_file(path.c_str(), &r), 0);
    EXPECT_EQ(std::make_tuple(r.x, r.y, r.width, r.height), std::make_tuple(1, -2, 30, 40));

    ASSERT_EQ(write_rect_file(path.c_str(), VRectf{1.5f, 2, 3.25f, 4}), 0);
    EXPECT_EQ(read_file(path), "1.500000 2.000000 3.250000 4.000000\n");
    VRectf f{};
    ASSERT_EQ(read_rect_file(path.c_str(), &f), 0);
    EXPECT_EQ(f.width, 3.25f);

    // A short file fills what it has and leaves the rest.
    write_file(path, "7 8");
    VRect partial{0, 0, 99, 99};
    EXPECT_EQ(read_rect_file(path.c_str(), &partial), 0);
    EXPECT_EQ(std::make_tuple(partial.x, partial.y, partial.width, partial.height), std::make_tuple(7, 8, 99, 99));
    EXPECT_EQ(read_rect_file(dir.file("absent").c_str(), &partial), 4);
}

TEST(RectListFile, UnlabelledListHandsOutTheBoxesRead) {
    TempDir dir;
    std::string path = dir.file("list.txt");
    VRect boxes[2] = {{1, 2, 3, 4}, {5, 6, 7, 8}};
    ASSERT_EQ(write_rect_list_file(path.c_str(), boxes, 2), 0);
    EXPECT_EQ(read_file(path), "2\n1 2 3 4\n5 6 7 8\n");

    // Up to the declared count, the end of the file or the first line that
    // is not four integers; a huge declared count costs nothing.
    const std::pair<const char*, int> bodies[] = {{"2\n1 2 3 4\n5 6 7 8\n", 2},
                                                  {"5\n1 2 3 4\n5 6 7 8\n", 2},
                                                  {"3\n1 2 3 4\nnot a box\n5 6 7 8\n", 1},
                                                  {"2000000000\n1 2 3 4", 1},
                                                  {"1\n1 2 3 4\n5 6 7 8\n", 1}};
    for (const auto& body : bodies) {
        write_file(path, body.first);
        VRect* read = nullptr;
        int count = 0;
        ASSERT_EQ(read_rect_list_file(path.c_str(), &read, &count), 0) << body.first;
        EXPECT_EQ(count, body.second) << body.first;
        EXPECT_EQ(read[0].height, 4);
        EXPECT_EQ(read[count - 1].x, count == 2 ? 5 : 1);
        free(read);
    }
    // Unusable headers, or no box at all: 4, outputs untouched.
    for (const char* body : {"", "0\n1 2 3 4\n", "-3\n1 2 3 4\n", "abc\n1 2 3 4\n", "2000000000\n", "2\n1 2 3\n"}) {
        write_file(path, body);
        VRect sentinel{};
        VRect* read = &sentinel;
        int count = -1;
        EXPECT_EQ(read_rect_list_file(path.c_str(), &read, &count), 4) << body;
        EXPECT_EQ(read, &sentinel);
        EXPECT_EQ(count, -1);
    }
}

TEST(RectListFile, LabelledListsNeedEveryDeclaredLine) {
    TempDir dir;
    std::string path = dir.file("labelled.txt");
    VRectf fboxes[2] = {{1.5f, 2, 3, 4}, {0, 0.25f, 1, 1}};
    int labels[2] = {3, -1};
    ASSERT_EQ(write_rect_list_file(path.c_str(), fboxes, labels, 2), 0);
    EXPECT_EQ(read_file(path), "2\n3 1.500000 2.000000 3.000000 4.000000\n-1 0.000000 0.250000 1.000000 1.000000\n");
    VRectf* fread_ = nullptr;
    int* lread = nullptr;
    int count = 0;
    ASSERT_EQ(read_rect_list_file(path.c_str(), &fread_, &lread, &count), 0);
    ASSERT_EQ(count, 2);
    EXPECT_EQ(std::make_tuple(lread[1], fread_[0].x, fread_[1].y), std::make_tuple(-1, 1.5f, 0.25f));
    free(fread_);
    free(lread);

    VRect iboxes[1] = {{10, 20, 30, 40}};
    ASSERT_EQ(write_rect_list_file(path.c_str(), iboxes, labels, 1), 0);
    EXPECT_EQ(read_file(path), "1\n3 10 20 30 40\n");
    VRect* iread = nullptr;
    ASSERT_EQ(read_rect_list_file(path.c_str(), &iread, &lread, &count), 0);
    EXPECT_EQ(std::make_pair(lread[0], iread[0].height), std::make_pair(3, 40));
    free(iread);
    free(lread);

    // Fewer lines than declared: refused whole, nothing handed out.
    for (const char* body : {"3\n1 1 2 3 4\n2 5 6 7 8\n", "2000000000\n1 1 2 3 4\n", "0\n", "x\n1 1 2 3 4\n", ""}) {
        write_file(path, body);
        iread = nullptr;
        lread = nullptr;
        count = -1;
        testing::internal::CaptureStderr();
        EXPECT_EQ(read_rect_list_file(path.c_str(), &iread, &lread, &count), 4) << body;
        EXPECT_EQ(read_rect_list_file(path.c_str(), &fread_, &lread, &count), 4) << body;
        std::string err = testing::internal::GetCapturedStderr();
        if (body[0] == '3') {
            EXPECT_EQ(err, "vlib/base: read_rect_list_file: check failed: count == size\n"
                           "vlib/base: read_rect_list_file: check failed: count == size\n");
        }
        EXPECT_EQ(iread, nullptr);
        EXPECT_EQ(lread, nullptr);
        EXPECT_EQ(count, -1);
    }
}

TEST(RectListFile, WritersRefuseMissingArgumentsAndUnopenablePaths) {
    TempDir dir;
    std::string path = dir.file("w.txt");
    VRect boxes[1] = {{1, 2, 3, 4}};
    VRectf fboxes[1] = {{1, 2, 3, 4}};
    int labels[1] = {0};
    EXPECT_EQ(write_rect_list_file(nullptr, boxes, 1), 2);
    EXPECT_EQ(write_rect_list_file(path.c_str(), static_cast<VRect*>(nullptr), 1), 2);
    EXPECT_EQ(write_rect_list_file(path.c_str(), boxes, 0), 2);
    EXPECT_EQ(write_rect_list_file(path.c_str(), fboxes, nullptr, 1), 2);
    EXPECT_EQ(write_attr_file(nullptr, AttrData{}), 7);
    // A negative count writes only the count line.
    ASSERT_EQ(write_rect_list_file(path.c_str(), boxes, -2), 0);
    EXPECT_EQ(read_file(path), "-2\n");

    std::string missing = dir.file("no/such/dir/w.txt");
    const Printed refused{4, "Can't open file " + missing + "\n", ""};
    EXPECT_EQ(printed_by([&] { return write_rect_list_file(missing.c_str(), boxes, 1); }), refused);
    EXPECT_EQ(printed_by([&] { return write_rect_list_file(missing.c_str(), boxes, labels, 1); }), refused);
    EXPECT_EQ(printed_by([&] { return write_rect_list_file(missing.c_str(), fboxes, labels, 1); }), refused);
    EXPECT_EQ(write_rect_file(missing.c_str(), boxes[0]), 4);
    EXPECT_EQ(write_rect_file(missing.c_str(), fboxes[0]), 4);
    EXPECT_EQ(write_attr_file(missing.c_str(), AttrData{}), 4);
}

TEST(AttrFile, KeysInAnyOrderUnknownKeysStopTheReading) {
    TempDir dir;
    std::string path = dir.file("attr.txt");
    ASSERT_EQ(write_attr_file(path.c_str(), AttrData{2, 30, 0.5f, 1, 0}), 0);
    EXPECT_EQ(read_file(path), "emotion 2\nage 30\nbeauty 0.500000\nmale 1\nrace 0\n");
    AttrData a{-1, -1, -1.0f, -1, -1};
    auto fields = [](const AttrData& d) { return std::make_tuple(d.emotion, d.age, d.beauty, d.male, d.race); };
    ASSERT_EQ(read_attr_file(path.c_str(), &a), 0);
    EXPECT_EQ(fields(a), std::make_tuple(2, 30, 0.5f, 1, 0));

    write_file(path, "race 3\n\nage 41\n");
    a = {-1, -1, -1.0f, -1, -1};
    ASSERT_EQ(read_attr_file(path.c_str(), &a), 0);
    EXPECT_EQ(fields(a), std::make_tuple(-1, 41, -1.0f, -1, 3));

    // Fields before the unknown key stay filled, those after are not read.
    write_file(path, "male 0\nheight 180\nage 12\n");
    a = {-1, -1, -1.0f, -1, -1};
    EXPECT_EQ(read_attr_file(path.c_str(), &a), 4);
    EXPECT_EQ(fields(a), std::make_tuple(-1, -1, -1.0f, 0, -1));
    // Keys compare exactly; an overlong first word is just an unknown key.
    for (const std::string& body : {std::string("ages 12\n"), std::string(200, 'k') + " 1\n", std::string(600, 'a')}) {
        write_file(path, body);
        EXPECT_EQ(read_attr_file(path.c_str(), &a), 4);
    }
    EXPECT_EQ(read_attr_file(dir.file("absent").c_str(), &a), 4);
}

TEST(SliceListFile, ModeSelectsTheScore) {
    TempDir dir;
    std::string path = dir.file("slices.txt");
    SliceData* s = nullptr;
    int count = 0;
    int mode = -1;
    write_file(path, "1\n2\n0.1 0.9 1\n0.8 0.2 0\n");
    ASSERT_EQ(read_slice_list_file(path.c_str(), &s, &count, &mode), 0);
    ASSERT_EQ(count, 2);
    EXPECT_EQ(std::make_tuple(mode, s[0].score, s[0].label, s[1].score, s[1].label),
              std::make_tuple(1, 0.9f, 1, 0.2f, 0));
    free(s);
    // Line breaks and blanks are interchangeable.
    write_file(path, "0 2 0.1 0.9\n1 0.8\n0.2 0");
    ASSERT_EQ(read_slice_list_file(path.c_str(), &s, &count, &mode), 0);
    EXPECT_EQ(std::make_tuple(mode, s[0].score, s[1].score), std::make_tuple(0, 0.1f, 0.8f));
    free(s);

    for (const char* body : {"", "1\n", "1\n0\n", "x\n1\n0.1 0.2 1\n", "1\n3\n0.1 0.9 1\n0.8 0.2 0\n",
                             "1\n2\n0.1 0.9 1\nbad\n", "1\n2000000000\n0.1 0.2 1\n"}) {
        write_file(path, body);
        SliceData sentinel{};
        s = &sentinel;
        count = mode = -1;
        EXPECT_EQ(read_slice_list_file(path.c_str(), &s, &count, &mode), 4) << body;
        EXPECT_EQ(s, &sentinel);
        EXPECT_EQ(count, -1);
        EXPECT_EQ(mode, -1);
    }
}

// Random text from the tokens of these formats, behind valid headers now
// and then: every reader returns without touching memory it does not own.
TEST(AnnotationReaders, SurviveRandomText) {
    TempDir dir;
    std::string path = dir.file("noise.txt");
    const std::string longWord(300, 'z');
    const char* tokens[] = {"0",   "1",  "-1", "7",     "2000000000", "-2147483648", "99999999999",
                            "0.5", "1e38", "nan", " ", "\n",         "\n",          "\t",
                            "age", "beauty", "x", "}", longWord.c_str()};
    const char* headers[] = {"", "3\n", "2000000000\n", "1\n2\n", "version: 1\nn_points:  3\n{\n"};
    std::mt19937 rng(1234);
    for (int round = 0; round < 200; ++round) {
        std::string body = headers[rng() % 5];
        for (int t = int(rng() % 60); t > 0; --t) body += tokens[rng() % 19];
        write_file(path, body);
        testing::internal::CaptureStdout();
        testing::internal::CaptureStderr();
        VRect* rects = nullptr;
        VRectf* frects = nullptr;
        int* labels = nullptr;
        SliceData* slices = nullptr;
        int count = 0;
        int mode = 0;
        if (read_rect_list_file(path.c_str(), &rects, &count) == 0) free(rects);
        if (read_rect_list_file(path.c_str(), &rects, &labels, &count) == 0) free(rects), free(labels);
        if (read_rect_list_file(path.c_str(), &frects, &labels, &count) == 0) free(frects), free(labels);
        if (read_slice_list_file(path.c_str(), &slices, &count, &mode) == 0) free(slices);
        AttrData attr{};
        read_attr_file(path.c_str(), &attr);
        Shape shape{};
        int points = read_pts_file(path.c_str(), shape);
        EXPECT_TRUE(points >= 0 && points <= 202);
        testing::internal::GetCapturedStderr();
        testing::internal::GetCapturedStdout();
    }
}

}  // namespace
