// Orderings of detection arrays by one key, with the library's quicksort:
// whole records move, and the permutation of records with equal keys is
// fixed by the algorithm.
#include <vonet/detector.h>

#include "common/quicksort.h"

namespace {

struct ByX {
    static bool less(const ObjectInfo& a, const ObjectInfo& b) { return a.x < b.x; }
};
struct ByY {
    static bool less(const ObjectInfo& a, const ObjectInfo& b) { return a.y < b.y; }
};
struct ByConfDescending {
    static bool less(const ObjectInfo& a, const ObjectInfo& b) { return a.conf > b.conf; }
};

}  // namespace

void sort_arr_objinfo_by_horizontal(ObjectInfo* objs, int num) { vo::quicksort<vo::TotalOrder<ByX>>(objs, num); }

void sort_arr_objinfo_by_vertical(ObjectInfo* objs, int num) { vo::quicksort<vo::TotalOrder<ByY>>(objs, num); }

void sort_arr_objinfo_by_conf(ObjectInfo* objs, int num) {
    vo::quicksort<vo::TotalOrder<ByConfDescending>>(objs, num);
}
