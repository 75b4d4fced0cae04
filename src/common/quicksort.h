// The one quicksort of the library: non-recursive, three-way partition,
// median of three (pseudo-median of nine above 40 elements) pivots, and
// insertion sort for short ranges and for ranges whose partition swapped
// nothing. Whole elements move; the permutation of equal elements is fixed
// by the algorithm, so callers may rely on it.
#ifndef VONET_COMMON_QUICKSORT_H
#define VONET_COMMON_QUICKSORT_H

#include <algorithm>
#include <utility>

namespace vo {

// An order is a type with three static predicates:
//   before(a, b)      a sorts strictly before b
//   not_after(a, p)   a may stay left of the pivot p
//   not_before(a, p)  a may stay right of the pivot p
// An element that is both is equal to the pivot. For a total order the
// last two are !before(p, a) and !before(a, p) (TotalOrder below); an order
// with unordered values, such as floats with NaN, may define them itself.
template <class Less>
struct TotalOrder {
    template <class T>
    static bool before(const T& a, const T& b) {
        return Less::less(a, b);
    }
    template <class T>
    static bool not_after(const T& a, const T& p) {
        return !Less::less(p, a);
    }
    template <class T>
    static bool not_before(const T& a, const T& p) {
        return !Less::less(a, p);
    }
};

// operator< ascending.
struct NaturalLess {
    template <class T>
    static bool less(const T& a, const T& b) {
        return a < b;
    }
};
using Ascending = TotalOrder<NaturalLess>;

namespace quicksort_detail {

template <class Order, class T>
void insertion_sort(T* a, int lo, int hi) {
    for (int i = lo + 1; i <= hi; ++i)
        for (int j = i; j > lo && Order::before(a[j], a[j - 1]); --j) std::swap(a[j - 1], a[j]);
}

template <class Order, class T>
int median_of_three(const T* a, int i, int j, int k) {
    if (Order::before(a[i], a[j])) return Order::before(a[j], a[k]) ? j : (Order::before(a[i], a[k]) ? k : i);
    return Order::before(a[k], a[j]) ? j : (Order::before(a[i], a[k]) ? i : k);
}

// Exchanges the blocks of `count` elements starting at i and at j.
template <class T>
void swap_blocks(T* a, int i, int j, int count) {
    for (int t = 0; t < count; ++t) std::swap(a[i + t], a[j + t]);
}

}  // namespace quicksort_detail

// Sorts a[0 .. n - 1] in place by `Order`. The shorter part of a partition
// is always sorted next while the longer waits on an explicit stack, so the
// stack never holds more than log2(n) ranges.
template <class Order, class T>
void quicksort(T* a, int n) {
    using namespace quicksort_detail;
    if (!a || n < 2) return;
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

            // Elements equal to the pivot (which stays at a[lo]) gather at
            // both ends, then move to the middle. Meeting an equal element
            // counts as an exchange even when nothing moves.
            int pa = lo + 1, pb = lo + 1, pc = hi, pd = hi;
            bool swapped = false;
            for (;;) {
                while (pb <= pc && Order::not_after(a[pb], a[lo])) {
                    if (Order::not_before(a[pb], a[lo])) {
                        swapped = true;
                        std::swap(a[pa], a[pb]);
                        ++pa;
                    }
                    ++pb;
                }
                while (pb <= pc && Order::not_before(a[pc], a[lo])) {
                    if (Order::not_after(a[pc], a[lo])) {
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
                    hi = left.hi;
                } else if (after >= 2) {
                    lo = right.lo;
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

}  // namespace vo

#endif
