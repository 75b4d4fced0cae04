// Consistency checks on untrusted files, shared by every reader and writer.
//
// A failed check prints one line to stderr, "<unit>: <operation>: check
// failed: <condition>", and the caller returns its error status after
// releasing what it built. Each source file defines `kUnit` (its unit name,
// e.g. "vnet/conv") before using VO_CHECK.
#ifndef VONET_COMMON_CHECK_H
#define VONET_COMMON_CHECK_H

#include <stdint.h>
#include <stdio.h>

namespace vo {

void check_failed(const char* unit, const char* operation, const char* condition);

// Bytes between the stream position and the end of the file; INT64_MAX for
// streams without a size (pipes), where reads simply fail at the end.
int64_t bytes_left(FILE* stream);

// Element count of an (n, c, h, w) shape in 64 bits; -1 if any dimension is
// negative or the count does not fit in int32.
int64_t checked_count(int64_t num, int64_t channel, int64_t height, int64_t width);

// True when `count` elements of `elementSize` bytes can still be read from
// the stream: no record may claim more bytes than the file has left.
bool fits_in_file(FILE* stream, int64_t count, int64_t elementSize);

}  // namespace vo

// Evaluates `cond`; on failure reports it under the operation `op` and runs
// `on_fail` (a statement such as `return 4`).
#define VO_CHECK_IN(op, cond, on_fail)              \
    do {                                            \
        if (!(cond)) {                              \
            ::vo::check_failed(kUnit, op, #cond);   \
            on_fail;                                \
        }                                           \
    } while (0)

// The same, reported under the enclosing function's name.
#define VO_CHECK(cond, on_fail) VO_CHECK_IN(__func__, cond, on_fail)

#endif
