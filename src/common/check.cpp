#include "common/check.h"

#include <sys/stat.h>

#include <climits>
#include <cstdint>

namespace vo {

void check_failed(const char* unit, const char* operation, const char* condition) {
    fprintf(stderr, "%s: %s: check failed: %s\n", unit, operation, condition);
}

int64_t bytes_left(FILE* stream) {
    struct stat st;
    if (!stream || fstat(fileno(stream), &st) != 0 || !S_ISREG(st.st_mode)) return INT64_MAX;
    long pos = ftell(stream);
    if (pos < 0) return INT64_MAX;
    return st.st_size > pos ? int64_t(st.st_size) - pos : 0;
}

int64_t checked_count(int64_t num, int64_t channel, int64_t height, int64_t width) {
    if (num < 0 || channel < 0 || height < 0 || width < 0) return -1;
    // Each factor is below 2^31, so two products stay below 2^62 and a
    // check after each step cannot overflow.
    int64_t count = num * channel;
    if (count > INT32_MAX) return -1;
    count *= height;
    if (count > INT32_MAX) return -1;
    count *= width;
    return count > INT32_MAX ? -1 : count;
}

bool fits_in_file(FILE* stream, int64_t count, int64_t elementSize) {
    if (count < 0 || elementSize < 0) return false;
    if (elementSize != 0 && count > INT64_MAX / elementSize) return false;
    return count * elementSize <= bytes_left(stream);
}

}  // namespace vo
