// Reading and writing layer records in model files.
//
// A failed read or write is reported like a VO_CHECK_IN in the caller:
// "<unit>: <operation>: check failed: <condition>", with the unit and the
// public operation passed in. A single field is checked as "ret == 1"; an
// array read or written in one call is checked with the condition the
// caller names (e.g. "ret == weights->capacity"), so every record keeps the
// wording of its own format.
#ifndef VONET_COMMON_RECORD_IO_H
#define VONET_COMMON_RECORD_IO_H

#include <stdint.h>
#include <stdio.h>

#include "common/check.h"

namespace vo {

template <typename T>
bool read_field(FILE* stream, T* field, const char* unit, const char* operation) {
    if (fread(field, sizeof(T), 1, stream) == 1) return true;
    check_failed(unit, operation, "ret == 1");
    return false;
}

template <typename T>
bool write_field(FILE* stream, const T& field, const char* unit, const char* operation) {
    if (fwrite(&field, sizeof(T), 1, stream) == 1) return true;
    check_failed(unit, operation, "ret == 1");
    return false;
}

// The fields in order, each as read_field; stops at the first that fails.
template <typename... T>
bool read_fields(FILE* stream, const char* unit, const char* operation, T*... fields) {
    return (read_field(stream, fields, unit, operation) && ...);
}

template <typename... T>
bool write_fields(FILE* stream, const char* unit, const char* operation, const T&... fields) {
    return (write_field(stream, fields, unit, operation) && ...);
}

// `count` values in one call; a short read fails with `check`.
template <typename T>
bool read_values(FILE* stream, T* values, int64_t count, const char* unit, const char* operation,
                 const char* check) {
    if (int64_t(fread(values, sizeof(T), size_t(count), stream)) == count) return true;
    check_failed(unit, operation, check);
    return false;
}

template <typename T>
bool write_values(FILE* stream, const T* values, int64_t count, const char* unit, const char* operation,
                  const char* check) {
    if (int64_t(fwrite(values, sizeof(T), size_t(count), stream)) == count) return true;
    check_failed(unit, operation, check);
    return false;
}

// A record that claims more values than the rest of the file holds would
// end in a short read: it is refused as one (reported with `check`) before
// anything is allocated.
inline bool file_holds(FILE* stream, int64_t count, int64_t elementSize, const char* unit, const char* operation,
                       const char* check) {
    if (fits_in_file(stream, count, elementSize)) return true;
    check_failed(unit, operation, check);
    return false;
}

// The load operation of a record type: `*result` receives a new record
// filled by `Read` (which returns 0 or the failure status). A record that
// fails is released and `*result` stays null. `createdCheck` is the
// condition reported when the record cannot be allocated.
template <typename R, R* (*Create)(), int (*Read)(FILE*, R*), void (*Release)(R**)>
int load_record(FILE* stream, void** result, const char* unit, const char* operation, const char* createdCheck) {
    if (!stream) return 4;
    if (!result) return 2;
    *result = nullptr;
    R* record = Create();
    if (!record) {
        check_failed(unit, operation, createdCheck);
        return 4;
    }
    if (int status = Read(stream, record)) {
        Release(&record);
        return status;
    }
    *result = record;
    return 0;
}

}  // namespace vo

#endif
