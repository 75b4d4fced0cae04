// Greedy suppression of overlapping boxes.
#include <vonet/detector.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <vector>

#include "detector/detector_internal.h"

namespace {

// Below this many boxes the plain scan over all pairs is as fast as any.
constexpr int kIndexedFrom = 64;

// Coordinates up to this magnitude leave the pruning margin below far
// above any rounding difference.
constexpr double kIndexedRange = 1048576.0;
// Pairs whose centres are this much further apart than their half sizes
// are disjoint for rect_overlap whatever its rounding.
constexpr double kPruneMargin = 2.0;

struct Pairs {
    ObjectInfof* objs;
    uint8_t* flags;
    const float* inverseArea;
    float threshold;

    // The box of lower conf (the earlier one on a tie) is flagged when the
    // intersection covers more than `threshold` of either box.
    void compare(int i, int j) const {
        const ObjectInfof& a = objs[i];
        const ObjectInfof& b = objs[j];
        const int32_t ov = vo::trunc_i32(rect_overlap(VRectf{a.x, a.y, a.width, a.height},
                                                      VRectf{b.x, b.y, b.width, b.height}));
        const float ratioJ = float(ov) * inverseArea[j];
        const float ratioI = float(ov) * inverseArea[i];
        if (ratioJ > threshold || ratioI > threshold) {
            if (a.conf > b.conf)
                flags[j] = 1;
            else
                flags[i] = 1;
        }
    }
};

void scan_all_pairs(const Pairs& pairs, int num) {
    for (int i = 0; i < num; ++i) {
        if (pairs.flags[i]) continue;
        for (int j = i + 1; j < num; ++j)
            if (!pairs.flags[j]) pairs.compare(i, j);
    }
}

// The same decisions, visiting for each i only the boxes whose centres are
// close enough in x to touch it. Valid when disjoint pairs can never be
// flagged (threshold not negative) and every field is finite and moderate.
// For a fixed i the pairs (i, j) are independent of each other: a decision
// reads flags[j] and the two confs only, and flags[j] changes only through
// that pair. So the j may be visited in any order.
bool scan_indexed(const Pairs& pairs, int num) {
    if (pairs.threshold < 0.0f) return false;
    std::vector<double> cx(num), cy(num), hw(num), hh(num);
    double maxHalfWidth = 0.0;
    for (int i = 0; i < num; ++i) {
        const ObjectInfof& o = pairs.objs[i];
        const double fields[4] = {o.x, o.y, o.width, o.height};
        for (double v : fields)
            if (!(std::fabs(v) <= kIndexedRange)) return false;
        hw[i] = 0.5 * o.width;
        hh[i] = 0.5 * o.height;
        cx[i] = o.x + hw[i];
        cy[i] = o.y + hh[i];
        maxHalfWidth = std::max(maxHalfWidth, hw[i]);
    }
    std::vector<int> order(num);
    for (int i = 0; i < num; ++i) order[i] = i;
    std::sort(order.begin(), order.end(), [&](int a, int b) { return cx[a] < cx[b] || (cx[a] == cx[b] && a < b); });
    std::vector<double> sortedCx(num);
    for (int p = 0; p < num; ++p) sortedCx[p] = cx[order[p]];

    for (int i = 0; i < num; ++i) {
        if (pairs.flags[i]) continue;
        const double reach = hw[i] + maxHalfWidth + kPruneMargin;
        const int first = int(std::lower_bound(sortedCx.begin(), sortedCx.end(), cx[i] - reach) - sortedCx.begin());
        const int last = int(std::upper_bound(sortedCx.begin(), sortedCx.end(), cx[i] + reach) - sortedCx.begin());
        for (int p = first; p < last; ++p) {
            const int j = order[p];
            if (j <= i || pairs.flags[j]) continue;
            if (std::fabs(cx[i] - cx[j]) >= hw[i] + hw[j] + kPruneMargin) continue;
            if (std::fabs(cy[i] - cy[j]) >= hh[i] + hh[j] + kPruneMargin) continue;
            pairs.compare(i, j);
        }
    }
    return true;
}

}  // namespace

int merge_rects(ObjectInfof* objs, int num, float threshold) {
    if (num < 2) return num;
    if (!objs) return 0;
    uint8_t* flags = static_cast<uint8_t*>(calloc(size_t(num), 1));
    float* inverseArea = static_cast<float*>(malloc(size_t(num) * sizeof(float)));
    if (!flags || !inverseArea) {
        free(flags);
        free(inverseArea);
        return num;
    }
    for (int i = 0; i < num; ++i) inverseArea[i] = 1.0f / (objs[i].width * objs[i].height);
    const Pairs pairs{objs, flags, inverseArea, threshold};
    bool scanned = false;
    if (num >= kIndexedFrom) {
        // The index is built before any pair is compared, so running out of
        // memory for it simply falls back to the plain scan.
        try {
            scanned = scan_indexed(pairs, num);
        } catch (...) {
            scanned = false;
        }
    }
    if (!scanned) scan_all_pairs(pairs, num);

    // Each flagged record is replaced by the last one, which is examined in
    // its turn.
    int count = num;
    for (int k = 0; k < count;) {
        if (flags[k]) {
            objs[k] = objs[count - 1];
            flags[k] = flags[count - 1];
            --count;
        } else {
            ++k;
        }
    }
    free(flags);
    free(inverseArea);
    return count;
}
