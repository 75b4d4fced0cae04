#include <vonet/vonet.h>

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "test_util.h"

namespace {

using namespace vo_test;

std::vector<std::string> read_list(const std::string& path, int expectedStatus = 0) {
    char** list = reinterpret_cast<char**>(&list);  // must be reset
    int count = -1;
    EXPECT_EQ(read_file_list(path.c_str(), &list, &count), expectedStatus);
    std::vector<std::string> lines(list, list + std::max(count, 0));
    if (count == 0) {
        EXPECT_EQ(list, nullptr);
    } else {
        EXPECT_EQ(release_file_list(&list, count), 0);
        EXPECT_EQ(list, nullptr);
    }
    return lines;
}

TEST(FileList, OneEntryPerLineWithoutItsLastCharacter) {
    TempDir dir;
    std::string path = dir.file("list.txt");
    write_file(path, "a.jpg\nb.jpg\nc.jpg\n");
    EXPECT_EQ(read_list(path), (std::vector<std::string>{"a.jpg", "b.jpg", "c.jpg"}));
    write_file(path, "a.jpg\nb.jpg");
    EXPECT_EQ(read_list(path), (std::vector<std::string>{"a.jpg", "b.jp"}));
    write_file(path, "");
    EXPECT_TRUE(read_list(path).empty());

    // Across several growths of the array.
    std::string body;
    std::vector<std::string> expected;
    for (int i = 0; i < 40; ++i) {
        expected.push_back("img" + std::to_string(i) + ".png");
        body += expected.back() + "\n";
    }
    write_file(path, body);
    EXPECT_EQ(read_list(path), expected);

    // A line longer than the 511-byte buffer arrives in pieces, each
    // losing its last character.
    write_file(path, std::string(600, 'x') + "\n");
    EXPECT_EQ(read_list(path), (std::vector<std::string>{std::string(509, 'x'), std::string(90, 'x')}));

    testing::internal::CaptureStdout();
    EXPECT_TRUE(read_list(dir.file("absent"), 4).empty());
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "Can't open file " + dir.file("absent") + "\n");
    char** none = nullptr;
    EXPECT_EQ(release_file_list(&none, 3), 2);
}

TEST(FileList, RandomListsOnlyExchangesEntries) {
    char a[] = "a";
    char* one[] = {a};
    random_lists(one, 1);
    EXPECT_EQ(one[0], a);

    std::vector<std::string> names(50, "n");
    std::vector<char*> list;
    for (std::string& n : names) list.push_back(&n[0]);
    random_lists(list.data(), int(list.size()));
    EXPECT_EQ(std::set<char*>(list.begin(), list.end()).size(), names.size());
}

TEST(FilePath, SplitsAtTheLastDotAndTheSlashBeforeIt) {
    const char* cases[][4] = {
        {"dir/sub/file.txt", "dir/sub", "file", "txt"}, {"file.txt", ".", "file", "txt"},
        {"dir/file", "dir", "file", ""},                {"/file.txt", ".", "file", "txt"},
        {"a.b/c", ".", "a", "b/c"},                     {"name.", ".", "name", ""},
        {"", ".", "", ""},                              {"/abs/dir/x.tar.gz", "/abs/dir", "x.tar", "gz"},
    };
    for (const auto& c : cases) {
        std::string path = c[0];
        std::vector<char> dir(path.size() + 2), name(path.size() + 1), ext(path.size() + 1);
        EXPECT_EQ(analysis_file_path(c[0], dir.data(), name.data(), ext.data()), name.data());
        EXPECT_STREQ(dir.data(), c[1]) << path;
        EXPECT_STREQ(name.data(), c[2]) << path;
        EXPECT_STREQ(ext.data(), c[3]) << path;
    }
}

TEST(FileQueries, ExistenceAndLineCounts) {
    TempDir dir;
    std::string path = dir.file("lines.txt");
    EXPECT_EQ(file_exist(""), 0);
    EXPECT_EQ(file_exist(path.c_str()), 0);
    EXPECT_EQ(file_line_size(path.c_str()), 0);
    write_file(path, "one\ntwo\nthree");
    EXPECT_EQ(file_exist(path.c_str()), 1);
    EXPECT_EQ(file_line_size(path.c_str()), 3);
    write_file(path, "");
    EXPECT_EQ(file_line_size(path.c_str()), 0);
    // A line longer than the 4095-byte buffer counts once per piece.
    write_file(path, std::string(5000, 'y') + "\n");
    EXPECT_EQ(file_line_size(path.c_str()), 2);
}

TEST(FileQueries, CreateDirectoryMakesEveryMissingLevel) {
    auto is_dir = [](const std::string& p) {
        struct stat st;
        return stat(p.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
    };
    TempDir dir;
    std::string nested = dir.file("a/b//c/");
    EXPECT_EQ(create_directory(nested.c_str()), 0);
    EXPECT_TRUE(is_dir(dir.file("a/b/c")));
    EXPECT_EQ(create_directory(nested.c_str()), 0);  // already there
    // Blanks and shell characters are plain name characters.
    std::string odd = dir.file("with blank/$(touch pwned);x|y");
    EXPECT_EQ(create_directory(odd.c_str()), 0);
    EXPECT_TRUE(is_dir(odd));

    write_file(dir.file("plain"), "x");
    EXPECT_NE(create_directory(dir.file("plain").c_str()), 0);
    EXPECT_NE(create_directory(dir.file("plain/below").c_str()), 0);
    EXPECT_NE(create_directory(""), 0);
}

template <class T>
void expect_sorts_like_std(void (*sort)(T*, int), std::mt19937& rng, int n, int distinct) {
    std::uniform_int_distribution<int> pick(-distinct, distinct);
    std::vector<T> v(static_cast<size_t>(n));
    for (T& x : v) x = T(pick(rng)) / T(2);
    std::vector<T> expected = v;
    std::sort(expected.begin(), expected.end());
    sort(v.data(), n);
    ASSERT_EQ(v, expected) << "n=" << n << " distinct=" << distinct;
}

TEST(Sort, AscendingLikeTheStandardSort) {
    std::vector<int> ints = {3, -1, 2, -1};
    sort_arr_int(ints.data(), 4);
    EXPECT_EQ(ints, (std::vector<int>{-1, -1, 2, 3}));
    // Every size through the insertion, median-of-three and ninther
    // thresholds, with many, few and no duplicates.
    std::mt19937 rng(7);
    for (int n = 0; n <= 120; ++n) {
        for (int distinct : {1, 3, 1000}) {
            expect_sorts_like_std<int>(sort_arr_int, rng, n, distinct);
            expect_sorts_like_std<float>(sort_arr_float, rng, n, distinct);
        }
    }
    expect_sorts_like_std<int>(sort_arr_int, rng, 100000, 50);
    std::vector<int> v(5000);
    for (int i = 0; i < 5000; ++i) v[size_t(i)] = i < 2500 ? i : 5000 - i;  // organ pipe
    sort_arr_int(v.data(), 5000);
    EXPECT_TRUE(std::is_sorted(v.begin(), v.end()));
    sort_arr_int(v.data(), 5000);  // presorted
    EXPECT_TRUE(std::is_sorted(v.begin(), v.end()));
}

}  // namespace
