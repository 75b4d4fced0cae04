#include <gtest/gtest.h>
#include <vonet/vonet.h>

#include <algorithm>
#include <limits>
#include <tuple>
#include <random>
#include <utility>
#include <vector>

#include "test_util.h"

namespace {

ObjectInfof box(float x, float y, float w, float h, float conf) { return ObjectInfof{x, y, w, h, conf, 1, 1.0f}; }

bool same_records(const ObjectInfof* a, const ObjectInfof* b, int n) {
    return std::equal(a, a + n, b, vo_test::same_record);
}

bool same_records(const std::vector<ObjectInfo>& a, const std::vector<ObjectInfo>& b) {
    return std::equal(a.begin(), a.end(), b.begin(), b.end(), [](const ObjectInfo& p, const ObjectInfo& q) {
        return std::tie(p.x, p.y, p.width, p.height, p.label) == std::tie(q.x, q.y, q.width, q.height, q.label) &&
               vo_test::bits_of(p.conf) == vo_test::bits_of(q.conf);
    });
}

// The suppression as written: every pair (i, j > i) of unflagged records,
// the intersection in whole pixels over each box's own area.
int reference_merge(ObjectInfof* objs, int num, float threshold) {
    if (num < 2) return num;
    std::vector<char> flag(size_t(num), 0);
    for (int i = 0; i < num; ++i) {
        if (flag[i]) continue;
        const float areaI = objs[i].width * objs[i].height;
        for (int j = i + 1; j < num; ++j) {
            if (flag[j]) continue;
            const float areaJ = objs[j].width * objs[j].height;
            const VRectf a{objs[i].x, objs[i].y, objs[i].width, objs[i].height};
            const VRectf b{objs[j].x, objs[j].y, objs[j].width, objs[j].height};
            const int ov = int(rect_overlap(a, b));
            const float ratioJ = ov * (1 / areaJ);
            const float ratioI = ov * (1 / areaI);
            if (ratioJ > threshold || ratioI > threshold) {
                if (objs[i].conf > objs[j].conf)
                    flag[j] = 1;
                else
                    flag[i] = 1;
            }
        }
    }
    for (int k = 0; k < num;) {
        if (flag[k]) {
            objs[k] = objs[num - 1];
            flag[k] = flag[num - 1];
            --num;
        } else {
            ++k;
        }
    }
    return num;
}

TEST(MergeRects, WorkedExamples) {
    // Equal conf: the later box is kept.
    ObjectInfof tie[2] = {box(0, 0, 10, 10, 0.5f), box(1, 0, 10, 10, 0.5f)};
    const ObjectInfof later = tie[1];
    ASSERT_EQ(merge_rects(tie, 2, 0.6f), 1);
    EXPECT_TRUE(same_records(tie, &later, 1));

    // P (0.9) overlaps Q (0.5), Q overlaps R (0.7): Q is suppressed and
    // takes no further part, so R stays.
    ObjectInfof chain[3] = {box(0, 0, 10, 10, 0.9f), box(2, 0, 10, 10, 0.5f), box(5, 0, 10, 10, 0.7f)};
    const ObjectInfof p = chain[0], r = chain[2];
    ASSERT_EQ(merge_rects(chain, 3, 0.6f), 2);
    EXPECT_TRUE(same_records(&chain[0], &p, 1));
    EXPECT_TRUE(same_records(&chain[1], &r, 1));

    // P (0.5) overlaps Q (0.9) and R (0.3), which do not overlap: P is
    // flagged by Q yet still flags R; only Q remains.
    ObjectInfof flagged[3] = {box(3, 0, 10, 10, 0.5f), box(0, 0, 10, 10, 0.9f), box(6, 0, 10, 10, 0.3f)};
    const ObjectInfof q = flagged[1];
    ASSERT_EQ(merge_rects(flagged, 3, 0.6f), 1);
    EXPECT_TRUE(same_records(flagged, &q, 1));

    // Records 0 and 2 flagged: the result is record 3, then record 1.
    ObjectInfof four[4] = {box(0, 0, 10, 10, 0.1f), box(1, 0, 10, 10, 0.2f), box(50, 0, 10, 10, 0.1f),
                           box(51, 0, 10, 10, 0.2f)};
    const ObjectInfof expected[2] = {four[3], four[1]};
    ASSERT_EQ(merge_rects(four, 4, 0.6f), 2);
    EXPECT_TRUE(same_records(four, expected, 2));

    // The intersection is measured against each box's own area: a small box
    // inside a large one is suppressed although their union is large.
    ObjectInfof nested[2] = {box(0, 0, 100, 100, 0.9f), box(10, 10, 10, 10, 0.5f)};
    EXPECT_EQ(merge_rects(nested, 2, 0.6f), 1);
    EXPECT_EQ(nested[0].width, 100.0f);

    // Exactly 0.6 of a box is not above the threshold.
    ObjectInfof edge[2] = {box(0, 0, 10, 10, 0.9f), box(4, 0, 10, 10, 0.5f)};
    EXPECT_EQ(merge_rects(edge, 2, 0.6f), 2);

    ObjectInfof one = box(0, 0, 1, 1, 1);
    EXPECT_EQ(merge_rects(&one, 1, 0.6f), 1);
    EXPECT_EQ(merge_rects(nullptr, 0, 0.6f), 0);
    EXPECT_EQ(merge_rects(nullptr, -2, 0.6f), -2);
}

TEST(MergeRects, MatchesTheLiteralAlgorithm) {
    std::mt19937 rng(11);
    const float nan = std::numeric_limits<float>::quiet_NaN();
    const float thresholds[] = {0.6f, 0.0f, 0.3f, 0.95f, -0.1f, nan};
    const int counts[] = {2, 3, 10, 63, 64, 65, 200, 700};
    for (int count : counts) {
        for (float threshold : thresholds) {
            for (int round = 0; round < 4; ++round) {
                std::vector<ObjectInfof> objs(static_cast<size_t>(count));
                const float span = round == 3 ? 2000.0f : 300.0f;
                for (ObjectInfof& o : objs) {
                    o.x = float(int(rng() % int(span))) + (round == 1 ? float(rng() % 8) * 0.125f : 0.0f);
                    o.y = float(int(rng() % 200)) - 20.0f;
                    o.width = float(4 + rng() % 60);
                    o.height = round == 2 && rng() % 5 == 0 ? 0.0f : float(4 + rng() % 60);
                    if (round == 2 && rng() % 7 == 0) o.width = -o.width;
                    o.conf = float(rng() % 4) * 0.25f;  // many ties
                    o.label = uint8_t(rng());
                    o.scale = float(rng() % 100);
                }
                std::vector<ObjectInfof> expected = objs;
                const int n = merge_rects(objs.data(), count, threshold);
                const int m = reference_merge(expected.data(), count, threshold);
                ASSERT_EQ(n, m) << count << " " << threshold << " " << round;
                ASSERT_TRUE(same_records(objs.data(), expected.data(), n)) << count << " " << threshold;
            }
        }
    }
}

// The ordering as written: a three-way quicksort over an explicit stack
// of ranges. `before(a, b)` is true when a's key comes strictly first.
template <class Before>
void reference_sort(ObjectInfo* a, int n, Before before) {
    auto equal = [&](const ObjectInfo& x, const ObjectInfo& y) { return !before(x, y) && !before(y, x); };
    auto insertion = [&](int lo, int hi) {
        for (int i = lo + 1; i <= hi; ++i)
            for (int j = i; j > lo && before(a[j], a[j - 1]); --j) std::swap(a[j], a[j - 1]);
    };
    // Median of the records at i, j, k (a, b, c).
    auto median = [&](int i, int j, int k) {
        if (before(a[i], a[j])) {
            if (before(a[j], a[k])) return j;
            return before(a[i], a[k]) ? k : i;  // the later of a and c, a on a tie
        }
        if (before(a[k], a[j])) return j;
        return before(a[i], a[k]) ? i : k;  // the first of a and c, c on a tie
    };
    if (n < 2) return;
    std::vector<std::pair<int, int>> stack{{0, n - 1}};
    while (!stack.empty()) {
        int lo = stack.back().first, hi = stack.back().second;
        stack.pop_back();
        for (;;) {
            const int len = hi - lo + 1;
            if (len <= 7) {
                insertion(lo, hi);
                break;
            }
            const int mid = lo + len / 2;
            int pivot;
            if (len <= 40) {
                pivot = median(lo, mid, hi);
            } else {
                const int d = len / 8;
                pivot = median(median(lo, lo + d, lo + 2 * d), median(mid - d, mid, mid + d),
                               median(hi - 2 * d, hi - d, hi));
            }
            std::swap(a[lo], a[pivot]);
            int pa = lo + 1, pb = lo + 1, pc = hi, pd = hi;
            bool exchanged = false;
            while (true) {
                while (pb <= pc && !before(a[lo], a[pb])) {
                    if (equal(a[pb], a[lo])) {
                        exchanged = true;
                        std::swap(a[pa++], a[pb]);
                    }
                    ++pb;
                }
                while (pb <= pc && !before(a[pc], a[lo])) {
                    if (equal(a[pc], a[lo])) {
                        exchanged = true;
                        std::swap(a[pc], a[pd--]);
                    }
                    --pc;
                }
                if (pb > pc) break;
                std::swap(a[pb++], a[pc--]);
                exchanged = true;
            }
            if (!exchanged) {
                insertion(lo, hi);
                break;
            }
            int s = std::min(pa - lo, pb - pa);
            for (int t = 0; t < s; ++t) std::swap(a[lo + t], a[pb - s + t]);
            s = std::min(pd - pc, hi - pd);
            for (int t = 0; t < s; ++t) std::swap(a[pb + t], a[hi - s + 1 + t]);
            const int left = pb - pa, right = pd - pc;
            const std::pair<int, int> l{lo, lo + left - 1}, r{hi - right + 1, hi};
            if (left >= 2 && right >= 2) {
                if (left > right) {
                    stack.push_back(l);
                    lo = r.first;
                    hi = r.second;
                } else {
                    stack.push_back(r);
                    lo = l.first;
                    hi = l.second;
                }
            } else if (left >= 2) {
                lo = l.first;
                hi = l.second;
            } else if (right >= 2) {
                lo = r.first;
                hi = r.second;
            } else {
                break;
            }
        }
    }
}

TEST(SortObjInfo, SameRecordPermutationAsTheLiteralAlgorithm) {
    struct Ordering {
        void (*sort)(ObjectInfo*, int);
        bool (*before)(const ObjectInfo&, const ObjectInfo&);
    };
    const Ordering orderings[] = {
        {sort_arr_objinfo_by_horizontal, [](const ObjectInfo& a, const ObjectInfo& b) { return a.x < b.x; }},
        {sort_arr_objinfo_by_vertical, [](const ObjectInfo& a, const ObjectInfo& b) { return a.y < b.y; }},
        {sort_arr_objinfo_by_conf, [](const ObjectInfo& a, const ObjectInfo& b) { return a.conf > b.conf; }},
    };
    std::mt19937 rng(5);
    const int sizes[] = {0, 1, 2, 3, 7, 8, 9, 40, 41, 42, 100, 257, 1000, 5000};
    for (int n : sizes) {
        for (int variant = 0; variant < 6; ++variant) {
            std::vector<ObjectInfo> objs(static_cast<size_t>(n));
            const int range = variant == 0 ? 3 : variant == 1 ? 20 : 100000;
            for (int i = 0; i < n; ++i) {
                ObjectInfo& o = objs[i];
                o.x = int(rng() % range) - range / 2;
                o.y = int(rng() % range);
                o.width = i;  // identifies the record
                o.height = int(rng());
                o.conf = float(rng() % range) * 0.5f;
                o.label = uint8_t(i);
            }
            for (int i = 0; variant == 3 && i < n; ++i)  // already sorted, distinct keys
                objs[i].x = objs[i].y = i, objs[i].conf = float(n - i);
            for (int i = 0; variant == 4 && i < n; ++i)  // reversed
                objs[i].x = objs[i].y = n - i, objs[i].conf = float(i);
            if (variant == 5)  // all equal
                for (ObjectInfo& o : objs) o = ObjectInfo{4, 4, o.width, 0, 0.5f, 0};

            for (const Ordering& order : orderings) {
                std::vector<ObjectInfo> got = objs, expected = objs;
                order.sort(got.data(), n);
                reference_sort(expected.data(), n, order.before);
                ASSERT_TRUE(same_records(got, expected)) << n << " " << variant;
                for (int i = 1; i < n; ++i) ASSERT_FALSE(order.before(got[i], got[i - 1]));
            }
        }
    }
    sort_arr_objinfo_by_conf(nullptr, 5);
}

TEST(FilterBySize, WorkedExamples) {
    // Widths and heights {40, 42, 100}: all kept (bounds 36.4 and 101.1),
    // common side trunc(0.6 x 60.666668) = 36 about each centre.
    VRect kept[3] = {{0, 0, 40, 40}, {50, 50, 42, 42}, {100, 100, 100, 100}};
    ASSERT_EQ(filter_by_size(kept, 3), 3);
    const VRect expectKept[3] = {{1, 1, 36, 36}, {52, 52, 36, 36}, {131, 131, 36, 36}};
    EXPECT_EQ(memcmp(kept, expectKept, sizeof(kept)), 0);

    // {10, 100, 100}: the 10-pixel box is below 0.6 x 70 and is replaced by
    // the last box. The side is the float 0.6 x 100 = 60.0000038, so the
    // corners, 30.0000019 before the centres, truncate one pixel lower.
    VRect dropped[3] = {{0, 0, 10, 10}, {20, 0, 100, 100}, {200, 0, 100, 100}};
    ASSERT_EQ(filter_by_size(dropped, 3), 2);
    const VRect expectDropped[2] = {{219, 19, 60, 60}, {39, 19, 60, 60}};
    EXPECT_EQ(memcmp(dropped, expectDropped, sizeof(expectDropped)), 0);

    // Heights are tested on their own mean; the side follows the smaller mean.
    VRect tall[3] = {{0, 0, 50, 10}, {0, 0, 50, 100}, {0, 0, 50, 100}};
    ASSERT_EQ(filter_by_size(tall, 3), 2);
    EXPECT_EQ(tall[0].width, 30);  // 0.6 x 50
    EXPECT_EQ(tall[0].height, 30);

    // Nothing survives; empty and negative counts come back unchanged.
    VRect none[2] = {{0, 0, 1, 1}, {0, 0, 100, 100}};
    EXPECT_EQ(filter_by_size(none, 2), 0);
    EXPECT_EQ(filter_by_size(none, 0), 0);
    EXPECT_EQ(filter_by_size(none, -3), -3);
    EXPECT_EQ(filter_by_size(nullptr, 3), 0);
}

}  // namespace
