// Ascending float sort: a quicksort with an explicit stack, median-of-three
// (or pseudo-median of nine) pivots and a three-way partition.
#include <vonet/kernels.h>

#include <algorithm>
#include <utility>

namespace {

inline void insertion_sort(float* a, int32_t first, int32_t last) {
    for (int32_t i = first + 1; i <= last; ++i)
        for (int32_t j = i; j > first && a[j - 1] > a[j]; --j) std::swap(a[j - 1], a[j]);
}

inline int32_t med3(const float* a, int32_t i, int32_t j, int32_t k) {
    return a[i] < a[j] ? (a[j] < a[k] ? j : (a[i] < a[k] ? k : i)) : (a[j] > a[k] ? j : (a[i] < a[k] ? i : k));
}

inline void swap_runs(float* a, int32_t i, int32_t j, int32_t count) {
    for (int32_t t = 0; t < count; ++t) std::swap(a[i + t], a[j + t]);
}

}  // namespace

void sort_arr_dtype(float* arr, int32_t n) {
    if (!arr || n < 2) return;
    // The smaller part is always sorted next and the larger one waits, so
    // the stack never holds more than log2(n) ranges.
    int32_t stack[64][2];
    int top = 0;
    int32_t first = 0, last = n - 1;
    for (;;) {
        const int32_t size = last - first + 1;
        bool done = size < 2;
        if (!done && size < 8) {
            insertion_sort(arr, first, last);
            done = true;
        }
        if (!done) {
            const int32_t mid = first + size / 2;
            int32_t pivot;
            if (size > 40) {
                const int32_t d = size / 8;
                pivot = med3(arr, med3(arr, first, first + d, first + 2 * d), med3(arr, mid - d, mid, mid + d),
                             med3(arr, last - 2 * d, last - d, last));
            } else {
                pivot = med3(arr, first, mid, last);
            }
            std::swap(arr[first], arr[pivot]);
            const float p = arr[first];

            // Equal elements gather at both ends, lesser and greater ones in
            // between; afterwards the equal runs are swapped to the middle.
            int32_t pa = first + 1, pb = first + 1, pc = last, pd = last;
            bool swapped = false;
            for (;;) {
                while (pb <= pc && arr[pb] <= p) {
                    if (arr[pb] == p) {
                        std::swap(arr[pa], arr[pb]);
                        ++pa;
                        swapped = true;
                    }
                    ++pb;
                }
                while (pb <= pc && arr[pc] >= p) {
                    if (arr[pc] == p) {
                        std::swap(arr[pc], arr[pd]);
                        --pd;
                        swapped = true;
                    }
                    --pc;
                }
                if (pb > pc) break;
                std::swap(arr[pb], arr[pc]);
                swapped = true;
                ++pb;
                --pc;
            }
            if (!swapped) {
                insertion_sort(arr, first, last);
                done = true;
            } else {
                int32_t s = std::min(pa - first, pb - pa);
                swap_runs(arr, first, pb - s, s);
                s = std::min(pd - pc, last - pd);
                swap_runs(arr, pb, last + 1 - s, s);

                const int32_t lessSize = pb - pa, greaterSize = pd - pc;
                const int32_t lessFirst = first, greaterFirst = last + 1 - greaterSize;
                if (lessSize >= 2 && greaterSize >= 2) {
                    if (greaterSize >= lessSize) {
                        stack[top][0] = greaterFirst;
                        stack[top][1] = last;
                        ++top;
                        last = lessFirst + lessSize - 1;
                    } else {
                        stack[top][0] = lessFirst;
                        stack[top][1] = lessFirst + lessSize - 1;
                        ++top;
                        first = greaterFirst;
                    }
                    continue;
                }
                if (lessSize >= 2) {
                    last = lessFirst + lessSize - 1;
                    continue;
                }
                if (greaterSize >= 2) {
                    first = greaterFirst;
                    continue;
                }
                done = true;
            }
        }
        if (top == 0) return;
        --top;
        first = stack[top][0];
        last = stack[top][1];
    }
}
