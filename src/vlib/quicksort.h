// Ascending sort for element types other than float: the same
// non-recursive three-way quicksort as the float kernel sort.
#ifndef VONET_VLIB_QUICKSORT_H
#define VONET_VLIB_QUICKSORT_H

namespace vo {

namespace quicksort_detail {

template <class T>
int compare(const T& a, const T& b) {
    return a < b ? -1 : (b < a ? 1 : 0);
}

template <class T>
void swap_at(T* arr, int i, int j) {
    T t = arr[i];
    arr[i] = arr[j];
    arr[j] = t;
}

template <class T>
int median_of_three(const T* arr, int a, int b, int c) {
    return compare(arr[a], arr[b]) < 0
               ? (compare(arr[b], arr[c]) < 0 ? b : (compare(arr[a], arr[c]) < 0 ? c : a))
               : (compare(arr[b], arr[c]) > 0 ? b : (compare(arr[a], arr[c]) < 0 ? a : c));
}

template <class T>
void insertion_sort(T* arr, int first, int last) {
    for (int i = first + 1; i <= last; ++i)
        for (int j = i; j > first && compare(arr[j - 1], arr[j]) > 0; --j) swap_at(arr, j - 1, j);
}

}  // namespace quicksort_detail

// Ascending in place. Ranges below 8 elements, and ranges whose partition
// swapped nothing, finish by insertion sort; the larger part waits on an
// explicit stack while the smaller is sorted, so the stack stays below
// log2(n) entries.
template <class T>
void quicksort_ascending(T* arr, int n) {
    using namespace quicksort_detail;
    if (!arr || n < 2) return;
    struct Range {
        int first, last;
    };
    Range stack[64];
    int depth = 0;
    int first = 0;
    int last = n - 1;
    for (;;) {
        int len = last - first + 1;
        bool finished = false;
        if (len < 8) {
            insertion_sort(arr, first, last);
            finished = true;
        } else {
            int mid = first + len / 2;
            int lo = first;
            int hi = last;
            if (len > 40) {
                int d = len / 8;
                lo = median_of_three(arr, lo, lo + d, lo + 2 * d);
                mid = median_of_three(arr, mid - d, mid, mid + d);
                hi = median_of_three(arr, hi - 2 * d, hi - d, hi);
            }
            swap_at(arr, first, median_of_three(arr, lo, mid, hi));

            // Equal elements gather at both ends, then move to the middle.
            int a = first + 1, b = first + 1, c = last, d = last;
            bool swapped = false;
            for (;;) {
                int cmp;
                while (b <= c && (cmp = compare(arr[b], arr[first])) <= 0) {
                    if (cmp == 0) {
                        swapped = true;
                        swap_at(arr, a++, b);
                    }
                    ++b;
                }
                while (b <= c && (cmp = compare(arr[c], arr[first])) >= 0) {
                    if (cmp == 0) {
                        swapped = true;
                        swap_at(arr, c, d--);
                    }
                    --c;
                }
                if (b > c) break;
                swap_at(arr, b++, c--);
                swapped = true;
            }
            if (!swapped) {
                insertion_sort(arr, first, last);
                finished = true;
            } else {
                int r = a - first < b - a ? a - first : b - a;
                for (int i = 0; i < r; ++i) swap_at(arr, first + i, b - r + i);
                r = d - c < last - d ? d - c : last - d;
                for (int i = 0; i < r; ++i) swap_at(arr, b + i, last + 1 - r + i);

                int lessSize = b - a;
                int greaterSize = d - c;
                Range less{first, first + lessSize - 1};
                Range greater{last - greaterSize + 1, last};
                if (lessSize >= 2 && greaterSize >= 2) {
                    // With equal sizes the greater part waits.
                    bool lessFirst = lessSize <= greaterSize;
                    stack[depth++] = lessFirst ? greater : less;
                    Range next = lessFirst ? less : greater;
                    first = next.first;
                    last = next.last;
                } else if (lessSize >= 2) {
                    last = less.last;
                } else if (greaterSize >= 2) {
                    first = greater.first;
                } else {
                    finished = true;
                }
            }
        }
        if (finished) {
            if (depth == 0) return;
            --depth;
            first = stack[depth].first;
            last = stack[depth].last;
        }
    }
}

}  // namespace vo

#endif
