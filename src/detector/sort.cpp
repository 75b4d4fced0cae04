// Orderings of detection arrays: a non-recursive three-way quicksort
// (median of three, pseudo-median of nine above 40 records, insertion sort
// for short or unswapped ranges). Whole records move, and the permutation
// of records with equal keys is fixed by the algorithm, so it is kept
// exactly as it is.
#include <vonet/detector.h>

#include <algorithm>
#include <utility>

namespace {

// -1 when a comes before b, 1 when b comes before a, 0 for equal keys.
struct ByX {
    static int compare(const ObjectInfo& a, const ObjectInfo& b) { return a.x < b.x ? -1 : (b.x < a.x ? 1 : 0); }
};
struct ByY {
    static int compare(const ObjectInfo& a, const ObjectInfo& b) { return a.y < b.y ? -1 : (b.y < a.y ? 1 : 0); }
};
struct ByConfDescending {
    static int compare(const ObjectInfo& a, const ObjectInfo& b) {
        return a.conf > b.conf ? -1 : (b.conf > a.conf ? 1 : 0);
    }
};

template <class Order>
void insertion_sort(ObjectInfo* a, int lo, int hi) {
    for (int i = lo + 1; i <= hi; ++i)
        for (int j = i; j > lo && Order::compare(a[j - 1], a[j]) > 0; --j) std::swap(a[j - 1], a[j]);
}

template <class Order>
int median_of_three(const ObjectInfo* a, int i, int j, int k) {
    if (Order::compare(a[i], a[j]) < 0)
        return Order::compare(a[j], a[k]) < 0 ? j : (Order::compare(a[i], a[k]) < 0 ? k : i);
    return Order::compare(a[j], a[k]) > 0 ? j : (Order::compare(a[i], a[k]) < 0 ? i : k);
}

// Exchanges the blocks of `count` records starting at i and at j.
void swap_blocks(ObjectInfo* a, int i, int j, int count) {
    for (int t = 0; t < count; ++t) std::swap(a[i + t], a[j + t]);
}

template <class Order>
void sort_records(ObjectInfo* a, int n) {
    if (!a || n < 2) return;
    // The shorter part is always sorted next, so the stack never holds more
    // than log2(n) ranges.
    struct Range {
        int lo, hi;
    };
    Range stack[64];
    int depth = 0;
    int lo = 0, hi = n - 1;
    for (;;) {
        const int size = hi - lo + 1;
        bool finished = false;
        if (size <= 7) {
            insertion_sort<Order>(a, lo, hi);
            finished = true;
        } else {
            const int mid = lo + size / 2;
            int pivot;
            if (size > 40) {
                const int d = size / 8;
                pivot = median_of_three<Order>(a, median_of_three<Order>(a, lo, lo + d, lo + 2 * d),
                                               median_of_three<Order>(a, mid - d, mid, mid + d),
                                               median_of_three<Order>(a, hi - 2 * d, hi - d, hi));
            } else {
                pivot = median_of_three<Order>(a, lo, mid, hi);
            }
            std::swap(a[lo], a[pivot]);

            // Records equal to the pivot gather at both ends, then move to
            // the middle. Meeting an equal record counts as an exchange even
            // when nothing moves.
            int pa = lo + 1, pb = lo + 1, pc = hi, pd = hi;
            bool swapped = false;
            for (;;) {
                int c;
                while (pb <= pc && (c = Order::compare(a[pb], a[lo])) <= 0) {
                    if (c == 0) {
                        swapped = true;
                        std::swap(a[pa], a[pb]);
                        ++pa;
                    }
                    ++pb;
                }
                while (pb <= pc && (c = Order::compare(a[pc], a[lo])) >= 0) {
                    if (c == 0) {
                        swapped = true;
                        std::swap(a[pc], a[pd]);
                        --pd;
                    }
                    --pc;
                }
                if (pb > pc) break;
                std::swap(a[pb], a[pc]);
                swapped = true;
                ++pb;
                --pc;
            }
            if (!swapped) {
                // Taken as nearly sorted.
                insertion_sort<Order>(a, lo, hi);
                finished = true;
            } else {
                int r = std::min(pa - lo, pb - pa);
                swap_blocks(a, lo, pb - r, r);
                r = std::min(pd - pc, hi - pd);
                swap_blocks(a, pb, hi - r + 1, r);

                const int before = pb - pa;
                const int after = pd - pc;
                const Range left{lo, lo + before - 1};
                const Range right{hi - after + 1, hi};
                if (before >= 2 && after >= 2) {
                    // The longer part waits (the right one on equal length).
                    const bool leftFirst = before <= after;
                    stack[depth++] = leftFirst ? right : left;
                    const Range next = leftFirst ? left : right;
                    lo = next.lo;
                    hi = next.hi;
                } else if (before >= 2) {
                    lo = left.lo;
                    hi = left.hi;
                } else if (after >= 2) {
                    lo = right.lo;
                    hi = right.hi;
                } else {
                    finished = true;
                }
            }
        }
        if (finished) {
            if (depth == 0) return;
            --depth;
            lo = stack[depth].lo;
            hi = stack[depth].hi;
        }
    }
}

}  // namespace

void sort_arr_objinfo_by_horizontal(ObjectInfo* objs, int num) { sort_records<ByX>(objs, num); }

void sort_arr_objinfo_by_vertical(ObjectInfo* objs, int num) { sort_records<ByY>(objs, num); }

void sort_arr_objinfo_by_conf(ObjectInfo* objs, int num) { sort_records<ByConfDescending>(objs, num); }
