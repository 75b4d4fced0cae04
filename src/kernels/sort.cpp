// Ascending float sort: the library's quicksort with the plain IEEE
// comparisons. A NaN compares false with everything; the sort still ends
// and keeps every value.
#include <vonet/kernels.h>

#include "common/quicksort.h"

namespace {

struct FloatAscending {
    static bool before(float a, float b) { return a < b; }
    static bool not_after(float a, float pivot) { return a <= pivot; }
    static bool not_before(float a, float pivot) { return a >= pivot; }
};

}  // namespace

void sort_arr_dtype(float* arr, int32_t n) { vo::quicksort<FloatAscending>(arr, n); }
